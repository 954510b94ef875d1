// ZDREventsPerSecond: how many events (frames delivered, buffers dropped,
// callbacks) happened per second over a recent time window.
//
// events holds the times of the recorded events in seconds (on the clock's
// monotonic uptime unless the caller records its own times) and timeWindow
// the window length in whole seconds. eventsPerSecond(now) counts the events
// in the window (now - timeWindow, now] and divides by timeWindow; with a
// window that is not positive, or no events, the rate is 0. Recording an event
// also forgets the events that have fallen out of the window behind it, so
// storage stays proportional to the rate. Times need not arrive in order.
//
// The clock is injectable so that rates can be tested without waiting.
//
// Threads: every member may be called from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "zdr/runtime/clock.h"

namespace zdr {

class ZDREventsPerSecond {
 public:
    explicit ZDREventsPerSecond(int timeWindow = 1, std::shared_ptr<Clock> clock = Clock::system());

    std::vector<double> events() const;
    void setEvents(std::vector<double> events);
    int timeWindow() const;
    void setTimeWindow(int timeWindow);

    /// Records an event now (the clock's uptime in seconds).
    void addEvent();
    /// Records an event at `timeSeconds`.
    void addEvent(double timeSeconds);

    /// Events per second over the window that ends now.
    double eventsPerSecond() const;
    /// Events per second over the window that ends at `nowSeconds`.
    double eventsPerSecond(double nowSeconds) const;

 private:
    std::shared_ptr<Clock> clock_;
    mutable std::mutex mutex_;
    std::vector<double> events_;
    int timeWindow_;
};

}  // namespace zdr
