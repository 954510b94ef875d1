#include "zdr/timing/zdr_throttler.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <future>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "zdr/runtime/notification_center.h"
#include "zdr/testing/eventually.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using Clock = std::chrono::steady_clock;

/// A unit that counts how many units a batch holds.
struct Count {
    int n = 0;
    Count merge(const Count& other) const { return Count{n + other.n}; }
};

/// Batches seen by a closure. Shared with the closure, which may outlive the
/// test body while it finishes.
template <class T>
struct Batches : std::enable_shared_from_this<Batches<T>> {
    std::mutex mutex;
    std::vector<T> batches;
    std::vector<Clock::time_point> times;
    std::vector<std::string> labels;

    // Holds the record: a batch already running when the test ends finishes.
    auto closure() {
        return [self = this->shared_from_this()](const T& b) {
            std::lock_guard lock(self->mutex);
            self->batches.push_back(b);
            self->times.push_back(Clock::now());
            self->labels.push_back(DispatchQueue::currentLabel().value_or(""));
        };
    }
    std::size_t size() {
        std::lock_guard lock(mutex);
        return batches.size();
    }
};

template <class T>
std::shared_ptr<ZDRThrottler<T>> makeStarted(double interval, Batches<T>& seen) {
    auto t = ZDRThrottler<T>::make(interval, std::nullopt, "test", seen.closure());
    t->start();
    return t;
}

TEST(ZDRThrottler, HundredUnitsInABurstGiveExactlyTwoCallsCoveringAllUnits) {
    auto seen = std::make_shared<Batches<Count>>();
    auto t = makeStarted(1.0, *seen);
    const auto start = Clock::now();
    for (int i = 0; i < 100; ++i) t->acceptMoreWork(Count{1});
    const auto burst = Clock::now() - start;
    ASSERT_TRUE(eventually([&] { return seen->size() == 2; }, 5s));
    // Nothing more comes: the burst is over.
    std::this_thread::sleep_for(300ms);
    t->stop();
    std::lock_guard lock(seen->mutex);
    ASSERT_EQ(seen->batches.size(), 2u);
    EXPECT_GE(seen->batches[0].n, 1);
    EXPECT_EQ(seen->batches[0].n + seen->batches[1].n, 100);
    // Leading edge at once, trailing edge one interval after it (generous
    // bounds; the burst itself took `burst`).
    EXPECT_LT(seen->times[0] - start, 700ms + burst);
    EXPECT_GE(seen->times[1] - seen->times[0], 800ms);
}

TEST(ZDRThrottler, ASingleUnitAfterAQuietPeriodGoesOutAtOnceOnTheGlobalQueue) {
    auto seen = std::make_shared<Batches<Count>>();
    auto t = makeStarted(30.0, *seen);
    const auto start = Clock::now();
    t->acceptMoreWork(Count{1});
    ASSERT_TRUE(eventually([&] { return seen->size() == 1; }, 5s));
    t->stop();
    std::lock_guard lock(seen->mutex);
    EXPECT_LT(seen->times[0] - start, 5s);  // far below the 30 s window
    EXPECT_EQ(seen->labels[0], DispatchQueue::global().label());
    EXPECT_EQ(t->queue().label(), "com.zdr.throttler");
}

TEST(ZDRThrottler, DoubleBatchesAreAlwaysZero) {
    auto seen = std::make_shared<Batches<double>>();
    auto t = makeStarted(0.05, *seen);
    for (double v : {1.5, 2.5, -3.0}) {
        t->acceptMoreWork(v);
        std::this_thread::sleep_for(20ms);
    }
    ASSERT_TRUE(eventually([&] { return seen->size() >= 2; }));
    t->stop();
    std::lock_guard lock(seen->mutex);
    for (double b : seen->batches) EXPECT_EQ(b, 0.0);
}

TEST(ZDRThrottler, VoidUnitsOverASteadyStreamCallAboutOncePerInterval) {
    auto seen = std::make_shared<Batches<VoidThrottleable>>();
    auto t = makeStarted(0.1, *seen);
    const auto start = Clock::now();
    while (Clock::now() - start < 600ms) {
        t->acceptMoreWork({});
        std::this_thread::sleep_for(2ms);
    }
    std::this_thread::sleep_for(250ms);
    t->stop();
    // 0.6 s / 0.1 s, plus the leading edge and the trailing one; a slow
    // machine may stretch windows but never shortens them.
    const std::size_t calls = seen->size();
    EXPECT_GE(calls, 3u);
    EXPECT_LE(calls, 8u);
}

TEST(ZDRThrottler, WithoutAClosureUnitsAreMergedAndDroppedUntilOneIsSet) {
    auto t = ZDRThrottler<Count>::make(0.01, std::nullopt, "silent");
    t->acceptMoreWork(Count{1});  // not started: lost
    t->start();
    for (int i = 0; i < 10; ++i) t->acceptMoreWork(Count{1});
    std::this_thread::sleep_for(50ms);
    auto seen = std::make_shared<Batches<Count>>();
    t->setAsyncClosure(seen->closure());
    t->acceptMoreWork(Count{5});
    ASSERT_TRUE(eventually([&] {
        std::lock_guard lock(seen->mutex);
        return !seen->batches.empty() && seen->batches.back().n == 5;
    }));
    t->stop();
}

TEST(ZDRThrottler, StopEndsDeliveryAndARestartDeliversTheFirstUnitAtOnce) {
    auto seen = std::make_shared<Batches<Count>>();
    auto t = makeStarted(30.0, *seen);
    t->acceptMoreWork(Count{1});
    ASSERT_TRUE(eventually([&] { return seen->size() == 1; }));
    t->acceptMoreWork(Count{7});  // held for the 30 s window
    t->stop();
    EXPECT_EQ(t->pipelineCount(), 0u);
    t->acceptMoreWork(Count{2});  // no pipeline: no effect
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(seen->size(), 1u);
    t->start();
    t->acceptMoreWork(Count{3});
    ASSERT_TRUE(eventually([&] { return seen->size() == 2; }, 5s));
    t->stop();
    std::lock_guard lock(seen->mutex);
    EXPECT_EQ(seen->batches[1].n, 3) << "a restart begins with an empty batch";
}

TEST(ZDRThrottler, StartedTwiceEachUnitGoesThroughBothPipelines) {
    auto seen = std::make_shared<Batches<Count>>();
    auto t = makeStarted(30.0, *seen);
    t->start();
    EXPECT_EQ(t->pipelineCount(), 2u);
    t->acceptMoreWork(Count{4});
    ASSERT_TRUE(eventually([&] { return seen->size() == 2; }));
    t->stop();
    std::lock_guard lock(seen->mutex);
    EXPECT_EQ(seen->batches[0].n, 4);
    EXPECT_EQ(seen->batches[1].n, 4);
}

TEST(ZDRThrottler, UniqueNumbersCountUp) {
    auto a = ZDRThrottler<Count>::make(1, std::nullopt, "a");
    auto b = ZDRThrottler<Count>::make(1, std::nullopt, "b");
    auto c = ZDRThrottler<Count>::make(1, std::nullopt, "c");
    EXPECT_GE(a->uniqueNum(), 0);
    EXPECT_EQ(b->uniqueNum(), a->uniqueNum() + 1);
    EXPECT_EQ(c->uniqueNum(), b->uniqueNum() + 1);
    EXPECT_EQ(c->name(), "c");
}

TEST(ZDRThrottler, AStartedThrottlerLivesUntilStop) {
    auto seen = std::make_shared<Batches<Count>>();
    std::weak_ptr<ZDRThrottler<Count>> weak;
    {
        auto t = makeStarted(0.01, *seen);
        weak = t;
    }
    auto t = weak.lock();
    ASSERT_TRUE(t) << "the pipeline keeps a started throttler";
    t->acceptMoreWork(Count{1});
    ASSERT_TRUE(eventually([&] { return seen->size() == 1; }));
    t->stop();
    t.reset();
    EXPECT_TRUE(eventually([&] { return weak.expired(); }));
}

TEST(ZDRThrottler, DestroyedWhileABatchRunsTheBatchFinishesSafely) {
    auto entered = std::make_shared<std::promise<void>>();
    auto release = std::make_shared<std::promise<void>>();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    std::shared_future<void> releaseFuture = release->get_future().share();
    std::weak_ptr<ZDRThrottler<Count>> weak;
    {
        auto t = ZDRThrottler<Count>::make(0.01, std::nullopt, "dying", [=](const Count&) {
            entered->set_value();
            releaseFuture.wait();
            finished->store(true);
        });
        weak = t;
        t->start();
        t->acceptMoreWork(Count{1});
        entered->get_future().wait();
        t->stop();
    }
    EXPECT_TRUE(eventually([&] { return weak.expired(); })) << "a running batch holds no owner";
    release->set_value();
    EXPECT_TRUE(eventually([&] { return finished->load(); }));
}

TEST(ZDRThrottler, AThrowingClosureDoesNotStopLaterBatches) {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto t = ZDRThrottler<Count>::make(0.01, std::nullopt, "throws", [calls](const Count&) {
        ++*calls;
        throw std::runtime_error("bad batch");
    });
    t->start();
    t->acceptMoreWork(Count{1});
    ASSERT_TRUE(eventually([&] { return calls->load() == 1; }));
    std::this_thread::sleep_for(30ms);
    t->acceptMoreWork(Count{1});
    EXPECT_TRUE(eventually([&] { return calls->load() == 2; }));
    t->stop();
}

TEST(ZDRThrottler, AsynchronousClosuresMayOverlapAndReportDoneLater) {
    // The second batch starts while the first closure has not reported done.
    auto dones = std::make_shared<std::vector<std::function<void()>>>();
    auto m = std::make_shared<std::mutex>();
    auto t = ZDRThrottler<Count>::make(0.01, std::nullopt, "async",
                                       [dones, m](const Count&, std::function<void()> done) {
                                           std::lock_guard lock(*m);
                                           dones->push_back(std::move(done));
                                       });
    t->start();
    t->acceptMoreWork(Count{1});
    ASSERT_TRUE(eventually([&] {
        std::lock_guard lock(*m);
        return dones->size() == 1;
    }));
    std::this_thread::sleep_for(30ms);
    t->acceptMoreWork(Count{1});
    ASSERT_TRUE(eventually([&] {
        std::lock_guard lock(*m);
        return dones->size() == 2;
    }));
    std::lock_guard lock(*m);
    for (auto& d : *dones) {
        d();
        d();  // a second call is ignored
    }
    t->stop();
}

TEST(ZDRThrottler, NonPositiveOrNaNIntervalsPaceNothingAndLoseNoUnit) {
    for (double interval : {0.0, -1.0, std::nan("")}) {
        auto seen = std::make_shared<Batches<Count>>();
        auto t = makeStarted(interval, *seen);
        for (int i = 0; i < 20; ++i) t->acceptMoreWork(Count{1});
        ASSERT_TRUE(eventually([&] {
            std::lock_guard lock(seen->mutex);
            int total = 0;
            for (auto& b : seen->batches) total += b.n;
            return total == 20;
        })) << interval;
        t->stop();
    }
}

TEST(ZDRThrottler, AnInfiniteIntervalLetsTheFirstBatchOutOnly) {
    auto seen = std::make_shared<Batches<Count>>();
    auto t = makeStarted(INFINITY, *seen);
    t->acceptMoreWork(Count{1});
    ASSERT_TRUE(eventually([&] { return seen->size() == 1; }));
    t->acceptMoreWork(Count{1});
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(seen->size(), 1u);
    t->stop();
}

TEST(ZDRThrottler, AHotPlugStormBecomesALeadingAndATrailingRefresh) {
    // As the README shows it: every device-list notification is a trigger; the
    // refresh runs at once, then once more for everything after it.
    auto refreshes = std::make_shared<std::atomic<int>>(0);
    auto refresh = ZDRThrottler<VoidThrottleable>::make(
        0.3, std::nullopt, "device list", [refreshes](const VoidThrottleable&) { ++*refreshes; });
    refresh->start();
    auto center = NotificationCenter::defaultCenter();
    auto token =
        center->addObserver("zdr.test.DevicesChanged", nullptr, std::nullopt,
                            [refresh](const Notification&) { refresh->acceptMoreWork({}); });
    for (int i = 0; i < 50; ++i) center->post("zdr.test.DevicesChanged");
    ASSERT_TRUE(eventually([&] { return refreshes->load() == 2; }, 5s));
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(refreshes->load(), 2);
    refresh->stop();
}

TEST(ZDRThrottler, PacesOnTheQueueItIsGiven) {
    DispatchQueue mine("zdr.test.throttler.queue");
    std::optional<DispatchQueue> maybe = mine;
    auto a = ZDRThrottler<Count>::make(1, mine, "given");
    auto b = ZDRThrottler<Count>::make(1, maybe, "optional");
    auto c = ZDRThrottler<Count>::make(1, std::optional<DispatchQueue>(), "absent");
    EXPECT_EQ(a->queue(), mine);
    EXPECT_EQ(b->queue(), mine);
    EXPECT_EQ(c->queue().label(), "com.zdr.throttler");
    EXPECT_NE(c->queue(), ZDRThrottler<Count>::make(1, std::nullopt, "other")->queue())
        << "each throttler without a queue gets its own";
}

TEST(ZDRThrottler, ThrottlerActorIsOneSerialQueue) {
    EXPECT_EQ(ThrottlerActor::shared(), ThrottlerActor::shared());
    EXPECT_FALSE(ThrottlerActor::shared().isConcurrent());
}

}  // namespace
}  // namespace zdr
