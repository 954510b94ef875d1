#include "zdr/runtime/dispatch_queue.h"

#include <gtest/gtest.h>

#include <poll.h>
#include "zdr/testing/eventually.h"

#include <atomic>
#include <cmath>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace zdr {
namespace {

using namespace std::chrono_literals;

using zdr::testing::eventually;

TEST(DispatchQueueSerial, RunsAsyncWorkInSubmissionOrderOneAtATime) {
    DispatchQueue q("test.serial");
    std::vector<int> order;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    for (int i = 0; i < 500; ++i) {
        q.async([&, i] {
            if (inside.fetch_add(1) != 0) overlapped = true;
            order.push_back(i);
            inside.fetch_sub(1);
        });
    }
    q.sync([] {});
    ASSERT_EQ(order.size(), 500u);
    for (int i = 0; i < 500; ++i) EXPECT_EQ(order[i], i);
    EXPECT_FALSE(overlapped);
}

TEST(DispatchQueueSerial, SyncWaitsForEarlierWorkAndRunsOnCallerThread) {
    DispatchQueue q("test.serial.sync");
    std::atomic<bool> earlierDone{false};
    q.async([&] {
        std::this_thread::sleep_for(20ms);
        earlierDone = true;
    });
    auto caller = std::this_thread::get_id();
    std::thread::id ranOn;
    bool sawEarlier = q.sync([&] {
        ranOn = std::this_thread::get_id();
        return earlierDone.load();
    });
    EXPECT_TRUE(sawEarlier);
    EXPECT_EQ(ranOn, caller);
    EXPECT_EQ(q.sync([] { return 42; }), 42);
}

TEST(DispatchQueueSerial, SyncPropagatesExceptionsAndQueueStaysUsable) {
    DispatchQueue q("test.serial.throw");
    EXPECT_THROW(q.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
    EXPECT_EQ(q.sync([] { return 7; }), 7);
    std::atomic<bool> ran{false};
    q.async([&] { ran = true; });
    q.sync([] {});
    EXPECT_TRUE(ran);
}

TEST(DispatchQueueSerial, ExceptionInAsyncWorkDoesNotStopTheQueue) {
    DispatchQueue q("test.serial.asyncthrow");
    q.async([] { throw std::runtime_error("ignored"); });
    EXPECT_EQ(q.sync([] { return 1; }), 1);
}

TEST(DispatchQueueSerial, CurrentLabelNamesTheRunningQueue) {
    DispatchQueue q("test.label");
    EXPECT_EQ(q.sync([] { return DispatchQueue::currentLabel(); }),
              std::optional<std::string>("test.label"));
    std::promise<std::optional<std::string>> p;
    q.async([&] { p.set_value(DispatchQueue::currentLabel()); });
    EXPECT_EQ(p.get_future().get(), std::optional<std::string>("test.label"));
    EXPECT_EQ(q.label(), "test.label");
    EXPECT_FALSE(q.isConcurrent());
}

TEST(DispatchQueueSerialDeathTest, SyncFromInsideItselfStopsWithAMessage) {
    EXPECT_DEATH(
        {
            DispatchQueue q("test.reentrant");
            q.sync([&] { q.sync([] {}); });
        },
        "already running on it");
}

TEST(DispatchQueueConcurrent, AsyncWorkRunsSideBySide) {
    DispatchQueue q("test.concurrent", DispatchQueue::Attributes::concurrent);
    std::atomic<int> arrived{0};
    std::atomic<bool> allMet{false};
    for (int i = 0; i < 3; ++i) {
        q.async([&] {
            arrived.fetch_add(1);
            // Each waits for the others: only possible if they run at once.
            if (eventually([&] { return arrived.load() == 3; })) allMet = true;
        });
    }
    q.sync([] {}, DispatchFlags::barrier);
    EXPECT_TRUE(allMet);
}

TEST(DispatchQueueConcurrent, BarrierRunsAloneBetweenEarlierAndLaterWork) {
    DispatchQueue q("test.barrier", DispatchQueue::Attributes::concurrent);
    std::mutex m;
    std::vector<std::string> events;
    std::atomic<int> readersInside{0};
    std::atomic<bool> barrierOverlapped{false};
    auto log = [&](std::string e) {
        std::lock_guard lock(m);
        events.push_back(std::move(e));
    };
    for (int i = 0; i < 4; ++i) {
        q.async([&] {
            readersInside++;
            std::this_thread::sleep_for(5ms);
            log("before");
            readersInside--;
        });
    }
    q.async(
        [&] {
            if (readersInside.load() != 0) barrierOverlapped = true;
            log("barrier");
        },
        DispatchFlags::barrier);
    for (int i = 0; i < 4; ++i) q.async([&] { log("after"); });
    q.sync([] {}, DispatchFlags::barrier);

    ASSERT_EQ(events.size(), 9u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(events[i], "before");
    EXPECT_EQ(events[4], "barrier");
    for (int i = 5; i < 9; ++i) EXPECT_EQ(events[i], "after");
    EXPECT_FALSE(barrierOverlapped);
}

TEST(DispatchQueueConcurrent, SyncReadRunsInlineWhenNoBarrierIsAhead) {
    DispatchQueue q("test.inline", DispatchQueue::Attributes::concurrent);
    // A long-running non-barrier item does not hold back a sync read.
    std::atomic<bool> release{false};
    q.async([&] { eventually([&] { return release.load(); }); });
    auto caller = std::this_thread::get_id();
    auto ranOn = q.sync([] { return std::this_thread::get_id(); });
    EXPECT_EQ(ranOn, caller);
    release = true;
    q.sync([] {}, DispatchFlags::barrier);
}

TEST(DispatchQueueConcurrent, SyncReadWaitsForABarrierAheadOfIt) {
    DispatchQueue q("test.readafterbarrier", DispatchQueue::Attributes::concurrent);
    int value = 0;
    q.async(
        [&] {
            std::this_thread::sleep_for(20ms);
            value = 1;
        },
        DispatchFlags::barrier);
    EXPECT_EQ(q.sync([&] { return value; }), 1);
}

TEST(DispatchQueueConcurrent, BarrierWaitsForInlineReaders) {
    DispatchQueue q("test.barrierwaits", DispatchQueue::Attributes::concurrent);
    std::atomic<bool> readerInside{false}, readerDone{false}, barrierSawReaderDone{false};
    std::thread reader([&] {
        q.sync([&] {
            readerInside = true;
            std::this_thread::sleep_for(30ms);
            readerDone = true;
        });
    });
    ASSERT_TRUE(eventually([&] { return readerInside.load(); }));
    q.sync([&] { barrierSawReaderDone = readerDone.load(); }, DispatchFlags::barrier);
    reader.join();
    EXPECT_TRUE(barrierSawReaderDone);
}

TEST(DispatchQueueConcurrent, ReadersAndWritersUnderContentionKeepTheInvariant) {
    DispatchQueue q("test.stress", DispatchQueue::Attributes::concurrent);
    long a = 0, b = 0;  // a == b outside writes
    std::atomic<int> violations{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                if ((i + t) % 5 == 0) {
                    if (i % 2) {
                        q.async([&] { ++a, ++b; }, DispatchFlags::barrier);
                    } else {
                        q.sync([&] { ++a, ++b; }, DispatchFlags::barrier);
                    }
                } else {
                    q.sync([&] {
                        if (a != b) violations++;
                    });
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    long total = q.sync([&] { return a; }, DispatchFlags::barrier);
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(total, 4 * 400);
}

TEST(DispatchQueueAfter, RunsNoEarlierThanTheDeadlineAndInDeadlineOrder) {
    DispatchQueue q("test.after");
    std::mutex m;
    std::vector<int> order;
    auto start = dispatchNow();
    std::promise<DispatchTime> firstAt;
    q.asyncAfter(dispatchTimeAfter(0.06), [&] {
        std::lock_guard lock(m);
        order.push_back(2);
    });
    q.asyncAfter(dispatchTimeAfter(0.03), [&] {
        {
            std::lock_guard lock(m);
            order.push_back(1);
        }
        firstAt.set_value(dispatchNow());
    });
    EXPECT_GE(firstAt.get_future().get() - start, 30ms);
    ASSERT_TRUE(eventually([&] {
        std::lock_guard lock(m);
        return order.size() == 2;
    }));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(DispatchQueueAfter, BadIntervalsCountAsNow) {
    auto now = dispatchNow();
    EXPECT_LE(dispatchTimeAfter(-5) - now, 1s);
    EXPECT_LE(dispatchTimeAfter(std::nan("")) - now, 1s);
    EXPECT_GT(dispatchTimeAfter(1e300) - now, std::chrono::hours(24 * 365));
}

TEST(DispatchWorkItemTest, CancelledItemDoesNotRunButWaitReturns) {
    DispatchQueue q("test.workitem");
    std::atomic<bool> ran{false};
    auto item = DispatchWorkItem::make([&] { ran = true; });
    item->cancel();
    q.asyncAfter(dispatchTimeAfter(0.01), item);
    item->wait();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(item->isCancelled());
}

TEST(DispatchWorkItemTest, CancelFinishesAWaitingItemAndReleasesItsBlockAtOnce) {
    auto token = std::make_shared<int>(0);
    DispatchQueue other("test.workitem.cancel.notify");
    std::promise<void> notified;

    // Waiting for its deadline on the timer thread.
    auto delayed = DispatchWorkItem::make([token] { ++*token; });
    delayed->notify(other, [&] { notified.set_value(); });
    DispatchQueue q("test.workitem.cancel");
    q.asyncAfter(dispatchTimeAfter(60), delayed);
    EXPECT_EQ(token.use_count(), 2);
    delayed->cancel();
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_TRUE(delayed->waitFor(0));
    EXPECT_EQ(notified.get_future().wait_for(5s), std::future_status::ready);

    // Queued behind busy work on a serial queue: it leaves the queue at once,
    // and the queue goes on with what follows it.
    std::promise<void> release;
    auto gate = release.get_future().share();
    q.async([gate] { gate.wait(); });
    auto queued = DispatchWorkItem::make([token] { ++*token; });
    q.async(queued);
    std::atomic<bool> after{false};
    q.async([&] { after = true; });
    EXPECT_EQ(token.use_count(), 2);
    queued->cancel();
    EXPECT_EQ(token.use_count(), 1);
    release.set_value();
    q.sync([] {});
    EXPECT_TRUE(after.load());
    EXPECT_EQ(*token, 0);

    // Running: it finishes; the block goes when it ends.
    std::promise<void> inside, finish;
    auto running = DispatchWorkItem::make([token, &inside, &finish] {
        inside.set_value();
        finish.get_future().wait();
    });
    q.async(running);
    inside.get_future().wait();
    running->cancel();
    EXPECT_FALSE(running->waitFor(0.01));
    finish.set_value();
    EXPECT_TRUE(running->waitFor(5));
    EXPECT_EQ(token.use_count(), 1);
}

TEST(DispatchWorkItemTest, NotifyRunsAfterTheItemOnTheGivenQueue) {
    DispatchQueue q("test.workitem.run");
    DispatchQueue other("test.workitem.notify");
    std::atomic<int> step{0};
    std::promise<int> seen;
    auto item = DispatchWorkItem::make([&] { step = 1; });
    item->notify(other, [&] { seen.set_value(step.load()); });
    q.async(item);
    EXPECT_EQ(seen.get_future().get(), 1);
    EXPECT_TRUE(item->waitFor(1.0));
}

TEST(DispatchWorkItemTest, SyncAcceptsAnyWorkItemPointer) {
    DispatchQueue serial("test.workitem.sync");
    DispatchQueue concurrent("test.workitem.sync.concurrent",
                             DispatchQueue::Attributes::concurrent);
    int runs = 0;
    std::shared_ptr<DispatchWorkItem> item = DispatchWorkItem::make([&] { ++runs; });
    serial.sync(item);  // a non-const lvalue
    concurrent.sync(item);
    serial.sync(DispatchWorkItem::make([&] { ++runs; }));  // an rvalue
    auto barrier = DispatchWorkItem::make([&] { ++runs; }, DispatchFlags::barrier);
    concurrent.sync(barrier);
    EXPECT_EQ(runs, 4);
    EXPECT_TRUE(item->waitFor(0));
}

TEST(DispatchQueueGlobal, SameQueuePerQualityOfService) {
    EXPECT_EQ(DispatchQueue::global(), DispatchQueue::global(DispatchQoS::defaultQoS));
    EXPECT_NE(DispatchQueue::global(DispatchQoS::utility), DispatchQueue::global());
    EXPECT_TRUE(DispatchQueue::global().isConcurrent());
}

TEST(MainQueue, WorkWaitsForTheHostToDrain) {
    auto main = DispatchQueue::main();
    main.drain();
    std::vector<int> order;
    std::thread poster([&] {
        for (int i = 0; i < 3; ++i) main.async([&, i] { order.push_back(i); });
    });
    poster.join();
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(main.drain(), 3u);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(MainQueue, WorkPostedWhileDrainingWaitsForTheNextDrain) {
    auto main = DispatchQueue::main();
    main.drain();
    int second = 0;
    main.async([&] { main.async([&] { second++; }); });
    EXPECT_EQ(main.drain(), 1u);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(main.drain(), 1u);
    EXPECT_EQ(second, 1);
}

TEST(MainQueue, PollFdIsReadableExactlyWhileWorkIsPending) {
    auto main = DispatchQueue::main();
    main.drain();
    int fd = main.pollFd();
    ASSERT_GE(fd, 0);
    auto readable = [fd] {
        pollfd p{fd, POLLIN, 0};
        return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
    };
    EXPECT_FALSE(readable());
    std::thread([&] { main.async([] {}); }).join();
    EXPECT_TRUE(readable());
    main.drain();
    EXPECT_FALSE(readable());
}

TEST(MainQueue, DrainingThreadIsTheMainThreadAndSyncRunsThere) {
    auto main = DispatchQueue::main();
    main.drain();  // this test's thread drains: it is the main thread
    EXPECT_TRUE(DispatchQueue::isMainThread());
    std::atomic<bool> otherIsMain{true};
    std::thread([&] { otherIsMain = DispatchQueue::isMainThread(); }).join();
    EXPECT_FALSE(otherIsMain);

    std::promise<bool> ranOnMain;
    std::thread worker([&] {
        bool onMain = main.sync([] { return DispatchQueue::isMainThread(); });
        ranOnMain.set_value(onMain);
    });
    auto f = ranOnMain.get_future();
    while (f.wait_for(1ms) != std::future_status::ready) main.drain();
    worker.join();
    EXPECT_TRUE(f.get());
    // On the main thread itself, sync runs at once instead of deadlocking.
    EXPECT_EQ(main.sync([] { return 5; }), 5);
}

TEST(MainQueue, RunDrainsUntilStopped) {
    auto main = DispatchQueue::main();
    main.drain();
    std::atomic<int> count{0};
    std::thread host([&] { main.run(); });
    for (int i = 0; i < 10; ++i) main.async([&] { count++; });
    ASSERT_TRUE(eventually([&] { return count.load() == 10; }));
    main.async([&] { main.stop(); });
    host.join();
    // Give the main thread back to this test's thread for the tests after it.
    main.drain();
    EXPECT_TRUE(DispatchQueue::isMainThread());
}

}  // namespace
}  // namespace zdr

namespace zdr {
namespace {

TEST(DispatchQueueConcurrent, AsyncWriteThenReadFromTheSameThreadSeesEveryWrite) {
    // The read may run the pending barrier itself; either way it sees it, and
    // writes still never overlap each other or a read.
    DispatchQueue q("test.writethenread", DispatchQueue::Attributes::concurrent);
    long value = 0;
    std::atomic<int> inside{0};
    std::atomic<bool> overlap{false};
    std::vector<std::thread> threads;
    std::atomic<int> stale{0};
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                long seen = q.sync([&] { return value; });
                q.async(
                    [&] {
                        if (inside.fetch_add(1) != 0) overlap = true;
                        ++value;
                        inside.fetch_sub(1);
                    },
                    DispatchFlags::barrier);
                if (q.sync([&] { return value; }) <= seen) stale++;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(q.sync([&] { return value; }, DispatchFlags::barrier), 6000);
    EXPECT_EQ(stale.load(), 0);
    EXPECT_FALSE(overlap);
}

TEST(DispatchQueueConcurrent, AsyncBarriersThatNobodyWaitsForAllRunInOrder) {
    // Barriers queued while the pool job for an earlier one is still on its
    // way share that job; none may be left behind when no reader comes along
    // to run it, and readers between them still see every earlier barrier.
    DispatchQueue q("test.barrierstream", DispatchQueue::Attributes::concurrent);
    constexpr int kBarriers = 1000;
    std::vector<int> order;  // written only by barriers
    std::atomic<int> done{0};
    std::atomic<int> staleReads{0};
    for (int i = 0; i < kBarriers; ++i) {
        q.async(
            [&, i] {
                order.push_back(i);
                done.fetch_add(1);
            },
            DispatchFlags::barrier);
        if (i % 10 == 0) {
            q.async([&, i] {
                if (done.load() < i + 1) staleReads++;
            });
        }
    }
    ASSERT_TRUE(eventually([&] { return done.load() == kBarriers; }));
    std::vector<int> expected(kBarriers);
    for (int i = 0; i < kBarriers; ++i) expected[i] = i;
    EXPECT_EQ(q.sync([&] { return order; }), expected);
    EXPECT_EQ(staleReads.load(), 0);
}

}  // namespace
}  // namespace zdr

#include <sys/wait.h>
#include <unistd.h>

namespace zdr {
namespace {

TEST(MainQueue, AForkedChildsOwnThreadIsItsMainThread) {
    // Ask once first so the ids are cached, then fork from this thread.
    DispatchQueue::isMainThread();
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(DispatchQueue::isMainThread() ? 0 : 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace zdr
