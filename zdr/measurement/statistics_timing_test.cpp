// The timing layer's publishers and throttler feeding the real collector and
// the real timing logger.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "zdr/logging/shared2.h"
#include "zdr/logging/testing/test_environment.h"
#include "zdr/measurement/statistics.h"
#include "zdr/testing/eventually.h"
#include "zdr/timing/replay_once.h"
#include "zdr/timing/zdr_throttler.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;
using Publishers::ReplayOnce;
using D = DurationMeasurement;

std::shared_ptr<Statistics> enabledStatistics() {
    auto stats = Statistics::make();
    stats->setSendObjectDidChangedEvery(0);
    stats->setEnabled(true);
    DispatchQueue::main().drain();
    return stats;
}

TEST(ReplayOnceStatistics, RecordsTheElapsedNanosecondsOnTheMainQueue) {
    auto stats = enabledStatistics();
    ReplayOnce<int>::Callback later;
    auto once =
        ReplayOnce<int>::make([&](auto done) { later = done; }, nullptr, false, "load", stats);
    std::this_thread::sleep_for(20ms);
    std::thread([&] { later(ReplayOnce<int>::ResultType::success(1)); }).join();
    EXPECT_TRUE(stats->getSeriesNames().empty()) << "recorded on the main queue only";
    DispatchQueue::main().drain();
    auto s = stats->getSeries("load");
    ASSERT_EQ(s.stats.size(), 1u);
    EXPECT_EQ(s.stats[0].value.unit(), UnitDuration::nanoseconds);
    EXPECT_GE(s.stats[0].value, D::milliseconds(20));
    EXPECT_LT(s.stats[0].value, D::seconds(30));
}

TEST(ReplayOnceStatistics, StatsValueReplacesTheElapsedTimeAndIsReadOnTheMainThread) {
    auto stats = enabledStatistics();
    bool onMain = false;
    auto once = ReplayOnce<int, std::string>::make(
        [](auto done) { done(ReplayOnce<int, std::string>::ResultType::failure("no")); },
        [&] {
            onMain = DispatchQueue::isMainThread();
            return 1234.0;
        },
        false, "probe", stats);
    DispatchQueue::main().drain();
    EXPECT_TRUE(onMain);
    EXPECT_EQ(stats->getSeries("probe").stats.at(0).value, D::nanoseconds(1234));
}

TEST(ReplayOnceStatistics, NothingIsRecordedWithoutAnIdentifierOrOnceTheWorkIsGone) {
    auto stats = enabledStatistics();
    auto a = ReplayOnce<int>::make([](auto done) { done(ReplayOnce<int>::ResultType::success(1)); },
                                   nullptr, false, std::nullopt, stats);
    // Made and let go before the main queue runs: no one wants its timing.
    (void)ReplayOnce<int>::make([](auto done) { done(ReplayOnce<int>::ResultType::success(1)); },
                                nullptr, false, "gone", stats);
    DispatchQueue::main().drain();
    EXPECT_TRUE(stats->getSeriesNames().empty());
}

TEST(ReplayOnceStatistics, ASecondCallbackRecordsASecondSample) {
    auto stats = enabledStatistics();
    ReplayOnce<int>::Callback later;
    auto once = ReplayOnce<int>::make([&](auto done) { later = done; }, [] { return 1.0; }, false,
                                      "twice", stats);
    later(ReplayOnce<int>::ResultType::success(1));
    later(ReplayOnce<int>::ResultType::success(2));
    DispatchQueue::main().drain();
    EXPECT_EQ(stats->getSeries("twice").stats.size(), 2u);
}

TEST(ZDRThrottlerLog, DestructionWritesDeinitToTheTimingLogger) {
    auto logging = Logging::shared();
    logging->loggingEnabled("timing", true);
    testing::settle();
    auto logger = Shared2::timing();
    const auto previous = logger->outputLevel();
    logger->setOutputLevel(LogLevel::verbose);
    auto capture = std::make_shared<testing::CaptureDestination>("throttler.capture");
    capture->setOutputLevel(LogLevel::verbose);
    logger->add(capture);
    {
        auto t = ZDRThrottler<VoidThrottleable>::make(1, std::nullopt, "short-lived");
        t->start();
        t->stop();
    }
    ASSERT_TRUE(zdr::testing::eventually([&] { return !capture->lines().empty(); }));
    logger->remove(capture);
    logger->setOutputLevel(previous);
    logging->loggingEnabled("timing", false);
    auto lines = capture->lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "ZDRThrottler deinit");
    EXPECT_EQ(lines[0].level, LogLevel::verbose);
    EXPECT_EQ(lines[0].function, "deinit");
}

}  // namespace
}  // namespace zdr
