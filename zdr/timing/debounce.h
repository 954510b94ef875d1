// Debounce and Debouncer: trailing-edge debouncing.
//
// A burst of requests produces one execution of the most recent request,
// `delay` seconds after the last request of the burst. Every call cancels the
// pending action (one that already started is not interrupted) and schedules
// the new one, so a steady stream of calls closer together than the delay
// postpones execution indefinitely; there is no leading edge and no maximum
// wait. Even with a delay of 0 the action runs asynchronously, never inside the
// call. Non-finite or negative delays count as 0. A superseded action is
// released at once and leaves nothing behind in the queue or the timers, so a
// long delay and a fast stream of calls hold one action, not one per call.
//
// Debouncer is the object form with a name (for identification only), a delay
// and the queue its actions run on (the main queue unless another is given;
// the main queue runs when the host drains it).
//
// Threads: run()/debounce() may be called from any thread (calls are
// serialised internally); actions run on the given queue. A pending action
// still runs after its Debounce is destroyed, like any work already submitted
// to a queue; what it captures must stay valid.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

class Debounce {
 public:
    explicit Debounce(double delay) : delay_(delay) {}
    Debounce(const Debounce&) = delete;
    Debounce& operator=(const Debounce&) = delete;

    /// Cancels the pending action, then schedules `action` on `queue` at now
    /// plus the delay. A null action only cancels the pending one.
    void run(std::function<void()> action, const DispatchQueue& queue);

    double delay() const { return delay_; }
    /// The item most recently scheduled (pending, run or cancelled), or null.
    std::shared_ptr<DispatchWorkItem> workItem() const;

 private:
    const double delay_;
    mutable std::mutex mutex_;
    std::shared_ptr<DispatchWorkItem> workItem_;
};

class Debouncer {
 public:
    /// A debouncer whose actions run on the main queue.
    static std::shared_ptr<Debouncer> debouncerWithName(std::string name, double delayPeriod);
    static std::shared_ptr<Debouncer> debouncerWithName(std::string name, double delayPeriod,
                                                        DispatchQueue queue);

    /// `queue` nullopt means the main queue.
    Debouncer(std::string name, double delayPeriod,
              std::optional<DispatchQueue> queue = std::nullopt);

    /// Unavailable: a debouncer needs a name and a delay. Stops the program.
    [[noreturn]] Debouncer();

    Debouncer(const Debouncer&) = delete;
    Debouncer& operator=(const Debouncer&) = delete;

    /// debouncer().run(block, queue()).
    void debounce(std::function<void()> block);

    const std::string& name() const { return name_; }
    double delayPeriod() const { return delayPeriod_; }
    const DispatchQueue& queue() const { return queue_; }
    Debounce& debouncer() { return debouncer_; }

 private:
    DispatchQueue queue_;
    std::string name_;
    double delayPeriod_;
    Debounce debouncer_;
};

}  // namespace zdr
