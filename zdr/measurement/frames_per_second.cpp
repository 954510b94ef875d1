#include "zdr/measurement/frames_per_second.h"

#include <atomic>
#include <cmath>

#include "zdr/measurement/frames_per_second_test_support.h"

namespace {

// A test's tick source; none means zdr_useconds. Checked before the direct
// call rather than called through, so the usual path has no indirect call.
std::atomic<uint64_t (*)()> testTickSource{nullptr};

}  // namespace

extern "C" double calculateFramesPerSecond(uint64_t* lastTime, double previousFps) {
    return calculateFramesPerSecondWithWeighting(lastTime, previousFps,
                                                 ZDR_FRAMES_PER_SECOND_WEIGHTING);
}

extern "C" double calculateFramesPerSecondWithWeighting(uint64_t* lastTime, double previousFps,
                                                        double weighting) {
    if (lastTime == nullptr) return 0.0;
    const auto testSource = testTickSource.load(std::memory_order_relaxed);
    const uint64_t now = __builtin_expect(testSource != nullptr, 0) ? testSource() : zdr_useconds();
    const uint64_t elapsed = *lastTime == 0 ? 0 : now - *lastTime;
    const double seconds = static_cast<double>(elapsed) / ZDR_USECONDS_TIMESCALE;
    double result = 0.0;
    if (seconds > 0.0) {
        // One fused multiply-add, as the macOS build computes it, so that both
        // report the same rate to the last bit.
        result = std::fma(previousFps, weighting, (1.0 - weighting) * (1.0 / seconds));
    }
    *lastTime = now;
    return result;
}

namespace zdr::testing {

ScopedFrameTickSource::ScopedFrameTickSource(TickSource ticks, double ticksPerSecond)
    : previousSource_(testTickSource.load()) {
    (void)zdr_useconds();  // settles the real scale first, so it cannot overwrite ours later
    previousScale_ = ZDR_USECONDS_TIMESCALE;
    ZDR_USECONDS_TIMESCALE = ticksPerSecond;
    testTickSource.store(ticks);
}

ScopedFrameTickSource::~ScopedFrameTickSource() {
    testTickSource.store(previousSource_);
    ZDR_USECONDS_TIMESCALE = previousScale_;
}

}  // namespace zdr::testing
