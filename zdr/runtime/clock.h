// Clock: an injectable source of wall time and monotonic uptime, so that code
// whose behaviour depends on time can be tested without sleeping. Also the host
// clock (CLOCK_MONOTONIC in nanoseconds, frequency 1e9) that audio time stamps
// and tick-based helpers use.
//
// Thread safety: Clock::system() and ManualClock may be used from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace zdr {

class Clock {
 public:
    virtual ~Clock() = default;
    /// Wall-clock time.
    virtual std::chrono::system_clock::time_point now() const = 0;
    /// Monotonic time since an arbitrary fixed point (boot, for the system clock).
    virtual std::chrono::nanoseconds uptime() const = 0;

    double uptimeSeconds() const { return std::chrono::duration<double>(uptime()).count(); }

    /// The real clocks: system_clock and CLOCK_MONOTONIC.
    static std::shared_ptr<Clock> system();
};

/// A clock that moves only when told to. Starts at the given wall time and an
/// uptime of zero.
class ManualClock : public Clock {
 public:
    explicit ManualClock(std::chrono::system_clock::time_point start = {})
        : wall_(start.time_since_epoch().count()) {}

    std::chrono::system_clock::time_point now() const override {
        return std::chrono::system_clock::time_point(
            std::chrono::system_clock::duration(wall_.load()));
    }
    std::chrono::nanoseconds uptime() const override {
        return std::chrono::nanoseconds(uptime_.load());
    }

    /// Moves both wall time and uptime forward.
    void advance(std::chrono::nanoseconds by) {
        uptime_ += by.count();
        wall_ += std::chrono::duration_cast<std::chrono::system_clock::duration>(by).count();
    }
    void advanceSeconds(double seconds) {
        advance(std::chrono::nanoseconds(static_cast<std::int64_t>(seconds * 1e9)));
    }

 private:
    std::atomic<std::chrono::system_clock::rep> wall_;
    std::atomic<std::int64_t> uptime_{0};
};

/// Host time in ticks (nanoseconds of CLOCK_MONOTONIC).
std::uint64_t currentHostTime();
/// Host ticks per second: 1e9.
double hostClockFrequency();

}  // namespace zdr
