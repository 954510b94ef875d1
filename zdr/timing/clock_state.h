// ClockState: the process-wide registry of named media clocks, keyed by the
// UUID of the frame source that owns each clock.
//
// Every registry starts with one clock, "Host Clock" (the host time clock),
// under a UUID of its own. It then follows the default notification center:
// a clock-created notification whose object is a ClockNotification stores its
// clock under its frameSourceID (or, when it carries no clock, removes that
// entry); a clock-destroyed notification removes the entry. Objects of any
// other type are ignored. Frame sources post these through NamedClockHelpers
// (named_clock_variable.h) or build the object with
// ClockNotification::makeObject().
//
// The notification names are class-level settings ("ClockCreated" and
// "ClockDestroyed" by default); a registry listens to the names current when
// it was made, posters use the names current when they post.
//
// Threads: the registry is updated on the main queue only, so a change posted
// from any thread shows up once the host drains the main queue. clocks() and
// allClocksOtherThan() read on the calling thread: call them from the main
// thread. findClockWithName() may be called from any thread; it reads on the
// main queue (at once when already on the main thread) and calls its
// completion on a global queue. Its std::future form must not be waited on by
// the thread that drains the main queue unless that thread is the caller.
// clocksPublisher() values and key observers ("clocks", will-change first)
// arrive on the main thread.
#pragma once

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "zdr/runtime/notification_center.h"
#include "zdr/runtime/observable_object.h"
#include "zdr/runtime/uuid.h"
#include "zdr/timing/named_clock.h"

namespace zdr {

class ClockState : public ObservableObject, public std::enable_shared_from_this<ClockState> {
    struct Key {
        explicit Key() = default;
    };

 public:
    using Clocks = std::map<UUID, NamedClock>;

    /// The shared registry, made on first use.
    static std::shared_ptr<ClockState> globalClockState();
    /// A new, independent registry.
    static std::shared_ptr<ClockState> make();

    static std::string clockCreatedNotification();
    static void setClockCreatedNotification(std::string name);
    static std::string clockDestroyedNotification();
    static void setClockDestroyedNotification(std::string name);

    /// The registered clocks (never absent once made).
    std::optional<Clocks> clocks() const { return clocks_.get(); }
    /// Current value first, then every change.
    AnyPublisher<std::optional<Clocks>> clocksPublisher() const { return clocks_.publisher(); }

    /// Every registered clock not equal to `clock`.
    std::vector<NamedClock> allClocksOtherThan(const NamedClock& clock) const;

    /// The first registered clock named exactly `name`, or none.
    void findClockWithName(std::string name,
                           std::function<void(std::optional<NamedClock>)> completion) const;
    std::future<std::optional<NamedClock>> findClockWithName(std::string name) const;

    ClockState(Key);
    ClockState(const ClockState&) = delete;
    ClockState& operator=(const ClockState&) = delete;

 private:
    void subscribe();
    void apply(const Notification& n, bool created);

    Published<std::optional<Clocks>> clocks_{*this, "clocks", std::nullopt};
    std::set<std::shared_ptr<NotificationObserverToken>> cancellable_;
};

}  // namespace zdr
