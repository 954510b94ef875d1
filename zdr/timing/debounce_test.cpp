#include "zdr/timing/debounce.h"

#include "zdr/runtime/detail/timer_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace zdr {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Records which actions ran and when.
struct Runs {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::pair<int, Clock::time_point>> runs;

    std::function<void()> action(int id) {
        return [this, id] {
            std::lock_guard<std::mutex> guard(mutex);
            runs.emplace_back(id, Clock::now());
            cv.notify_all();
        };
    }
    bool waitFor(std::size_t count, std::chrono::milliseconds timeout = 5000ms) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, timeout, [&] { return runs.size() >= count; });
    }
    std::vector<std::pair<int, Clock::time_point>> snapshot() {
        std::lock_guard<std::mutex> guard(mutex);
        return runs;
    }
};

TEST(Debounce, BurstRunsOnlyTheLastActionADelayAfterTheLastCall) {
    DispatchQueue queue("debounce.burst");
    Debounce debounce(0.2);
    Runs runs;
    debounce.run(runs.action(1), queue);
    std::this_thread::sleep_for(50ms);
    debounce.run(runs.action(2), queue);
    std::this_thread::sleep_for(50ms);
    const auto lastCall = Clock::now();
    debounce.run(runs.action(3), queue);
    ASSERT_TRUE(runs.waitFor(1));
    std::this_thread::sleep_for(300ms);  // room for a wrongly kept earlier action
    const auto seen = runs.snapshot();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].first, 3);
    EXPECT_GE(seen[0].second - lastCall, 200ms);
    EXPECT_LT(seen[0].second - lastCall, 3000ms);
    EXPECT_TRUE(debounce.workItem() != nullptr);  // kept after it ran
}

TEST(Debounce, CallsFurtherApartThanTheDelayAllRun) {
    DispatchQueue queue("debounce.spaced");
    Debounce debounce(0.03);
    Runs runs;
    for (int id = 1; id <= 3; ++id) {
        debounce.run(runs.action(id), queue);
        ASSERT_TRUE(runs.waitFor(id));
        std::this_thread::sleep_for(30ms);
    }
    const auto seen = runs.snapshot();
    ASSERT_EQ(seen.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(seen[i].first, i + 1);
}

TEST(Debounce, ZeroOrInvalidDelayStillRunsAsynchronously) {
    for (double delay : {0.0, -1.0, std::nan("")}) {
        Debounce debounce(delay);
        bool ran = false;
        // From the main thread onto the main queue: only a drain can run it.
        debounce.run([&] { ran = true; }, DispatchQueue::main());
        EXPECT_FALSE(ran);
        const auto until = Clock::now() + 5s;
        while (!ran && Clock::now() < until) {
            DispatchQueue::main().drain();
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_TRUE(ran) << delay;
    }
}

TEST(Debounce, NullActionCancelsThePendingOne) {
    DispatchQueue queue("debounce.cancel");
    Debounce debounce(0.05);
    std::atomic<bool> ran{false};
    debounce.run([&] { ran = true; }, queue);
    debounce.run(nullptr, queue);
    std::this_thread::sleep_for(150ms);
    queue.sync([] {});
    EXPECT_FALSE(ran.load());
}

TEST(Debounce, SupersededActionsAreReleasedAtOnceAndLeaveNoTimerEntries) {
    // Each action holds a reference to `token`; its use count tells how many
    // actions are still alive somewhere (in a work item, a timer entry, a queue).
    DispatchQueue queue("debounce.release");
    Debounce debounce(60.0);
    auto token = std::make_shared<int>(0);
    auto& timers = detail::TimerThread::shared();
    const std::size_t entriesBefore = timers.pendingCount();
    for (int i = 0; i < 20000; ++i) debounce.run([token] { ++*token; }, queue);
    EXPECT_EQ(token.use_count(), 2) << "only the latest action may be kept";
    EXPECT_LE(timers.pendingCount(), entriesBefore + 1);
    debounce.run(nullptr, queue);  // cancels the last one too
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_LE(timers.pendingCount(), entriesBefore);
    EXPECT_EQ(*token, 0);
}

TEST(Debouncer, ABurstOnTheMainQueueQueuesOnlyTheLastAction) {
    for (double delay : {0.0, 0.02}) {
        SCOPED_TRACE(delay);
        while (DispatchQueue::main().drain() > 0) {
        }
        auto debouncer = Debouncer::debouncerWithName("burst", delay);
        std::vector<int> ran;
        for (int i = 0; i < 20000; ++i) debouncer->debounce([&ran, i] { ran.push_back(i); });
        // Drain until the last action has run; count every main-queue item.
        std::size_t items = 0;
        const auto until = Clock::now() + 5s;
        while (ran.empty() && Clock::now() < until) {
            items += DispatchQueue::main().drain();
            std::this_thread::sleep_for(1ms);
        }
        items += DispatchQueue::main().drain();
        EXPECT_EQ(ran, std::vector<int>{19999});
        EXPECT_LE(items, 3u);
    }
}

TEST(Debouncer, FactoriesChooseMainOrGivenQueue) {
    DispatchQueue::main().drain();
    auto onMain = Debouncer::debouncerWithName("main", 0.01);
    EXPECT_EQ(onMain->queue(), DispatchQueue::main());
    EXPECT_EQ(onMain->name(), "main");
    EXPECT_EQ(onMain->delayPeriod(), 0.01);
    EXPECT_EQ(onMain->debouncer().delay(), 0.01);
    bool ranOnMain = false;
    onMain->debounce([&] { ranOnMain = DispatchQueue::isMainThread(); });
    const auto until = Clock::now() + 5s;
    while (!ranOnMain && Clock::now() < until) {
        DispatchQueue::main().drain();
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(ranOnMain);

    DispatchQueue queue("debouncer.given");
    auto onQueue = Debouncer::debouncerWithName("given", 0.01, queue);
    Runs runs;
    std::string label;
    onQueue->debounce([&] {
        label = DispatchQueue::currentLabel().value_or("");
        runs.action(1)();
    });
    ASSERT_TRUE(runs.waitFor(1));
    EXPECT_EQ(label, "debouncer.given");
    EXPECT_EQ(Debouncer("x", 1.0, std::nullopt).queue(), DispatchQueue::main());
}

TEST(DebouncerDeathTest, PlainInitializerStopsTheProgram) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH({ Debouncer debouncer; },
                 "unimplemented initializer 'init\\(\\)' for class 'ZDRShared2\\.Debouncer'");
}

}  // namespace
}  // namespace zdr
