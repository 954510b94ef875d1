#include "zdr/timing/clock_state.h"

#include <mutex>
#include <utility>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

namespace {

std::mutex& namesMutex() {
    static std::mutex m;
    return m;
}
std::string& createdName() {
    static std::string name = "ClockCreated";
    return name;
}
std::string& destroyedName() {
    static std::string name = "ClockDestroyed";
    return name;
}

}  // namespace

std::string ClockState::clockCreatedNotification() {
    std::lock_guard lock(namesMutex());
    return createdName();
}
void ClockState::setClockCreatedNotification(std::string name) {
    std::lock_guard lock(namesMutex());
    createdName() = std::move(name);
}
std::string ClockState::clockDestroyedNotification() {
    std::lock_guard lock(namesMutex());
    return destroyedName();
}
void ClockState::setClockDestroyedNotification(std::string name) {
    std::lock_guard lock(namesMutex());
    destroyedName() = std::move(name);
}

ClockState::ClockState(Key) {
    Clocks initial;
    initial.emplace(UUID::random(), NamedClock("Host Clock", hostTimeClock()));
    clocks_.set(std::move(initial));
}

std::shared_ptr<ClockState> ClockState::make() {
    auto state = std::make_shared<ClockState>(Key{});
    state->subscribe();
    return state;
}

std::shared_ptr<ClockState> ClockState::globalClockState() {
    // Lives until the process ends, as the other process-wide registries do.
    static const auto* state = new std::shared_ptr<ClockState>(make());
    return *state;
}

void ClockState::subscribe() {
    std::weak_ptr<ClockState> weak = weak_from_this();
    auto center = NotificationCenter::defaultCenter();
    cancellable_.insert(center->addObserver(clockCreatedNotification(), nullptr,
                                            DispatchQueue::main(), [weak](const Notification& n) {
                                                if (auto self = weak.lock()) self->apply(n, true);
                                            }));
    cancellable_.insert(center->addObserver(clockDestroyedNotification(), nullptr,
                                            DispatchQueue::main(), [weak](const Notification& n) {
                                                if (auto self = weak.lock()) self->apply(n, false);
                                            }));
}

void ClockState::apply(const Notification& n, bool created) {
    const ClockNotification* message = ClockNotification::from(n);
    if (!message) return;
    auto clocks = clocks_.get();
    if (!clocks) detail::fatalError("ClockState: clocks read before the registry was made");
    if (created && message->clock) {
        (*clocks)[message->frameSourceID] = *message->clock;
    } else {
        // A removal of an unknown source changes nothing and announces nothing.
        if (clocks->erase(message->frameSourceID) == 0) return;
    }
    clocks_.set(std::move(clocks));
}

std::vector<NamedClock> ClockState::allClocksOtherThan(const NamedClock& clock) const {
    auto clocks = clocks_.get();
    if (!clocks) detail::fatalError("ClockState: clocks read before the registry was made");
    std::vector<NamedClock> others;
    for (const auto& [id, candidate] : *clocks) {
        if (!(candidate == clock)) others.push_back(candidate);
    }
    return others;
}

namespace {

std::optional<NamedClock> firstNamed(const ClockState::Clocks& clocks, const std::string& name) {
    for (const auto& [id, candidate] : clocks) {
        if (candidate.name == name) return candidate;
    }
    return std::nullopt;
}

}  // namespace

void ClockState::findClockWithName(
    std::string name, std::function<void(std::optional<NamedClock>)> completion) const {
    // The table is read where it is written (the main queue); the scan and the
    // answer happen off it so that a busy main thread waits for neither.
    auto self = std::static_pointer_cast<const ClockState>(shared_from_this());
    auto scan = [name = std::move(name),
                 completion = std::move(completion)](std::optional<Clocks> clocks) mutable {
        if (!clocks) detail::fatalError("ClockState: clocks read before the registry was made");
        DispatchQueue::global().async(
            [name = std::move(name), completion = std::move(completion),
             clocks = std::move(*clocks)] { completion(firstNamed(clocks, name)); });
    };
    if (DispatchQueue::isMainThread()) {
        scan(self->clocks_.get());
    } else {
        DispatchQueue::main().async(
            [self, scan = std::move(scan)]() mutable { scan(self->clocks_.get()); });
    }
}

std::future<std::optional<NamedClock>> ClockState::findClockWithName(std::string name) const {
    auto promise = std::make_shared<std::promise<std::optional<NamedClock>>>();
    auto future = promise->get_future();
    findClockWithName(std::move(name),
                      [promise](std::optional<NamedClock> found) { promise->set_value(found); });
    return future;
}

}  // namespace zdr
