// ZDRTimer2: a repeating timer whose work runs on a chosen queue (a global
// queue by default), first at once when started and then every interval.
//
// start() and stop() may be called any number of times in any order: the timer
// has two states, and only a change of state touches the underlying timer
// source. The interval is used in whole milliseconds (truncated); below 1 ms
// the timer repeats with a 0 ms period, which means each firing comes as soon
// as the previous one's work has run (never two at once, even on a concurrent
// queue), and a negative interval fires once per start. An interval whose millisecond count is not
// finite or does not fit a signed 64-bit integer stops the program. Setting the
// interval reschedules with a deadline of now: a running timer fires at once,
// a stopped one fires at once when started.
//
// Threads: start, stop and setInterval may be called from any thread (they are
// serialised internally). The work runs on the target queue; with a concurrent
// queue, a firing that outlasts the interval can overlap the next one.
// Destruction is safe whether the timer is running or stopped: once the
// destructor returns the work is never called again, and the destructor waits
// for a firing that is already running the work (unless it is called from
// inside that work), so the work must not wait synchronously for the thread
// that destroys the timer (a sync onto the main queue while the main thread
// destroys it would deadlock).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/dispatch_source_timer.h"

namespace zdr {

enum class TimerState : int { suspended = 0, resumed = 1 };

namespace detail {
struct TimerCore;
}

class ZDRTimer2 {
 public:
    /// Not strict, on the global default-quality queue.
    ZDRTimer2(std::function<void()> work, float interval);
    /// `strict` asks for the deadline to be honoured exactly (the leeway is 0
    /// in every case here); `queue` nullopt means the global default queue.
    ZDRTimer2(std::function<void()> work, float interval, bool strict,
              std::optional<DispatchQueue> queue);

    /// Unavailable: a timer needs its work and interval. Stops the program.
    [[noreturn]] ZDRTimer2();

    ZDRTimer2(const ZDRTimer2&) = delete;
    ZDRTimer2& operator=(const ZDRTimer2&) = delete;
    ~ZDRTimer2();

    /// From stopped: runs (the first firing is at once). Otherwise nothing.
    void start();
    /// From running: stops. Otherwise nothing.
    void stop();
    bool isRunning() const { return state() == TimerState::resumed; }
    TimerState state() const { return state_.load(); }

    float interval() const;
    /// Stores the interval and reschedules (see the header comment).
    void setInterval(float interval);

    /// Replaces the work (null: firings do nothing).
    void setEventHandler(std::function<void()> work);
    bool isStrict() const { return strict_; }

    /// Does nothing; `done` is never called. Callers must not wait on it.
    void cleanUp(std::function<void()> done);

    /// The repetition in whole milliseconds for an interval in seconds:
    /// interval * 1000 in 32-bit float, truncated toward zero. Stops the
    /// program when that is not finite or does not fit a signed 64-bit integer.
    static std::int64_t millisecondsForInterval(float interval);

 private:
    void reschedule();

    mutable std::mutex mutex_;
    std::atomic<TimerState> state_{TimerState::suspended};
    float interval_ = 0.05f;
    bool strict_ = false;
    std::shared_ptr<DispatchSourceTimer> timerSource_;
    std::shared_ptr<detail::TimerCore> core_;
};

}  // namespace zdr
