#include "zdr/measurement/frames_per_second.h"

#include <atomic>
#include <cmath>

#include "zdr/measurement/frames_per_second_test_support.h"

namespace {

// zdr_useconds unless a test has put in a tick source of its own.
std::atomic<uint64_t (*)()> tickSource{&zdr_useconds};

}  // namespace

extern "C" double calculateFramesPerSecond(uint64_t* lastTime, double previousFps) {
    return calculateFramesPerSecondWithWeighting(lastTime, previousFps,
                                                 ZDR_FRAMES_PER_SECOND_WEIGHTING);
}

extern "C" double calculateFramesPerSecondWithWeighting(uint64_t* lastTime, double previousFps,
                                                        double weighting) {
    if (lastTime == nullptr) return 0.0;
    const uint64_t now = tickSource.load(std::memory_order_relaxed)();
    const uint64_t elapsed = *lastTime == 0 ? 0 : now - *lastTime;
    const double seconds = static_cast<double>(elapsed) / ZDR_USECONDS_TIMESCALE;
    double result = 0.0;
    if (seconds > 0.0) {
        // One fused multiply-add, as the original computes it: the rounding
        // matches its rates to the last bit.
        result = std::fma(previousFps, weighting, (1.0 - weighting) * (1.0 / seconds));
    }
    *lastTime = now;
    return result;
}

namespace zdr::testing {

ScopedFrameTickSource::ScopedFrameTickSource(TickSource ticks, double ticksPerSecond)
    : previousSource_(tickSource.load()) {
    (void)zdr_useconds();  // settles the real scale first, so it cannot overwrite ours later
    previousScale_ = ZDR_USECONDS_TIMESCALE;
    ZDR_USECONDS_TIMESCALE = ticksPerSecond;
    tickSource.store(ticks);
}

ScopedFrameTickSource::~ScopedFrameTickSource() {
    tickSource.store(previousSource_);
    ZDR_USECONDS_TIMESCALE = previousScale_;
}

}  // namespace zdr::testing
