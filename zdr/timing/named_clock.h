// NamedClock and ClockNotification: a media clock with a name, so that one
// frame source can find another's clock ("Host Clock", "Camera 1") to follow
// it or to compute a varispeed rate against it, and the message that frame
// sources post when their clock comes or goes (see clock_state.h).
//
// Two NamedClocks are equal when their names are equal and both have no
// clock or both hold the same clock object. std::hash covers the name, a
// presence marker and the clock's identity. hashIncludingTimeValue() also
// covers the clock's current time, so it changes as the clock runs: a cheap
// way to see that a clock has moved.
//
// Posting a ClockNotification: a notification's object is type-erased, so the
// registry recognises clock notifications by how their object was made. Build
// it with ClockNotification::makeObject(); any other object is ignored.
//
// Threads: value types; every member may be called from any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "zdr/runtime/notification_center.h"
#include "zdr/runtime/uuid.h"
#include "zdr/timing/cm_time.h"

namespace zdr {

struct NamedClock {
    std::string name;
    std::shared_ptr<MediaClock> clock;  // null: no clock

    NamedClock() = default;
    NamedClock(std::string name_, std::shared_ptr<MediaClock> clock_)
        : name(std::move(name_)), clock(std::move(clock_)) {}

    /// Empty without a clock; else "Seconds: " and the clock's time in
    /// seconds as "%2.4f".
    std::string description() const;

    /// A hash of the name and, with a clock, of its current time value. The
    /// time value itself (value, timescale, flags, epoch) is hashed: every
    /// build here can hash a CMTime, so the fallback of hashing the time in
    /// seconds is never needed.
    std::size_t hashIncludingTimeValue() const;

    /// The rate mirrored about 1.0: (1 - rate) + 1, so 0.99 gives 1.01.
    static double computeVarispeedRate(double rate) { return (1.0 - rate) + 1.0; }

    friend bool operator==(const NamedClock& a, const NamedClock& b) {
        return a.name == b.name && sameClock(a.clock, b.clock);
    }
};

/// The object carried by the clock-created and clock-destroyed notifications.
struct ClockNotification {
    UUID frameSourceID;
    std::optional<NamedClock> clock;

    /// The notification object for `notification`, recognisable by from().
    static std::shared_ptr<void> makeObject(ClockNotification notification);
    /// The ClockNotification a notification carries, or null when its object
    /// is absent or of another type.
    static const ClockNotification* from(const Notification& notification);
};

}  // namespace zdr

template <>
struct std::hash<zdr::NamedClock> {
    std::size_t operator()(const zdr::NamedClock& c) const noexcept;
};
