#include "zdr/timing/cm_time.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <unordered_set>

#include "zdr/timing/named_clock.h"

namespace zdr {
namespace {

// A clock whose time the test sets.
class SteppedClock final : public MediaClock {
 public:
    CMTime time() const override { return CMTime::make(ticks_.load(), 1000); }
    void set(std::int64_t ticks) { ticks_ = ticks; }

 private:
    std::atomic<std::int64_t> ticks_{0};
};

TEST(CMTimeTest, ComparesRationalValuesExactlyAcrossTimescales) {
    EXPECT_EQ(CMTime::make(1, 2), CMTime::make(2, 4));
    EXPECT_LT(CMTime::make(1, 3), CMTime::make(333334, 1000000));
    EXPECT_GT(CMTime::make(1, 3), CMTime::make(333333, 1000000));
    // Cross products that overflow 64 bits still compare right.
    EXPECT_LT(CMTime::make(INT64_MAX - 1, 1000000000), CMTime::make(INT64_MAX, 1000000000));
    EXPECT_GT(CMTime::make(INT64_MAX / 2, 3), CMTime::make(INT64_MAX / 2, 4));
    // Epochs come first.
    EXPECT_LT(CMTime::make(100, 1, 0), CMTime::make(1, 1, 1));
}

TEST(CMTimeTest, NonNumericTimesSortAroundTheNumericOnes) {
    const CMTime big = CMTime::make(INT64_MAX, 1);
    EXPECT_LT(CMTime::negativeInfinity(), CMTime::make(INT64_MIN, 1));
    EXPECT_GT(CMTime::indefinite(), big);
    EXPECT_GT(CMTime::positiveInfinity(), CMTime::indefinite());
    EXPECT_GT(CMTime::invalid(), CMTime::positiveInfinity());
    EXPECT_EQ(CMTime::invalid(), (CMTime{5, 7, 0, 0}));
    // A valid flag without a timescale is no time either.
    EXPECT_EQ(CMTime::invalid(), (CMTime{5, 0, kCMTimeFlags_Valid, 0}));
}

TEST(CMTimeTest, SecondsAndDescription) {
    EXPECT_DOUBLE_EQ(CMTime::make(3, 4).seconds(), 0.75);
    EXPECT_TRUE(std::isnan(CMTime::invalid().seconds()));
    EXPECT_TRUE(std::isnan(CMTime::indefinite().seconds()));
    EXPECT_EQ(CMTime::positiveInfinity().seconds(), INFINITY);
    EXPECT_EQ(CMTime::negativeInfinity().seconds(), -INFINITY);
    EXPECT_EQ(CMTime::make(5, 1000, 2).description(),
              "CMTime(value: 5, timescale: 1000, flags: CMTimeFlags(rawValue: 1), epoch: 2)");
}

TEST(CMTimeTest, EqualTimesHashEqual) {
    std::hash<CMTime> h;
    EXPECT_EQ(h(CMTime::make(1, 2)), h(CMTime::make(500, 1000)));
    EXPECT_EQ(h(CMTime::invalid()), h(CMTime{9, 0, kCMTimeFlags_Valid, 0}));
    EXPECT_NE(h(CMTime::make(1, 2)), h(CMTime::make(1, 3)));
    EXPECT_NE(h(CMTime::make(1, 2, 0)), h(CMTime::make(1, 2, 1)));
    std::unordered_set<CMTime> set{CMTime::make(1, 2), CMTime::make(2, 4), CMTime::make(3, 4)};
    EXPECT_EQ(set.size(), 2u);
}

TEST(MediaClockTest, HostClockIsOneMonotonicClockInNanoseconds) {
    auto clock = hostTimeClock();
    EXPECT_EQ(clock, hostTimeClock());
    const CMTime a = clock->time();
    const CMTime b = clock->time();
    EXPECT_EQ(a.timescale, 1000000000);
    EXPECT_TRUE(a.isNumeric());
    EXPECT_LE(a, b);
    EXPECT_EQ(clock->description().rfind("CMClock: CMTime(value: ", 0), 0u);
}

TEST(NamedClockTest, EqualityIsNameAndClockIdentity) {
    auto a = std::make_shared<SteppedClock>();
    auto b = std::make_shared<SteppedClock>();
    EXPECT_EQ(NamedClock("cam", a), NamedClock("cam", a));
    EXPECT_FALSE(NamedClock("cam", a) == NamedClock("cam", b));  // same time, other object
    EXPECT_FALSE(NamedClock("cam", a) == NamedClock("mic", a));
    EXPECT_FALSE(NamedClock("cam", a) == NamedClock("cam", nullptr));
    EXPECT_EQ(NamedClock("cam", nullptr), NamedClock("cam", nullptr));

    std::hash<NamedClock> h;
    EXPECT_EQ(h(NamedClock("cam", a)), h(NamedClock("cam", a)));
    EXPECT_NE(h(NamedClock("cam", a)), h(NamedClock("cam", nullptr)));
    std::unordered_set<NamedClock> set{NamedClock("cam", a), NamedClock("cam", a),
                                       NamedClock("cam", b)};
    EXPECT_EQ(set.size(), 2u);
}

TEST(NamedClockTest, HashIncludingTimeValueFollowsTheClock) {
    auto clock = std::make_shared<SteppedClock>();
    NamedClock named("cam", clock);
    clock->set(1000);
    const std::size_t first = named.hashIncludingTimeValue();
    EXPECT_EQ(named.hashIncludingTimeValue(), first);
    clock->set(2000);
    EXPECT_NE(named.hashIncludingTimeValue(), first);
    // Without a clock only the name counts.
    EXPECT_EQ(NamedClock("x", nullptr).hashIncludingTimeValue(),
              NamedClock("x", nullptr).hashIncludingTimeValue());
    EXPECT_NE(NamedClock("x", nullptr).hashIncludingTimeValue(),
              NamedClock("y", nullptr).hashIncludingTimeValue());
}

TEST(NamedClockTest, DescriptionAndVarispeed) {
    EXPECT_EQ(NamedClock("none", nullptr).description(), "");
    auto clock = std::make_shared<SteppedClock>();
    clock->set(1500);
    EXPECT_EQ(NamedClock("cam", clock).description(), "Seconds: 1.5000");
    clock->set(12345678);
    EXPECT_EQ(NamedClock("cam", clock).description(), "Seconds: 12345.6780");

    EXPECT_EQ(NamedClock::computeVarispeedRate(1.0), 1.0);
    EXPECT_EQ(NamedClock::computeVarispeedRate(0.5), 1.5);
    EXPECT_EQ(NamedClock::computeVarispeedRate(0.99), (1.0 - 0.99) + 1.0);
    EXPECT_EQ(NamedClock::computeVarispeedRate(2.0), 0.0);
}

TEST(ClockNotificationTest, OnlyObjectsMadeForItAreRecognised) {
    UUID id = UUID::random();
    Notification n{"ClockCreated", ClockNotification::makeObject({id, std::nullopt}), {}};
    const ClockNotification* message = ClockNotification::from(n);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->frameSourceID, id);

    EXPECT_EQ(ClockNotification::from({"ClockCreated", nullptr, {}}), nullptr);
    EXPECT_EQ(ClockNotification::from({"ClockCreated", std::make_shared<int>(3), {}}), nullptr);
    // Even a ClockNotification made another way is not taken on trust.
    EXPECT_EQ(
        ClockNotification::from(
            {"ClockCreated", std::make_shared<ClockNotification>(ClockNotification{id, {}}), {}}),
        nullptr);
}

}  // namespace
}  // namespace zdr
