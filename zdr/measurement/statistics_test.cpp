#include "zdr/measurement/statistics.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "zdr/testing/eventually.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;
using D = DurationMeasurement;

/// A collector on a manual clock, switched on (the clearing task drained).
struct Fixture : ::testing::Test {
    std::shared_ptr<ManualClock> clock =
        std::make_shared<ManualClock>(std::chrono::system_clock::time_point(1000s));
    std::shared_ptr<Statistics> stats = Statistics::make(clock);
    std::atomic<int> announcements{0};
    std::shared_ptr<KeyObservation> token;

    void SetUp() override {
        DispatchQueue::main().drain();
        stats->setEnabled(true);
        DispatchQueue::main().drain();
        token = stats->observe(std::string(Statistics::kSeriesKey),
                               [this](const KeyChange&) { ++announcements; }, {.prior = true});
    }
    void TearDown() override { DispatchQueue::main().drain(); }
};

TEST(StatisticsOff, AddingWhileOffStoresAndAnnouncesNothing) {
    auto stats = Statistics::make();
    int announced = 0;
    auto c = stats->objectWillChange()->sink([&](const std::string&) { ++announced; });
    EXPECT_FALSE(stats->enabled());
    stats->addStatMilliseconds("a", 1);
    stats->addStat("a", D::seconds(1));
    int ran = 0;
    stats->timeCallInNanoseconds("t", [&] { ++ran; });
    DispatchQueue::main().drain();
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(stats->series().empty());
    EXPECT_EQ(announced, 0);
}

using StatisticsTest = Fixture;

TEST_F(StatisticsTest, KeepsTheBoundOneOutOneIn) {
    for (int i = 0; i < 1001; ++i) stats->addStatNanoseconds("s", i);
    auto s = stats->getSeries("s");
    ASSERT_EQ(s.stats.size(), 1000u);
    EXPECT_EQ(s.stats.front().value, D::nanoseconds(1)) << "the oldest sample goes";
    EXPECT_EQ(s.stats.back().value, D::nanoseconds(1000));
}

TEST_F(StatisticsTest, ALoweredBoundKeepsTheSeriesSizeInsteadOfShrinking) {
    for (int i = 0; i < 10; ++i) stats->addStatNanoseconds("s", i);
    stats->setMaximumSamplesToKeep(4);
    stats->addStatNanoseconds("s", 10);
    auto s = stats->getSeries("s");
    EXPECT_EQ(s.stats.size(), 10u);
    EXPECT_EQ(s.stats.front().value, D::nanoseconds(1));
}

TEST_F(StatisticsTest, ABoundOfZeroOrLessKeepsTheNewestSampleOnly) {
    stats->setMaximumSamplesToKeep(-5);
    for (int i = 0; i < 3; ++i) stats->addStatNanoseconds("s", i);
    auto s = stats->getSeries("s");
    ASSERT_EQ(s.stats.size(), 1u);
    EXPECT_EQ(s.stats[0].value, D::nanoseconds(2));
}

TEST_F(StatisticsTest, ANaNIntervalAnnouncesEverySample) {
    stats->setSendObjectDidChangedEvery(std::nan(""));
    stats->addStatNanoseconds("s", 1);
    stats->addStatNanoseconds("s", 2);
    EXPECT_EQ(announcements.load(), 2);
}

TEST_F(StatisticsTest, TwoSamplesWithinTheIntervalAnnounceOnceAndRecordRenderStats) {
    stats->addStatMilliseconds("a", 1);
    clock->advance(500ms);
    stats->addStatMilliseconds("a", 2);
    EXPECT_EQ(announcements.load(), 1);
    auto render = stats->getSeries(Statistics::stat_RenderStats);
    ASSERT_EQ(render.stats.size(), 1u);
    EXPECT_EQ(render.stats[0].value, D::milliseconds(1));
    EXPECT_EQ(render.stats[0].value.unit(), UnitDuration::milliseconds);
    EXPECT_EQ(stats->lastSendDateTime(), clock->now() - 500ms);
    // After the interval (strictly more than it), the next sample announces.
    clock->advance(500ms);
    stats->addStatMilliseconds("a", 3);
    EXPECT_EQ(announcements.load(), 1) << "exactly one interval later is not later than it";
    clock->advance(1ms);
    stats->addStatMilliseconds("a", 4);
    EXPECT_EQ(announcements.load(), 2);
    EXPECT_EQ(stats->getSeries(Statistics::stat_RenderStats).stats.size(), 2u);
}

TEST_F(StatisticsTest, AClockThatWentBackFarEnoughAnnouncesAgain) {
    stats->addStatMilliseconds("a", 1);
    clock->advance(-2s);
    stats->addStatMilliseconds("a", 1);
    EXPECT_EQ(announcements.load(), 2);
}

TEST_F(StatisticsTest, WithoutAnIntervalEverySampleAnnouncesAndNoRenderStats) {
    stats->setSendObjectDidChangedEvery(0);
    for (int i = 0; i < 5; ++i) stats->addStatMilliseconds("a", i);
    EXPECT_EQ(announcements.load(), 5);
    EXPECT_EQ(stats->getSeriesNames(), std::vector<std::string>{"a"});
}

TEST_F(StatisticsTest, SeriesNamesAreSorted) {
    stats->setSendObjectDidChangedEvery(0);
    stats->addStatSeconds("b", 1);
    stats->addStatSeconds("a", 1);
    stats->addStatSeconds("B", 1);
    EXPECT_EQ(stats->getSeriesNames(), (std::vector<std::string>{"B", "a", "b"}));
}

TEST_F(StatisticsTest, MinAndMaxCompareAcrossUnits) {
    stats->addStatSeconds("m", 1);
    stats->addStatMilliseconds("m", 500);
    stats->addStatNanoseconds("m", 7e8);
    auto s = stats->getSeries("m");
    EXPECT_EQ(s.min(), D::milliseconds(500));
    EXPECT_EQ(s.min()->unit(), UnitDuration::milliseconds);
    EXPECT_EQ(s.max(), D::seconds(1));
    EXPECT_FALSE((Statistics::Series{"empty", {}}.min().has_value()));
}

TEST_F(StatisticsTest, LatestByCountAndByAge) {
    stats->setSendObjectDidChangedEvery(0);
    for (int i = 0; i < 5; ++i) {
        stats->addStatSeconds("l", i);
        clock->advance(1s);
    }
    // Samples stamped at 1000 s .. 1004 s; now is 1005 s.
    auto s = stats->getSeries("l");
    auto last2 = s.latest(2);
    ASSERT_EQ(last2.size(), 2u);
    EXPECT_EQ(last2[0].value, D::seconds(3));
    EXPECT_EQ(s.latest(50).size(), 5u);
    EXPECT_TRUE(s.latest(0).empty());
    EXPECT_TRUE(s.latest(-3).empty());
    // The sample exactly five seconds old is excluded; four seconds old is in.
    auto recent = s.latest(5s, clock->now());
    ASSERT_EQ(recent.size(), 4u);
    EXPECT_EQ(recent.front().value, D::seconds(1));
}

TEST_F(StatisticsTest, SwitchingOnOrOffClearsOnTheMainQueue) {
    stats->addStatSeconds("x", 1);
    const auto sent = stats->lastSendDateTime();
    stats->setEnabled(true);  // the same value clears too
    stats->addStatSeconds("x", 2);
    EXPECT_EQ(stats->getSeries("x").stats.size(), 2u) << "cleared only when the main queue runs";
    DispatchQueue::main().drain();
    EXPECT_TRUE(stats->series().empty());
    EXPECT_EQ(stats->lastSendDateTime(), sent) << "the last announcement time survives";
    stats->setEnabled(false);
    DispatchQueue::main().drain();
    stats->addStatSeconds("x", 3);
    EXPECT_TRUE(stats->series().empty());
}

TEST_F(StatisticsTest, ClearEmptiesAndKeepsLastSendDateTime) {
    stats->addStatSeconds("x", 1);
    stats->clear();
    EXPECT_TRUE(stats->getSeriesNames().empty());
    EXPECT_TRUE(stats->lastSendDateTime().has_value());
}

TEST_F(StatisticsTest, TimeCallRecordsTheInjectedClocksDifferenceOnTheMainQueue) {
    int ran = 0;
    stats->timeCallInNanoseconds("work", [&] {
        ++ran;
        clock->advance(1500ns);
    });
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(stats->series().empty()) << "recorded on the main queue, not here";
    DispatchQueue::main().drain();
    auto s = stats->getSeries("work");
    ASSERT_EQ(s.stats.size(), 1u);
    EXPECT_EQ(s.stats[0].value, D::nanoseconds(1500));
    EXPECT_EQ(s.stats[0].value.unit(), UnitDuration::nanoseconds);
}

TEST_F(StatisticsTest, AThrowingTimedCallPropagatesAndRecordsNothing) {
    EXPECT_THROW(stats->timeCallInNanoseconds("t", [] { throw std::runtime_error("x"); }),
                 std::runtime_error);
    DispatchQueue::main().drain();
    EXPECT_TRUE(stats->series().empty());
}

TEST_F(StatisticsTest, AddingFromManyThreadsLosesNothing) {
    stats->setMaximumSamplesToKeep(100000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) stats->addStatNanoseconds(t % 2 ? "odd" : "even", i);
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(stats->getSeries("odd").stats.size(), 1000u);
    EXPECT_EQ(stats->getSeries("even").stats.size(), 1000u);
}

/// A collector that counts what reaches its storage point.
class CountingStatistics : public Statistics {
 public:
    explicit CountingStatistics(std::shared_ptr<Clock> clock) : Statistics(std::move(clock)) {}
    std::atomic<int> recorded{0};

 protected:
    void record(std::string_view name, DurationMeasurement value) override {
        ++recorded;
        Statistics::record(name, value);
    }
};

TEST(StatisticsSubclass, EveryPathReachesTheOverride) {
    DispatchQueue::main().drain();
    auto stats = std::make_shared<CountingStatistics>(std::make_shared<ManualClock>());
    stats->setEnabled(true);
    DispatchQueue::main().drain();
    stats->addStatSeconds("a", 1);  // the sample and its "Render Stats" sample
    EXPECT_EQ(stats->recorded.load(), 2);
    stats->timeCallInNanoseconds("t", [] {});
    DispatchQueue::main().drain();
    EXPECT_EQ(stats->recorded.load(), 3);
    StatisticsRecorder& recorder = *stats;
    recorder.recordNanoseconds("r", 5);
    EXPECT_EQ(stats->recorded.load(), 4);
    EXPECT_EQ(stats->getSeries("r").stats[0].value, D::nanoseconds(5));
}

TEST(StatisticsDeathTest, AskingForAnUnknownSeriesStopsWithItsName) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto stats = Statistics::make();
    EXPECT_DEATH((void)stats->getSeries("Decode"), "no series named \"Decode\"");
}

TEST(StatisticsShared, IsOneInstance) { EXPECT_EQ(Statistics::shared(), Statistics::shared()); }

}  // namespace
}  // namespace zdr
