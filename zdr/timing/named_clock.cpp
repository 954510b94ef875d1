#include "zdr/timing/named_clock.h"

#include <bit>
#include <cstdio>
#include <functional>

namespace zdr {

namespace {

std::size_t combine(std::size_t seed, std::size_t v) {
    return seed ^ (v + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

// The deleter type marks objects made by makeObject(): std::get_deleter checks
// it against the control block's real type, which a plain void pointer cannot.
struct ClockNotificationDeleter {
    void operator()(ClockNotification* n) const { delete n; }
};

}  // namespace

std::string NamedClock::description() const {
    if (!clock) return "";
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "Seconds: %2.4f", clock->seconds());
    return buffer;
}

std::size_t NamedClock::hashIncludingTimeValue() const {
    std::size_t h = std::hash<std::string>()(name);
    if (clock) h = combine(h, std::hash<CMTime>()(clock->time()));
    return h;
}

std::shared_ptr<void> ClockNotification::makeObject(ClockNotification notification) {
    return std::shared_ptr<ClockNotification>(new ClockNotification(std::move(notification)),
                                              ClockNotificationDeleter{});
}

const ClockNotification* ClockNotification::from(const Notification& notification) {
    if (!notification.object) return nullptr;
    if (!std::get_deleter<ClockNotificationDeleter>(notification.object)) return nullptr;
    return static_cast<const ClockNotification*>(notification.object.get());
}

}  // namespace zdr

std::size_t std::hash<zdr::NamedClock>::operator()(const zdr::NamedClock& c) const noexcept {
    std::size_t h = std::hash<std::string>()(c.name);
    h = zdr::combine(h, c.clock ? 1 : 0);
    if (c.clock) h = zdr::combine(h, c.clock->identityHash());
    return h;
}
