// NamedClockHelpers and NamedClockVariable: how a frame source tells the clock
// registry (clock_state.h) that its clock came, went or changed.
//
// NamedClockHelpers posts the clock-created and clock-destroyed notifications
// with a ClockNotification; by default it posts synchronously on the calling
// thread and then calls the completion there. Override the two operations to
// do more (or to answer later): call the completion when done, from any
// thread.
//
// NamedClockVariable is a helper that stores a clock (implement clock() and
// setClock()). setNamedClockAndNotify() changes it and tells everyone, in this
// order: nothing when the value does not change; otherwise the destroyed
// notice for the old clock while it is still stored, then, for a new clock,
// the created notice before the new clock is stored. Its steps run on
// NamedClockActor::shared(), one process-wide serial queue, so calls from
// several threads are taken one at a time (the steps of two calls may
// interleave where a step waits for a completion). Its completion, and the
// std::future form, are fulfilled on that queue. The variable must stay alive
// until then: when it is held by a std::shared_ptr the operation keeps it
// alive itself.
//
// IdentifiableNamedClockVariable adds id(), and setNamedClockAndNotify() with
// only the value uses it.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <optional>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/uuid.h"
#include "zdr/timing/named_clock.h"

namespace zdr {

/// The serial queue on which named-clock changes are made, one per process.
class NamedClockActor {
 public:
    static DispatchQueue shared();
};

class NamedClockHelpers : public std::enable_shared_from_this<NamedClockHelpers> {
 public:
    virtual ~NamedClockHelpers() = default;

    /// Posts the clock-created notification for `id` with `clock`.
    virtual void namedClockCreated(const UUID& id, const NamedClock& clock,
                                   std::function<void()> completion);
    /// Posts the clock-destroyed notification for `id` with `clock`.
    virtual void namedClockDestroyed(const UUID& id, const std::optional<NamedClock>& clock,
                                     std::function<void()> completion);
};

class NamedClockVariable : public NamedClockHelpers {
 public:
    virtual std::optional<NamedClock> clock() const = 0;
    virtual void setClock(std::optional<NamedClock> clock) = 0;

    /// Sets the clock to `valueToSet` and posts what changed (see above).
    void setNamedClockAndNotify(const UUID& id, std::optional<NamedClock> valueToSet,
                                std::function<void()> completion);
    std::future<void> setNamedClockAndNotify(const UUID& id, std::optional<NamedClock> valueToSet);
};

class IdentifiableNamedClockVariable : public NamedClockVariable {
 public:
    virtual UUID id() const = 0;

    using NamedClockVariable::setNamedClockAndNotify;
    void setNamedClockAndNotify(std::optional<NamedClock> valueToSet,
                                std::function<void()> completion) {
        setNamedClockAndNotify(id(), std::move(valueToSet), std::move(completion));
    }
    std::future<void> setNamedClockAndNotify(std::optional<NamedClock> valueToSet) {
        return setNamedClockAndNotify(id(), std::move(valueToSet));
    }
};

}  // namespace zdr
