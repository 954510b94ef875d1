// DispatchSourceTimer: a timer that submits its event handler to a queue at a
// deadline and then, optionally, at a fixed interval.
//
// Like a GCD timer source it is created suspended (suspend count 1): resume()
// starts it. suspend()/resume() nest; an unbalanced resume() is reported on
// standard error and ignored. A firing whose handler has not run yet is merged
// with the next one, so a slow handler is never queued twice. While suspended
// the timer does not fire; a firing missed while suspended is delivered once on
// resume. cancel() stops it for good and submits the cancel handler once.
// Dropping the last std::shared_ptr stops the timer (the runtime holds only a
// weak reference), whatever its suspend count.
//
// Thread safety: every member may be called from any thread, including from the
// handlers. Handlers run on the target queue.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

class DispatchSourceTimer : public std::enable_shared_from_this<DispatchSourceTimer> {
 public:
    static std::shared_ptr<DispatchSourceTimer> make(DispatchQueue queue);

    /// First firing at `deadline`, then every `repeatingSeconds` if given.
    /// Intervals that are not finite or not positive mean "no repetition".
    /// Replaces any earlier schedule.
    void schedule(DispatchTime deadline, std::optional<double> repeatingSeconds = std::nullopt,
                  double leewaySeconds = 0.0);
    void setEventHandler(std::function<void()> handler);
    void setCancelHandler(std::function<void()> handler);

    void resume();
    void suspend();
    void cancel();
    bool isCancelled() const;
    int suspendCount() const;
    double leeway() const;

    struct State;
    explicit DispatchSourceTimer(DispatchQueue queue);
    ~DispatchSourceTimer();

 private:
    std::shared_ptr<State> state_;
};

}  // namespace zdr
