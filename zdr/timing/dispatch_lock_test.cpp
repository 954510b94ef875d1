#include "zdr/timing/dispatch_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <unistd.h>

namespace zdr {
namespace {

using namespace std::chrono_literals;

// A one-way gate with a timeout, so that a broken lock fails a test instead of
// hanging it.
class Gate {
 public:
    void open() {
        std::lock_guard<std::mutex> guard(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    bool waitOpen(std::chrono::milliseconds timeout = 5000ms) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return open_; });
    }

 private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

TEST(DispatchLockLabel, RandomLabelsArePrefixedDecimalAndDistinct) {
    const std::string prefix = "com.zdr.locking.";
    std::set<std::string> labels;
    for (int i = 0; i < 20; ++i) {
        DispatchLock lock;
        const std::string& label = lock.queue().label();
        ASSERT_EQ(label.rfind(prefix, 0), 0u) << label;
        const std::string digits = label.substr(prefix.size());
        ASSERT_GE(digits.size(), 1u) << label;
        ASSERT_LE(digits.size(), 6u) << label;
        EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << label;
        EXPECT_LE(std::stol(digits), 100000);
        EXPECT_TRUE(lock.queue().isConcurrent());
        labels.insert(label);
    }
    // 20 draws from 100001 values collide rarely; all equal would mean no randomness.
    EXPECT_GT(labels.size(), 15u);
}

TEST(DispatchLockLabel, NamedLabelIsPrefixPlusNameVerbatim) {
    EXPECT_EQ(DispatchLock("stats").queue().label(), "com.zdr.locking.stats");
    EXPECT_EQ(DispatchLock("").queue().label(), "com.zdr.locking.");
    EXPECT_EQ(DispatchLock("a b/c").queue().label(), "com.zdr.locking.a b/c");
}

TEST(DispatchLockLabel, SetQueueReplacesTheQueueUsedByLaterWork) {
    DispatchLock lock("old");
    DispatchQueue replacement("replacement", DispatchQueue::Attributes::concurrent);
    lock.setQueue(replacement);
    EXPECT_EQ(lock.queue(), replacement);
    Gate ran;
    std::string seenLabel;
    lock.asyncWrite([&] {
        seenLabel = DispatchQueue::currentLabel().value_or("");
        ran.open();
    });
    ASSERT_TRUE(ran.waitOpen());
    EXPECT_EQ(seenLabel, "replacement");
}

TEST(DispatchLockResults, ReadAndSyncWriteReturnValuesAndReferences) {
    DispatchLock lock;
    int value = 41;
    lock.syncWrite([&] { ++value; });
    EXPECT_EQ(lock.read([&] { return value; }), 42);
    EXPECT_EQ(lock.syncWrite([&] { return value * 2; }), 84);
    int& ref = lock.read([&]() -> int& { return value; });
    EXPECT_EQ(&ref, &value);
    std::string moved = lock.read([] { return std::string(100, 'x'); });
    EXPECT_EQ(moved.size(), 100u);
}

TEST(DispatchLockResults, ThrowingSyncWriteRethrowsAndLeavesLockUsable) {
    DispatchLock lock;
    int value = 0;
    EXPECT_THROW(lock.syncWrite([&] {
        value = 1;
        throw std::runtime_error("boom");
    }),
                 std::runtime_error);
    EXPECT_THROW(lock.read([]() -> int { throw std::logic_error("read"); }), std::logic_error);
    // A barrier that left the queue badly would block this write or the read after it.
    lock.syncWrite([&] { value = 2; });
    lock.asyncWrite([&] { value = 3; });
    EXPECT_EQ(lock.read([&] { return value; }), 3);
}

TEST(DispatchLockResults, ReadAndReturnPassesObjectsAndNull) {
    DispatchLock lock;
    auto object = std::make_shared<std::string>("device");
    std::shared_ptr<void> got = lock.readAndReturn([&] { return std::shared_ptr<void>(object); });
    EXPECT_EQ(got.get(), object.get());
    EXPECT_EQ(lock.readAndReturn([] { return std::shared_ptr<void>(); }), nullptr);
    EXPECT_EQ(lock.readAndReturn(nullptr), nullptr);
}

TEST(DispatchLockAsync, ReadAsyncCallsCompletionOnceAfterTheWorkOnTheLockQueue) {
    DispatchLock lock("async");
    std::atomic<int> workRuns{0}, completions{0};
    std::string completionLabel;
    Gate done;
    lock.readAsync([&] { ++workRuns; },
                   [&] {
                       EXPECT_EQ(workRuns.load(), 1);
                       completionLabel = DispatchQueue::currentLabel().value_or("");
                       ++completions;
                       done.open();
                   });
    ASSERT_TRUE(done.waitOpen());
    EXPECT_EQ(completionLabel, "com.zdr.locking.async");
    // Give a duplicate completion a chance to show up.
    lock.syncWrite([] {});
    EXPECT_EQ(completions.load(), 1);

    Gate valued;
    int result = 0;
    lock.readAsync([] { return 7; },
                   [&](int v) {
                       result = v;
                       valued.open();
                   });
    ASSERT_TRUE(valued.waitOpen());
    EXPECT_EQ(result, 7);
}

TEST(DispatchLockAsync, ReadAsyncFutureCarriesResultOrException) {
    DispatchLock lock;
    int value = 5;
    lock.asyncWrite([&] { value = 6; });
    auto future = lock.readAsync([&] { return value; });
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(future.get(), 6);
    auto failing = lock.readAsync([]() -> int { throw std::runtime_error("no"); });
    ASSERT_EQ(failing.wait_for(5s), std::future_status::ready);
    EXPECT_THROW(failing.get(), std::runtime_error);
    auto nothing = lock.readAsync([] {});
    ASSERT_EQ(nothing.wait_for(5s), std::future_status::ready);
}

TEST(DispatchLockOrdering, ReadAfterAsyncWriteFromSameThreadSeesIt) {
    DispatchLock lock;
    int value = 0;  // plain int: only the lock's discipline keeps this race-free
    for (int i = 1; i <= 2000; ++i) {
        lock.asyncWrite([&value, i] { value = i; });
        ASSERT_EQ(lock.read([&] { return value; }), i);
    }
}

TEST(DispatchLockOrdering, WriteWaitsForEarlierReadAndHoldsBackLaterReads) {
    DispatchLock lock;
    std::vector<std::string> events;  // guarded by the lock's discipline only
    std::mutex eventsMutex;
    auto record = [&](std::string event) {
        std::lock_guard<std::mutex> guard(eventsMutex);
        events.push_back(std::move(event));
    };
    Gate readerEntered, releaseReader;
    lock.readAsync(
        [&] {
            readerEntered.open();
            EXPECT_TRUE(releaseReader.waitOpen());
            record("read1");
        },
        [] {});
    ASSERT_TRUE(readerEntered.waitOpen());
    lock.asyncWrite([&] { record("write"); });
    auto later = lock.readAsync([&] { record("read2"); });

    // With the first read still running, neither the write nor the read
    // behind it may start.
    std::this_thread::sleep_for(50ms);
    {
        std::lock_guard<std::mutex> guard(eventsMutex);
        EXPECT_TRUE(events.empty());
    }
    releaseReader.open();
    ASSERT_EQ(later.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(events, (std::vector<std::string>{"read1", "write", "read2"}));
}

TEST(DispatchLockOrdering, AsyncWriteFromInsideWorkRunsAfterIt) {
    DispatchLock lock;
    std::vector<int> order;
    lock.syncWrite([&] {
        lock.asyncWrite([&] { order.push_back(2); });
        order.push_back(1);
    });
    lock.read([&] { order.push_back(3); });
    lock.syncWrite([] {});
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(DispatchLockConcurrency, ReadsOverlap) {
    DispatchLock lock;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    auto reader = [&] {
        lock.read([&] {
            ++inside;
            const auto until = std::chrono::steady_clock::now() + 5s;
            while (inside.load() < 2 && std::chrono::steady_clock::now() < until) {
                std::this_thread::yield();
            }
            if (inside.load() >= 2) overlapped = true;
        });
    };
    std::thread a(reader), b(reader);
    a.join();
    b.join();
    EXPECT_TRUE(overlapped.load());
}

TEST(DispatchLockConcurrency, WritesNeverOverlapReadsOrWrites) {
    DispatchLock lock;
    std::atomic<int> readers{0}, writers{0};
    std::atomic<int> violations{0};
    long total = 0;  // written only inside writes
    constexpr int kThreads = 4, kRounds = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                if ((i + t) % 3 == 0) {
                    auto write = [&] {
                        if (++writers != 1 || readers.load() != 0) ++violations;
                        ++total;
                        std::this_thread::yield();
                        --writers;
                    };
                    if (i % 2 == 0) {
                        lock.syncWrite(write);
                    } else {
                        lock.asyncWrite(write);
                    }
                } else {
                    lock.read([&] {
                        ++readers;
                        if (writers.load() != 0) ++violations;
                        volatile long seen = total;
                        (void)seen;
                        std::this_thread::yield();
                        --readers;
                    });
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    lock.syncWrite([] {});
    EXPECT_EQ(violations.load(), 0);
    long expected = 0;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kRounds; ++i) expected += ((i + t) % 3 == 0);
    }
    EXPECT_EQ(lock.read([&] { return total; }), expected);
}

// A synchronous operation nested inside work of the same lock can only wait for
// itself. Each of these must stop the program with the deadlock message; the
// alarm turns a hang into a death with the wrong message, so a lock that hangs
// fails the test instead of stalling it.
TEST(DispatchLockDeathTest, NestedSynchronousOperationsStopInsteadOfHanging) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ::alarm(10);
            DispatchLock l("nested.read.in.syncwrite");
            l.syncWrite([&] { return l.read([] { return 1; }); });
        },
        "would deadlock");
    EXPECT_DEATH(
        {
            ::alarm(10);
            DispatchLock l("nested.readandreturn.in.syncwrite");
            l.syncWrite([&] { l.readAndReturn([] { return std::shared_ptr<void>(); }); });
        },
        "would deadlock");
    EXPECT_DEATH(
        {
            ::alarm(10);
            DispatchLock l("nested.read.in.asyncwrite");
            l.asyncWrite([&] { l.read([] {}); });
            l.syncWrite([] {});
        },
        "would deadlock");
    EXPECT_DEATH(
        {
            ::alarm(10);
            DispatchLock l("nested.syncwrite.in.syncwrite");
            l.syncWrite([&] { l.syncWrite([] {}); });
        },
        "would deadlock");
    EXPECT_DEATH(
        {
            ::alarm(10);
            DispatchLock l("nested.syncwrite.in.read");
            l.read([&] { l.syncWrite([] {}); });
        },
        "would deadlock");
    // A read inside a read with a write queued between them: the inner read
    // waits for the write, which waits for the outer read.
    EXPECT_DEATH(
        {
            ::alarm(10);
            DispatchLock l("nested.read.behind.write");
            l.read([&] {
                l.asyncWrite([] {});
                l.read([] {});
            });
        },
        "would deadlock");
}

TEST(DispatchLockNesting, ReadInsideAReadWithNothingQueuedRuns) {
    DispatchLock lock("nested.read.free");
    int value = 7;
    EXPECT_EQ(lock.read([&] { return lock.read([&] { return value; }) + 1; }), 8);
    // And the lock is usable afterwards: nothing was left counted in.
    lock.syncWrite([&] { value = 9; });
    EXPECT_EQ(lock.read([&] { return value; }), 9);
}

}  // namespace
}  // namespace zdr
