#include "zdr/measurement/zdr_moving_average2.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/testing/eventually.h"

namespace zdr {
namespace {

std::shared_ptr<ZDRMovingAverage2> withSamples(std::int64_t period, std::vector<double> values) {
    auto average = ZDRMovingAverage2::make(period);
    for (double v : values) average->addSample(v);
    return average;
}

TEST(MovingAverageTest, EmptyHasZeroSumAndNoAverage) {
    auto average = ZDRMovingAverage2::make(5);
    EXPECT_EQ(average->sum(), 0.0);
    EXPECT_TRUE(std::isnan(average->average()));
    EXPECT_EQ(average->period(), 5);
    EXPECT_EQ(average->lock().queue().label(), "com.zdr.locking.MovingAverage2");
}

TEST(MovingAverageTest, SlotRuleKeepsTheSecondToFourthSamplesWithPeriodFive) {
    auto average = withSamples(5, {1, 2, 3, 4});
    EXPECT_EQ(average->samples(), (std::vector<double>{1, 2, 3, 4}));
    EXPECT_DOUBLE_EQ(average->average(), 2.5);
    average->addSample(10);  // overwrites slot 0
    EXPECT_EQ(average->samples(), (std::vector<double>{10, 2, 3, 4}));
    EXPECT_DOUBLE_EQ(average->average(), 4.75);
    EXPECT_DOUBLE_EQ(average->sum(), 19.0);
    average->addSample(20);  // and again slot 0
    EXPECT_EQ(average->samples(), (std::vector<double>{20, 2, 3, 4}));
    EXPECT_DOUBLE_EQ(average->average(), 7.25);
}

TEST(MovingAverageTest, PeriodOneKeepsOnlyTheLastSample) {
    auto average = withSamples(1, {3});
    EXPECT_EQ(average->samples(), (std::vector<double>{3}));
    average->addSample(8);
    average->addSample(-2);
    EXPECT_EQ(average->samples(), (std::vector<double>{-2}));
    EXPECT_DOUBLE_EQ(average->average(), -2.0);
}

TEST(MovingAverageTest, AverageDividesByThePeriodWhenMoreSamplesWereStored) {
    auto average = ZDRMovingAverage2::make(2);
    average->setSamples({1, 2, 3, 6});
    EXPECT_DOUBLE_EQ(average->average(), 6.0);  // 12 / min(4, 2)
    average->setPeriod(3);
    EXPECT_DOUBLE_EQ(average->average(), 4.0);
}

TEST(MovingAverageTest, SamplesFromManyThreadsAreAllApplied) {
    auto average = ZDRMovingAverage2::make(1000000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 250; ++i) average->addSample(1.0);
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(average->samples().size(), 1000u);
    EXPECT_DOUBLE_EQ(average->sum(), 1000.0);
}

TEST(MovingAverageTest, EveryReadSeesTheSamplesAddedBeforeIt) {
    // Large enough that no slot is ever overwritten in this test.
    auto average = ZDRMovingAverage2::make(10000000);
    // A second producer keeps writes in flight, so this thread's samples often
    // join a write that is already on its way.
    std::atomic<bool> stop{false};
    std::thread other([&] {
        for (int i = 0; i < 200000 && !stop; ++i) average->addSample(0.0);
    });
    double expected = 0.0;
    int mismatches = 0;
    for (int i = 1; i <= 300; ++i) {
        average->addSample(i);
        expected += i;
        if (average->sum() != expected) ++mismatches;
    }
    stop = true;
    other.join();
    EXPECT_EQ(mismatches, 0);
    EXPECT_DOUBLE_EQ(average->sum(), 300.0 * 301.0 / 2.0);
}

TEST(MovingAverageTest, ASampleForAnObjectAlreadyGoneIsDropped) {
    auto average = ZDRMovingAverage2::make(5);
    std::weak_ptr<ZDRMovingAverage2> weak = average;
    DispatchQueue lockQueue = average->lock().queue();
    // Hold the lock's queue so that the sample waits behind this write.
    std::promise<void> release;
    auto released = release.get_future().share();
    lockQueue.async([released] { released.wait(); }, DispatchFlags::barrier);
    average->addSample(1.0);
    average.reset();
    EXPECT_TRUE(weak.expired());
    release.set_value();
    lockQueue.sync([] {}, DispatchFlags::barrier);  // the sample ran and did nothing
    EXPECT_TRUE(weak.expired());
}

TEST(MovingAverageDeathTest, PeriodZeroStopsOnTheFirstSample) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto average = ZDRMovingAverage2::make(0);
            average->addSample(1.0);
            average->sum();
        },
        "ZDRMovingAverage2: period 0 leaves no sample slot");
}

TEST(MovingAveragePublisherTest, PublishesAverageAndSumOnTheMainQueue) {
    ASSERT_TRUE(DispatchQueue::isMainThread());
    auto average = withSamples(5, {1, 2, 3, 4, 10});
    std::vector<double> averages;
    std::vector<double> sums;
    bool offMain = false;
    auto a = average->averagePublisher(0.001)->sink([&](const double& v) {
        offMain |= !DispatchQueue::isMainThread();
        averages.push_back(v);
    });
    auto s = average->sumPublisher(0.001)->sink([&](const double& v) { sums.push_back(v); });
    ASSERT_TRUE(zdr::testing::eventually([&] { return averages.size() >= 2 && sums.size() >= 2; },
                                         std::chrono::seconds(10),
                                         [] { DispatchQueue::main().drain(); }));
    EXPECT_FALSE(offMain);
    EXPECT_DOUBLE_EQ(averages.front(), 4.75);
    EXPECT_DOUBLE_EQ(sums.front(), 19.0);
    // Later samples show up in later ticks.
    average->addSample(20);
    ASSERT_TRUE(zdr::testing::eventually([&] { return averages.back() == 7.25; },
                                         std::chrono::seconds(10),
                                         [] { DispatchQueue::main().drain(); }));
}

TEST(MovingAveragePublisherTest, KeepsTheObjectAliveWhileSubscribed) {
    auto average = withSamples(5, {2});
    std::weak_ptr<ZDRMovingAverage2> weak = average;
    std::vector<double> values;
    auto sub =
        average->averagePublisher(0.001)->sink([&](const double& v) { values.push_back(v); });
    average.reset();
    EXPECT_FALSE(weak.expired());
    ASSERT_TRUE(zdr::testing::eventually([&] { return !values.empty(); }, std::chrono::seconds(10),
                                         [] { DispatchQueue::main().drain(); }));
    EXPECT_DOUBLE_EQ(values.front(), 2.0);
    sub.cancel();
    EXPECT_TRUE(weak.expired());
    const std::size_t seen = values.size();
    DispatchQueue::main().drain();
    EXPECT_EQ(values.size(), seen);
}

}  // namespace
}  // namespace zdr
