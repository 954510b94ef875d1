#include "zdr/timing/dispatch_once.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;

// Tokens are process-wide and never forgotten: each test run needs fresh ones
// (so that --gtest_repeat works).
std::string fresh(const std::string& name) {
    static std::atomic<int> runs{0};
    static const std::string run =
        std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
    return name + "." + run + "." + std::to_string(runs++);
}

TEST(DispatchOnce, SameTokenRunsOnce) {
    const std::string token = fresh("same"), other = fresh("other");
    int runs = 0;
    DispatchOnce::once(token, [&] { ++runs; });
    DispatchOnce::once(token, [&] { ++runs; });
    EXPECT_EQ(runs, 1);
    DispatchOnce::once(other, [&] { ++runs; });
    EXPECT_EQ(runs, 2);
}

TEST(DispatchOnce, CallSiteFormUsesFileColonFunctionColonLine) {
    EXPECT_EQ(DispatchOnce::token("a", "b", 1), "a:b:1");
    const std::string file = fresh("oncefile.cpp");
    int runs = 0;
    DispatchOnce::once(file, "doWork()", 42, [&] { ++runs; });
    DispatchOnce::once(file + ":doWork():42", [&] { ++runs; });
    EXPECT_EQ(runs, 1);
}

TEST(DispatchOnce, NestedCallWithOwnTokenDoesNotRunAgain) {
    const std::string token = fresh("nested");
    int runs = 0;
    DispatchOnce::once(token, [&] {
        ++runs;
        DispatchOnce::once(token, [&] { ++runs; });
    });
    EXPECT_EQ(runs, 1);
}

TEST(DispatchOnce, SecondThreadWaitsForTheRunningBlock) {
    const std::string token = fresh("wait");
    std::atomic<bool> started{false}, finished{false};
    std::atomic<int> runs{0};
    std::thread first([&] {
        DispatchOnce::once(token, [&] {
            ++runs;
            started = true;
            std::this_thread::sleep_for(50ms);
            finished = true;
        });
    });
    while (!started) std::this_thread::yield();
    DispatchOnce::once(token, [&] { ++runs; });
    // Returning before the first block finished would let a caller use
    // half-initialised state.
    EXPECT_TRUE(finished.load());
    first.join();
    EXPECT_EQ(runs.load(), 1);
}

TEST(DispatchOnce, AsyncRunsOnceAndEveryCompletionFollowsTheBlock) {
    std::mutex mutex;
    std::condition_variable cv;
    int completions = 0;
    std::atomic<int> runs{0};
    std::atomic<bool> blockDone{false};
    std::atomic<int> early{0};
    auto completion = [&] {
        if (!blockDone) ++early;
        std::lock_guard<std::mutex> guard(mutex);
        ++completions;
        cv.notify_all();
    };
    auto block = [&](std::function<void()> done) {
        ++runs;
        // Finish later, from another thread, as asynchronous work does.
        DispatchQueue::global().asyncAfter(dispatchTimeAfter(0.05), [&, done] {
            blockDone = true;
            done();
        });
    };
    const std::string token = fresh("async"), file = fresh("async.cpp");
    DispatchOnce::onceAsync(token, block, completion);
    DispatchOnce::onceAsync(token, block, completion);
    DispatchOnce::onceAsync(file, "f", 7, block, completion);
    DispatchOnce::onceAsync(file + ":f:7", block, completion);
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, 5s, [&] { return completions == 4; }));
    EXPECT_EQ(runs.load(), 2);
    EXPECT_EQ(early.load(), 0);
    lock.unlock();

    // Finished tokens answer at once, and the synchronous form shares the table.
    bool ran = false;
    DispatchOnce::once(token, [&] { ran = true; });
    EXPECT_FALSE(ran);
    DispatchOnce::onceAsync(token, block, completion);
    lock.lock();
    ASSERT_TRUE(cv.wait_for(lock, 5s, [&] { return completions == 5; }));
    EXPECT_EQ(runs.load(), 2);
}

}  // namespace
}  // namespace zdr
