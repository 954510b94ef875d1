#include "zdr/timing/named_clock_variable.h"

#include <utility>

#include "zdr/timing/clock_state.h"

namespace zdr {

DispatchQueue NamedClockActor::shared() {
    static const auto* queue = new DispatchQueue("com.zdr.NamedClockActor");
    return *queue;
}

void NamedClockHelpers::namedClockCreated(const UUID& id, const NamedClock& clock,
                                          std::function<void()> completion) {
    NotificationCenter::defaultCenter()->post(ClockState::clockCreatedNotification(),
                                              ClockNotification::makeObject({id, clock}));
    if (completion) completion();
}

void NamedClockHelpers::namedClockDestroyed(const UUID& id, const std::optional<NamedClock>& clock,
                                            std::function<void()> completion) {
    NotificationCenter::defaultCenter()->post(ClockState::clockDestroyedNotification(),
                                              ClockNotification::makeObject({id, clock}));
    if (completion) completion();
}

namespace {

// Runs `next` on the actor; a helper's completion may arrive on any thread.
std::function<void()> backOnActor(std::function<void()> next) {
    return [next = std::move(next)]() mutable { NamedClockActor::shared().async(std::move(next)); };
}

}  // namespace

void NamedClockVariable::setNamedClockAndNotify(const UUID& id,
                                                std::optional<NamedClock> valueToSet,
                                                std::function<void()> completion) {
    // Keeps the variable alive for the whole operation when a shared_ptr owns it.
    std::shared_ptr<NamedClockHelpers> keepAlive = weak_from_this().lock();
    auto* self = this;
    auto done = [completion = std::move(completion)] {
        if (completion) completion();
    };
    NamedClockActor::shared().async(
        [self, keepAlive, id, value = std::move(valueToSet), done = std::move(done)]() mutable {
            const std::optional<NamedClock> current = self->clock();
            if (!current && !value) return done();
            if (current && value && *current == *value) return done();

            auto storeOrAnnounce = [self, keepAlive, id, value = std::move(value),
                                    done = std::move(done)]() mutable {
                if (!value) {
                    self->setClock(std::nullopt);
                    return done();
                }
                const NamedClock created = *value;
                self->namedClockCreated(
                    id, created,
                    backOnActor([self, keepAlive, value = std::move(value), done]() mutable {
                        self->setClock(std::move(value));
                        done();
                    }));
            };
            if (current) {
                self->namedClockDestroyed(id, current, backOnActor(std::move(storeOrAnnounce)));
            } else {
                storeOrAnnounce();
            }
        });
}

std::future<void> NamedClockVariable::setNamedClockAndNotify(const UUID& id,
                                                             std::optional<NamedClock> valueToSet) {
    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    setNamedClockAndNotify(id, std::move(valueToSet), [promise] { promise->set_value(); });
    return future;
}

}  // namespace zdr
