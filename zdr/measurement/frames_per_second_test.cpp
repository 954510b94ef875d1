#include "zdr/measurement/frames_per_second.h"

#include <gtest/gtest.h>

#include <atomic>

#include "zdr/measurement/frames_per_second_test_support.h"

extern "C" {
double zdr_c_test_frames_per_second(uint64_t* lastTime, double previousFps);
double zdr_c_test_frames_per_second_null(void);
double zdr_c_test_weighting(void);
}

namespace {

// A tick source the test moves by hand: 6000 ticks a second, so 100 ticks are
// exactly 1/60 s.
std::atomic<uint64_t> ticks{0};
uint64_t manualTicks() { return ticks.load(); }
constexpr double kTicksPerSecond = 6000.0;
constexpr uint64_t kSixtiethOfASecond = 100;

class FramesPerSecondTest : public ::testing::Test {
 protected:
    void SetUp() override { ticks = 1000000; }
    zdr::testing::ScopedFrameTickSource source_{&manualTicks, kTicksPerSecond};
};

TEST_F(FramesPerSecondTest, FirstFrameAnswersZeroAndStoresTheStamp) {
    uint64_t last = 0;
    EXPECT_EQ(calculateFramesPerSecond(&last, 55.0), 0.0);
    EXPECT_EQ(last, 1000000u);
}

TEST_F(FramesPerSecondTest, SteadySixtyStaysSixty) {
    uint64_t last = 0;
    double fps = calculateFramesPerSecond(&last, 60.0);
    fps = 60.0;
    for (int frame = 0; frame < 10; ++frame) {
        ticks += kSixtiethOfASecond;
        fps = calculateFramesPerSecond(&last, fps);
        EXPECT_NEAR(fps, 60.0, 1e-9) << "frame " << frame;
    }
    EXPECT_EQ(last, 1000000u + 10 * kSixtiethOfASecond);
}

TEST_F(FramesPerSecondTest, WeightingIsTheSinglePrecisionNinetyPercent) {
    EXPECT_EQ(ZDR_FRAMES_PER_SECOND_WEIGHTING, static_cast<double>(0.9f));
    uint64_t last = 0;
    calculateFramesPerSecond(&last, 0.0);
    ticks += kSixtiethOfASecond;
    // From 0: only the new interval counts, weighted 1 - 0.8999999761581421.
    EXPECT_NEAR(calculateFramesPerSecond(&last, 0.0), 6.000001430511475, 1e-12);
    ticks += kSixtiethOfASecond;
    EXPECT_NEAR(calculateFramesPerSecond(&last, 100.0), 95.99999904632568, 1e-12);
    // Half a second between frames: 2 fps enters at 10 %.
    ticks += 3000;
    EXPECT_NEAR(calculateFramesPerSecondWithWeighting(&last, 30.0, 0.5), 16.0, 1e-12);
}

TEST_F(FramesPerSecondTest, PreviousRateIsFusedOntoTheNewInterval) {
    uint64_t last = 0;
    calculateFramesPerSecond(&last, 0.0);
    ticks += 3000;  // half a second: the new interval weighs (1 - 1.5) * 2 = -1 exactly
    // 2/3 * 1.5 is 1 - 2^-54 exactly; rounded on its own it would be 1 and the
    // answer 0. One fused multiply-add keeps the difference.
    EXPECT_EQ(calculateFramesPerSecondWithWeighting(&last, 2.0 / 3.0, 1.5), -0x1p-54);
}

TEST_F(FramesPerSecondTest, SameTickAndNullAnswerZero) {
    uint64_t last = 0;
    calculateFramesPerSecond(&last, 0.0);
    ticks += kSixtiethOfASecond;
    calculateFramesPerSecond(&last, 0.0);
    EXPECT_EQ(calculateFramesPerSecond(&last, 60.0), 0.0);  // no time passed
    EXPECT_EQ(calculateFramesPerSecond(nullptr, 60.0), 0.0);
    EXPECT_EQ(calculateFramesPerSecondWithWeighting(nullptr, 60.0, 0.5), 0.0);
}

TEST_F(FramesPerSecondTest, CallableFromC) {
    EXPECT_EQ(zdr_c_test_weighting(), 0.8999999761581421);
    EXPECT_EQ(zdr_c_test_frames_per_second_null(), 0.0);
    uint64_t last = 0;
    EXPECT_EQ(zdr_c_test_frames_per_second(&last, 60.0), 0.0);
    ticks += kSixtiethOfASecond;
    EXPECT_NEAR(zdr_c_test_frames_per_second(&last, 60.0), 60.0, 1e-9);
}

TEST(FramesPerSecondRealClockTest, UsesTheHostTicks) {
    uint64_t last = 0;
    EXPECT_EQ(calculateFramesPerSecond(&last, 0.0), 0.0);
    EXPECT_NE(last, 0u);
    EXPECT_EQ(ZDR_USECONDS_TIMESCALE, 1e9);
    const uint64_t first = last;
    double fps = 0.0;
    do {
        fps = calculateFramesPerSecond(&last, 0.0);
    } while (last == first);
    EXPECT_GT(fps, 0.0);
    EXPECT_GT(last, first);
}

}  // namespace
