#include "zdr/timing/zdr_serializer.h"

#include <chrono>
#include <cmath>
#include <cstdint>

namespace zdr {

namespace {
// About 100 years: far enough to mean "never soon", near enough that adding it
// to the steady clock cannot overflow.
constexpr std::int64_t kMaxOffsetNanoseconds = INT64_C(3155760000) * INT64_C(1000000000);
}  // namespace

DispatchTime ZDRSerializer::dispatchTimeForSeconds(float seconds) {
    // The product is deliberately formed in float, so the float rounding of
    // the delay is part of the answer (0.1 s is 100000001 ns), as callers of
    // this float interface have always had it.
    const float nanoseconds = seconds * 1000000000.0f;
    std::int64_t offset = 0;
    if (std::isnan(nanoseconds)) {
        offset = 0;
    } else if (nanoseconds >= static_cast<float>(kMaxOffsetNanoseconds)) {
        offset = kMaxOffsetNanoseconds;
    } else if (nanoseconds <= -static_cast<float>(kMaxOffsetNanoseconds)) {
        offset = -kMaxOffsetNanoseconds;
    } else {
        offset = static_cast<std::int64_t>(nanoseconds);
    }
    return dispatchNow() + std::chrono::nanoseconds(offset);
}

void ZDRSerializer::asyncDelayedOnMainAfter(float seconds, std::function<void()> block) {
    if (!block) return;
    if (seconds > 0) {
        DispatchQueue::main().asyncAfter(dispatchTimeForSeconds(seconds), std::move(block));
    } else {
        DispatchQueue::main().async(std::move(block));
    }
}

void ZDRSerializer::asyncOnMain(std::function<void()> block) {
    asyncDelayedOnMainAfter(0, std::move(block));
}

bool ZDRSerializer::isMainQueue() { return DispatchQueue::isMainThread(); }

void ZDRSerializer::dispatchOnMainIfRequired(std::function<void()> block) {
    if (!block) return;
    if (DispatchQueue::isMainThread()) {
        block();
    } else {
        DispatchQueue::main().async(std::move(block));
    }
}

}  // namespace zdr
