#include "zdr/timing/host_ticks.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <thread>

extern "C" {
double zdr_c_test_timescale_after_first_stamp(void);
uint64_t zdr_c_test_difference(uint64_t later, uint64_t earlier);
}

namespace {

TEST(HostTicks, FirstStampSetsTheTimescaleFromC) {
    EXPECT_EQ(zdr_c_test_timescale_after_first_stamp(), 1e9);
    EXPECT_EQ(ZDR_USECONDS_TIMESCALE, 1e9);
}

TEST(HostTicks, DifferenceIsTruncatedMillisecondsOfTicks) {
    zdr_useconds();
    const uint64_t base = 5'000'000'000ULL;
    EXPECT_EQ(zdr_c_test_difference(base + 1'500'000'000ULL, base), 1500u);
    EXPECT_EQ(zdr_time_difference_in_ms(base + 1'999'999ULL, base), 1u);
    EXPECT_EQ(zdr_time_difference_in_ms(base + 999'999ULL, base), 0u);
    EXPECT_EQ(zdr_time_difference_in_ms(base, base), 0u);
    // Out of order: the unsigned difference wraps around to a huge value.
    EXPECT_GT(zdr_time_difference_in_ms(base, base + 1), 18'000'000'000'000ULL);
}

TEST(HostTicks, StampsFollowTheMonotonicClock) {
    const uint64_t before = zdr_useconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const uint64_t after = zdr_useconds();
    const uint64_t ms = zdr_time_difference_in_ms(after, before);
    EXPECT_GE(ms, 20u);
    EXPECT_LT(ms, 5000u);
}

TEST(HostTicks, NonsenseTimescaleGivesClampedAnswers) {
    zdr_useconds();
    const double saved = ZDR_USECONDS_TIMESCALE;
    ZDR_USECONDS_TIMESCALE = 0.0;
    EXPECT_EQ(zdr_time_difference_in_ms(10, 5), std::numeric_limits<uint64_t>::max());
    ZDR_USECONDS_TIMESCALE = std::nan("");
    EXPECT_EQ(zdr_time_difference_in_ms(10, 5), 0u);
    ZDR_USECONDS_TIMESCALE = -1e9;
    EXPECT_EQ(zdr_time_difference_in_ms(10'000'000, 5), 0u);
    ZDR_USECONDS_TIMESCALE = saved;
}

}  // namespace
