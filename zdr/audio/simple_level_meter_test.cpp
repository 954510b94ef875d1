// The level meter's clamping, geometry and activity flag.
#include "zdr/audio/simple_level_meter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace zdr {
namespace {

TEST(SimpleLevelMeter, DefaultsAndTwoWayBinding) {
    float stored = 0.5f;
    SimpleLevelMeter meter(Binding<float>{[&] { return stored; }, [&](float v) { stored = v; }});
    EXPECT_EQ(meter.width(), 4.0);
    EXPECT_EQ(meter.radius(), 7.0);
    EXPECT_EQ(meter.height(), 60.0);
    meter.setLevel(0.25f);
    EXPECT_EQ(stored, 0.25f);
    stored = 0.75f;
    EXPECT_EQ(meter.level(), 0.75f);
}

TEST(SimpleLevelMeter, LevelIsClampedAndNonFiniteShowsEmpty) {
    auto level = Binding<float>::constant(0.0f);
    SimpleLevelMeter meter(level, 10.0, 2.0, 100.0);
    const std::pair<float, float> cases[] = {
        {1.7f, 1.0f},
        {-0.2f, 0.0f},
        {0.4f, 0.4f},
        {1.0f, 1.0f},
        {std::numeric_limits<float>::quiet_NaN(), 0.0f},
        {std::numeric_limits<float>::infinity(), 0.0f},
        {-std::numeric_limits<float>::infinity(), 0.0f},
    };
    for (auto [in, out] : cases) {
        level.set(in);
        EXPECT_EQ(meter.normalisedClamped(), out) << in;
    }
    level.set(0.25f);
    const MeterRect inner = meter.levelRect();
    EXPECT_DOUBLE_EQ(inner.height, 25.0);
    EXPECT_DOUBLE_EQ(inner.y, 75.0);  // filled from the bottom
    EXPECT_DOUBLE_EQ(inner.width, 10.0);
    EXPECT_DOUBLE_EQ(inner.cornerRadius, 2.0);
    const MeterRect outer = meter.backgroundRect();
    EXPECT_DOUBLE_EQ(outer.height, 100.0);
    level.set(std::numeric_limits<float>::quiet_NaN());
    EXPECT_DOUBLE_EQ(meter.levelRect().height, 0.0);
}

TEST(SimpleLevelMeter, ActivityFollowsApplicationNotifications) {
    auto center = NotificationCenter::make();
    SimpleLevelMeter meter(Binding<float>::constant(1.0f), 4, 7, 60, center);
    SimpleLevelMeter copy = meter;
    EXPECT_TRUE(meter.isApplicationActive());
    const MeterColour active = meter.levelColour();
    center->post(kNSApplicationWillResignActiveNotification);
    EXPECT_FALSE(copy.isApplicationActive());
    EXPECT_NE(meter.levelColour().green, active.green);
    center->post(kNSApplicationDidBecomeActiveNotification);
    EXPECT_TRUE(meter.isApplicationActive());
    EXPECT_EQ(center->observerCount(), 2u);
    {
        SimpleLevelMeter gone(Binding<float>::constant(0.0f), 4, 7, 60, center);
        EXPECT_EQ(center->observerCount(), 4u);
    }
    EXPECT_EQ(center->observerCount(), 2u);  // a destroyed meter stops observing
}

}  // namespace
}  // namespace zdr
