#include "zdr/timing/zdr_serializer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

namespace zdr {
namespace {

using namespace std::chrono_literals;

// The test thread drains the main queue, so it is the main thread.
bool drainUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 5000ms) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        DispatchQueue::main().drain();
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

class ZDRSerializerTest : public ::testing::Test {
 protected:
    void SetUp() override { DispatchQueue::main().drain(); }
};

TEST_F(ZDRSerializerTest, MainThreadIsTheDrainingThread) {
    EXPECT_TRUE(ZDRSerializer::isMainQueue());
    bool elsewhere = true;
    std::thread other([&] { elsewhere = ZDRSerializer::isMainQueue(); });
    other.join();
    EXPECT_FALSE(elsewhere);
}

TEST_F(ZDRSerializerTest, DispatchOnMainIfRequiredRunsInlineOnlyOnMain) {
    bool ran = false;
    ZDRSerializer::dispatchOnMainIfRequired([&] { ran = true; });
    EXPECT_TRUE(ran);

    std::atomic<bool> ranFromOther{false}, onMain{false};
    std::thread other([&] {
        ZDRSerializer::dispatchOnMainIfRequired([&] {
            onMain = ZDRSerializer::isMainQueue();
            ranFromOther = true;
        });
    });
    other.join();
    EXPECT_FALSE(ranFromOther.load());  // nobody drained yet
    ASSERT_TRUE(drainUntil([&] { return ranFromOther.load(); }));
    EXPECT_TRUE(onMain.load());
    ZDRSerializer::dispatchOnMainIfRequired(nullptr);
}

TEST_F(ZDRSerializerTest, AsyncOnMainNeverRunsInsideTheCall) {
    bool ran = false;
    ZDRSerializer::asyncOnMain([&] { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_EQ(DispatchQueue::main().drain(), 1u);
    EXPECT_TRUE(ran);
    ZDRSerializer::asyncOnMain(nullptr);
    EXPECT_EQ(DispatchQueue::main().drain(), 0u);
}

TEST_F(ZDRSerializerTest, NegativeOrNanDelayBehavesLikeZero) {
    int runs = 0;
    ZDRSerializer::asyncDelayedOnMainAfter(-1.0f, [&] { ++runs; });
    ZDRSerializer::asyncDelayedOnMainAfter(std::nanf(""), [&] { ++runs; });
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(DispatchQueue::main().drain(), 2u);
    EXPECT_EQ(runs, 2);
}

TEST_F(ZDRSerializerTest, PositiveDelayRunsOnMainNoEarlierThanTheDelay) {
    const auto start = std::chrono::steady_clock::now();
    std::atomic<bool> ran{false};
    std::chrono::steady_clock::duration elapsed{};
    ZDRSerializer::asyncDelayedOnMainAfter(0.1f, [&] {
        elapsed = std::chrono::steady_clock::now() - start;
        ran = true;
    });
    DispatchQueue::main().drain();
    EXPECT_FALSE(ran.load());
    ASSERT_TRUE(drainUntil([&] { return ran.load(); }));
    EXPECT_GE(elapsed, 100ms);
    EXPECT_LT(elapsed, 3000ms);
}

TEST(ZDRSerializerTime, DispatchTimeForSecondsUsesFloatNanosecondsAndClamps) {
    auto offset = [](float seconds) {
        const auto before = dispatchNow();
        const auto at = ZDRSerializer::dispatchTimeForSeconds(seconds);
        return std::chrono::duration_cast<std::chrono::nanoseconds>(at - before);
    };
    // 0.1f * 1e9f is 100000001.49 in float: the deadline is at least that far.
    EXPECT_GE(offset(0.1f), 100000001ns);
    EXPECT_LT(offset(0.1f), 1100ms);
    EXPECT_LT(offset(std::nanf("")), 1000ms);
    EXPECT_GT(offset(INFINITY), std::chrono::hours(24 * 365 * 50));
    EXPECT_LT(offset(-INFINITY), -std::chrono::hours(24 * 365 * 50));
    EXPECT_LT(offset(-1.0f), -900ms);
}

}  // namespace
}  // namespace zdr
