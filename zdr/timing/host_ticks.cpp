#include "zdr/timing/host_ticks.h"

#include <cmath>
#include <limits>

#include "zdr/runtime/clock.h"

extern "C" {
double ZDR_USECONDS_TIMESCALE = 0.0;
}

namespace {

void ensureTimescale() {
    // A function-local static makes the one write happen before every caller
    // proceeds, so concurrent first calls neither race nor see 0.
    static const bool initialised = [] {
        ZDR_USECONDS_TIMESCALE = zdr::hostClockFrequency();
        return true;
    }();
    (void)initialised;
}

}  // namespace

extern "C" uint64_t zdr_useconds(void) {
    ensureTimescale();
    return zdr::currentHostTime();
}

extern "C" uint64_t zdr_time_difference_in_ms(uint64_t later, uint64_t earlier) {
    // Called before any stamp was taken the scale would still be 0; set it
    // rather than divide by zero.
    ensureTimescale();
    const double ms = static_cast<double>(later - earlier) / (ZDR_USECONDS_TIMESCALE / 1000.0);
    // The scale is a writable global: a host that sets it to 0, a negative or
    // a NaN gets a clamped answer instead of an undefined conversion.
    if (!(ms >= 0.0)) return 0;
    if (ms >= 18446744073709551616.0) return std::numeric_limits<uint64_t>::max();
    return static_cast<uint64_t>(ms);
}
