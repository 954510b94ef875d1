#include "zdr/runtime/clock.h"

#include <time.h>

namespace zdr {

namespace {

class SystemClock : public Clock {
 public:
    std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::now();
    }
    std::chrono::nanoseconds uptime() const override {
        return std::chrono::nanoseconds(currentHostTime());
    }
};

}  // namespace

std::shared_ptr<Clock> Clock::system() {
    static auto clock = std::make_shared<SystemClock>();
    return clock;
}

std::uint64_t currentHostTime() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

double hostClockFrequency() { return 1e9; }

}  // namespace zdr
