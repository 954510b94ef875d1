#include "zdr/runtime/detail/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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
