#include "zdr/runtime/detail/thread_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;

TEST(ThreadPoolTest, BlockedJobsDoNotStarveTheOthers) {
    // More jobs than cores, each blocked until all have started: only a pool
    // that adds threads for blocked workers gets them all going.
    const int jobs = static_cast<int>(std::thread::hardware_concurrency()) * 2 + 3;
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
    auto global = DispatchQueue::global();
    for (int i = 0; i < jobs; ++i) {
        global.async([&] {
            started++;
            auto end = std::chrono::steady_clock::now() + 10s;
            while (started.load() < jobs && std::chrono::steady_clock::now() < end)
                std::this_thread::sleep_for(1ms);
            finished++;
        });
    }
    auto end = std::chrono::steady_clock::now() + 15s;
    while (finished.load() < jobs && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(started.load(), jobs);
    EXPECT_EQ(finished.load(), jobs);
}

TEST(ThreadPoolTest, IdleThreadsExit) {
    auto& pool = detail::ThreadPool::shared();
    pool.setIdleTimeout(50ms);
    std::atomic<int> done{0};
    for (int i = 0; i < 4; ++i) pool.submit([&] { done++; });
    auto end = std::chrono::steady_clock::now() + 10s;
    while ((done.load() < 4 || pool.threadCount() > 0) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(done.load(), 4);
    EXPECT_EQ(pool.threadCount(), 0u);
    pool.setIdleTimeout(5000ms);
    // And it comes back when work arrives again.
    std::atomic<bool> ran{false};
    pool.submit([&] { ran = true; });
    end = std::chrono::steady_clock::now() + 10s;
    while (!ran.load() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(ran.load());
}

}  // namespace
}  // namespace zdr

namespace zdr::detail {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Pools made by tests live until the process ends, as the shared one does:
// their detached workers may still be leaving. Held here so they stay reachable.
ThreadPool& makePool(ThreadPool::Options options) {
    static std::vector<ThreadPool*>* pools = new std::vector<ThreadPool*>();
    pools->push_back(new ThreadPool(std::move(options)));
    return *pools->back();
}

TEST(ThreadPoolPriority, HigherQualitiesOfServiceStartFirst) {
    // Two workers that always look busy, so the pool never grows: what runs
    // next is decided by the order of the waiting jobs alone. Both workers are
    // held until everything is queued, so the order does not depend on how
    // fast the submitting thread is.
    auto& pool = makePool({2, 0, [](int) { return 'R'; }});
    std::promise<void> release;
    auto gate = release.get_future().share();
    std::atomic<int> held{0};
    for (int i = 0; i < 2; ++i) {
        pool.submit(
            [&held, gate] {
                ++held;
                gate.wait();
            },
            DispatchQoS::background);
    }
    const auto until = Clock::now() + 20s;
    while (held.load() < 2 && Clock::now() < until) std::this_thread::sleep_for(1ms);
    ASSERT_EQ(held.load(), 2);

    // Each job takes the next place with one atomic step (a mutex could let
    // one worker overtake a waiting one many times), and background jobs
    // last a moment, so the places follow the order the workers took them.
    constexpr int kJobs = 34;
    std::vector<std::string> order(kJobs);
    std::atomic<int> places{0}, done{0};
    auto job = [&](std::string name) {
        return [&, name] {
            order[static_cast<std::size_t>(places.fetch_add(1))] = name;
            if (name == "background") std::this_thread::sleep_for(1ms);
            ++done;
        };
    };
    constexpr int kBackground = 30;
    for (int i = 0; i < kBackground; ++i) pool.submit(job("background"), DispatchQoS::background);
    pool.submit(job("utility"), DispatchQoS::utility);
    pool.submit(job("default"), DispatchQoS::unspecified);
    pool.submit(job("user-initiated"), DispatchQoS::userInitiated);
    pool.submit(job("user-interactive"), DispatchQoS::userInteractive);
    release.set_value();
    while (done.load() < kJobs && Clock::now() < until) std::this_thread::sleep_for(1ms);
    ASSERT_EQ(done.load(), kJobs);
    // Two workers take jobs side by side, so a job may record itself a place
    // or two after the one it was taken in; every higher quality still comes
    // before the background jobs, which FIFO order would have run first.
    auto position = [&](const std::string& name) {
        return std::find(order.begin(), order.end(), name) - order.begin();
    };
    for (const char* name : {"user-interactive", "user-initiated", "default", "utility"})
        EXPECT_LE(position(name), 5) << name;
    EXPECT_LE(position("user-interactive"), 2);
    EXPECT_GE(position("utility"), 1);
    for (std::size_t i = 6; i < order.size(); ++i) EXPECT_EQ(order[i], "background") << i;
}

TEST(ThreadPoolPriority, QueuesRunTheirWorkAtTheirQualityOrTheSubmittersOne) {
    auto qosOn = [](const DispatchQueue& queue) {
        std::promise<DispatchQoS> seen;
        queue.async([&] { seen.set_value(ThreadPool::currentQoS()); });
        return seen.get_future().get();
    };
    EXPECT_EQ(qosOn(DispatchQueue::global(DispatchQoS::background)), DispatchQoS::background);
    EXPECT_EQ(qosOn(DispatchQueue::global(DispatchQoS::userInteractive)),
              DispatchQoS::userInteractive);
    // A queue without a quality of its own takes the one of the work that
    // submits to it.
    DispatchQueue plain("test.pool.inherit");
    std::promise<DispatchQoS> inherited;
    DispatchQueue::global(DispatchQoS::userInitiated).async([&] {
        plain.async([&] { inherited.set_value(ThreadPool::currentQoS()); });
    });
    EXPECT_EQ(inherited.get_future().get(), DispatchQoS::userInitiated);
}

TEST(ThreadPoolGrowth, ThreeHundredJobsThatEachWaitForALaterOneAllFinish) {
    // Job i waits until job i + 1 has started, so all of them must run at once.
    constexpr int kJobs = 300;
    auto& pool = makePool({});
    ASSERT_GE(pool.hardLimit(), static_cast<std::size_t>(kJobs) + 8);
    std::vector<std::atomic<bool>> started(kJobs + 1);
    started[kJobs] = true;
    std::atomic<int> finished{0}, gaveUp{0};
    for (int i = 0; i < kJobs; ++i) {
        pool.submit([&, i] {
            started[i] = true;
            const auto until = Clock::now() + 30s;
            while (!started[i + 1].load() && Clock::now() < until) std::this_thread::sleep_for(1ms);
            if (!started[i + 1].load()) ++gaveUp;
            ++finished;
        });
    }
    const auto until = Clock::now() + 40s;
    while (finished.load() < kJobs && Clock::now() < until) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(finished.load(), kJobs);
    EXPECT_EQ(gaveUp.load(), 0);
}

TEST(ThreadPoolGrowth, ThreadStatesAreReadWithoutHoldingThePool) {
    // The state reader asks the pool for its thread count from another thread:
    // if the watchdog held the pool's lock while reading states, that call
    // would wait for the reader, which waits for it.
    ThreadPool* self = nullptr;
    std::atomic<int> reads{0}, blocked{0};
    auto& pool = makePool({2, 0, [&](int) {
                               ++reads;
                               auto count = std::async(std::launch::async,
                                                       [&] { return self->threadCount(); });
                               if (count.wait_for(2s) != std::future_status::ready) ++blocked;
                               return 'S';  // every worker looks blocked: the pool adds one
                           }});
    self = &pool;
    std::promise<void> release;
    auto gate = release.get_future().share();
    std::atomic<int> done{0};
    for (int i = 0; i < 2; ++i)
        pool.submit([&, gate] {
            gate.wait();
            ++done;
        });
    std::atomic<bool> third{false};
    pool.submit([&] { third = true; });
    const auto until = Clock::now() + 20s;
    while (!third.load() && Clock::now() < until) std::this_thread::sleep_for(2ms);
    release.set_value();
    while (done.load() < 2 && Clock::now() < until) std::this_thread::sleep_for(2ms);
    EXPECT_TRUE(third.load());
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(blocked.load(), 0);
}

}  // namespace
}  // namespace zdr::detail
