#include "zdr/measurement/zdr_events_per_second.h"

#include <algorithm>
#include <utility>

namespace zdr {

ZDREventsPerSecond::ZDREventsPerSecond(int timeWindow, std::shared_ptr<Clock> clock)
    : clock_(clock ? std::move(clock) : Clock::system()), timeWindow_(timeWindow) {}

std::vector<double> ZDREventsPerSecond::events() const {
    std::lock_guard lock(mutex_);
    return events_;
}

void ZDREventsPerSecond::setEvents(std::vector<double> events) {
    std::lock_guard lock(mutex_);
    events_ = std::move(events);
}

int ZDREventsPerSecond::timeWindow() const {
    std::lock_guard lock(mutex_);
    return timeWindow_;
}

void ZDREventsPerSecond::setTimeWindow(int timeWindow) {
    std::lock_guard lock(mutex_);
    timeWindow_ = timeWindow;
}

void ZDREventsPerSecond::addEvent() { addEvent(clock_->uptimeSeconds()); }

void ZDREventsPerSecond::addEvent(double timeSeconds) {
    std::lock_guard lock(mutex_);
    events_.push_back(timeSeconds);
    if (timeWindow_ <= 0) return;
    // Forget what no window ending at or after the newest event can count.
    const double newest = *std::max_element(events_.begin(), events_.end());
    const double cutoff = newest - static_cast<double>(timeWindow_);
    std::erase_if(events_, [cutoff](double t) { return !(t > cutoff); });
}

double ZDREventsPerSecond::eventsPerSecond() const {
    return eventsPerSecond(clock_->uptimeSeconds());
}

double ZDREventsPerSecond::eventsPerSecond(double nowSeconds) const {
    std::lock_guard lock(mutex_);
    if (timeWindow_ <= 0) return 0.0;
    const double window = static_cast<double>(timeWindow_);
    const auto inWindow = std::count_if(events_.begin(), events_.end(), [&](double t) {
        return t > nowSeconds - window && t <= nowSeconds;
    });
    return static_cast<double>(inWindow) / window;
}

}  // namespace zdr
