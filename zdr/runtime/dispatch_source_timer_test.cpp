#include "zdr/runtime/dispatch_source_timer.h"

#include <gtest/gtest.h>

#include "zdr/testing/eventually.h"

#include <atomic>
#include <cmath>
#include <thread>

namespace zdr {
namespace {

using namespace std::chrono_literals;

using zdr::testing::eventually;

TEST(DispatchSourceTimerTest, StartsSuspendedAndRepeatsAfterResume) {
    DispatchQueue q("test.timer");
    auto timer = DispatchSourceTimer::make(q);
    std::atomic<int> fired{0};
    timer->setEventHandler([&] { fired++; });
    timer->schedule(dispatchNow(), 0.01);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(fired.load(), 0) << "a new timer must not fire before resume()";
    EXPECT_EQ(timer->suspendCount(), 1);
    timer->resume();
    EXPECT_TRUE(eventually([&] { return fired.load() >= 3; }));
    timer->cancel();
}

TEST(DispatchSourceTimerTest, OneShotFiresOnceAtTheDeadline) {
    DispatchQueue q("test.timer.once");
    auto timer = DispatchSourceTimer::make(q);
    std::atomic<int> fired{0};
    auto start = dispatchNow();
    std::atomic<std::int64_t> firedAfterNs{0};
    timer->setEventHandler([&] {
        firedAfterNs = (dispatchNow() - start).count();
        fired++;
    });
    timer->schedule(dispatchTimeAfter(0.03));
    timer->resume();
    ASSERT_TRUE(eventually([&] { return fired.load() == 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(fired.load(), 1);
    EXPECT_GE(firedAfterNs.load(), 30'000'000);
}

TEST(DispatchSourceTimerTest, SuspendNestsAndAMissedFiringIsDeliveredOnceOnResume) {
    DispatchQueue q("test.timer.suspend");
    auto timer = DispatchSourceTimer::make(q);
    std::atomic<int> fired{0};
    timer->setEventHandler([&] { fired++; });
    timer->schedule(dispatchTimeAfter(0.02));
    timer->suspend();  // count 2
    timer->resume();   // count 1: still suspended
    EXPECT_EQ(timer->suspendCount(), 1);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(fired.load(), 0);
    timer->resume();
    EXPECT_TRUE(eventually([&] { return fired.load() == 1; }));
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(fired.load(), 1);
    timer->resume();  // unbalanced: reported and ignored
    EXPECT_EQ(timer->suspendCount(), 0);
}

TEST(DispatchSourceTimerTest, CancelStopsFiringAndRunsTheCancelHandlerOnce) {
    DispatchQueue q("test.timer.cancel");
    auto timer = DispatchSourceTimer::make(q);
    std::atomic<int> fired{0}, cancelled{0};
    timer->setEventHandler([&] { fired++; });
    timer->setCancelHandler([&] { cancelled++; });
    timer->schedule(dispatchNow(), 0.005);
    timer->resume();
    ASSERT_TRUE(eventually([&] { return fired.load() >= 1; }));
    timer->cancel();
    timer->cancel();
    q.sync([] {});
    int after = fired.load();
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(fired.load(), after);
    EXPECT_EQ(cancelled.load(), 1);
    EXPECT_TRUE(timer->isCancelled());
}

TEST(DispatchSourceTimerTest, ReleasingTheLastReferenceStopsIt) {
    DispatchQueue q("test.timer.release");
    std::atomic<int> fired{0};
    {
        auto timer = DispatchSourceTimer::make(q);
        timer->setEventHandler([&] { fired++; });
        timer->schedule(dispatchTimeAfter(0.02), 0.01);
        timer->resume();
    }
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(fired.load(), 0);
}

TEST(DispatchSourceTimerTest, SlowHandlerFiringsAreMergedNotQueued) {
    DispatchQueue q("test.timer.slow");
    auto timer = DispatchSourceTimer::make(q);
    std::atomic<int> fired{0};
    timer->setEventHandler([&] {
        fired++;
        std::this_thread::sleep_for(40ms);
    });
    timer->schedule(dispatchNow(), 0.002);
    timer->resume();
    std::this_thread::sleep_for(100ms);
    timer->cancel();
    q.sync([] {});
    // Some 50 deadlines passed; a merged timer ran its slow handler a handful of times.
    EXPECT_GE(fired.load(), 2);
    EXPECT_LE(fired.load(), 6);
}

TEST(DispatchSourceTimerTest, EarliestPossibleDeadlineFiresAtOnceThenAtTheInterval) {
    // The catch-up after a deadline far in the past must not overflow: the
    // timer fires at once and then every interval, not in a burst.
    DispatchQueue q("test.timer.min");
    auto timer = DispatchSourceTimer::make(q);
    std::atomic<int> fired{0};
    timer->setEventHandler([&] { fired++; });
    timer->schedule(DispatchTime::min(), 0.05);
    timer->resume();
    ASSERT_TRUE(eventually([&] { return fired.load() >= 1; }));
    std::this_thread::sleep_for(250ms);
    timer->cancel();
    q.sync([] {});
    // About six firings in 250 ms at 50 ms; anything near a burst is wrong.
    EXPECT_GE(fired.load(), 2);
    EXPECT_LE(fired.load(), 12);
}

TEST(DispatchSourceTimerTest, BadIntervalsMeanNoRepetition) {
    DispatchQueue q("test.timer.bad");
    auto timer = DispatchSourceTimer::make(q);
    std::atomic<int> fired{0};
    timer->setEventHandler([&] { fired++; });
    timer->schedule(dispatchNow(), std::nan(""), -1);
    timer->resume();
    ASSERT_TRUE(eventually([&] { return fired.load() == 1; }));
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(fired.load(), 1);
    EXPECT_EQ(timer->leeway(), 0.0);
}

}  // namespace
}  // namespace zdr
