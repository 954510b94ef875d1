#include "zdr/timing/replay_once.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zdr/testing/eventually.h"

namespace zdr {
namespace {

using Publishers::ReplayOnce;
using namespace std::chrono_literals;

/// What one subscriber saw.
struct Seen {
    std::mutex mutex;
    std::vector<int> values;
    std::vector<std::string> ends;
    std::size_t count() {
        std::lock_guard lock(mutex);
        return values.size() + ends.size();
    }
};

AnyCancellable watch(const std::shared_ptr<ReplayOnce<int>>& once, Seen& seen) {
    return once->sink(
        [&](Completion) {
            std::lock_guard lock(seen.mutex);
            seen.ends.push_back("finished");
        },
        [&](const int& v) {
            std::lock_guard lock(seen.mutex);
            seen.values.push_back(v);
        });
}

AnyCancellable watch(const std::shared_ptr<ReplayOnce<int, std::string>>& once, Seen& seen) {
    return once->sink(
        [&](const FailableCompletion<std::string>& c) {
            std::lock_guard lock(seen.mutex);
            seen.ends.push_back(c.isFinished() ? "finished" : "failure:" + c.error());
        },
        [&](const int& v) {
            std::lock_guard lock(seen.mutex);
            seen.values.push_back(v);
        });
}

TEST(ReplayOnce, SynchronousWorkReplaysToALaterSubscriberAtOnce) {
    int runs = 0;
    auto once = ReplayOnce<int>::make([&](auto done) {
        ++runs;
        done(ReplayOnce<int>::ResultType::success(7));
    });
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(once->hasResult());
    Seen seen;
    auto c = watch(once, seen);
    EXPECT_EQ(seen.values, std::vector<int>{7});
    EXPECT_EQ(seen.ends, std::vector<std::string>{"finished"});
    EXPECT_EQ(runs, 1) << "subscribing must not run the work again";
}

TEST(ReplayOnce, SubscribersBeforeAndAfterTheResultEachGetItOnce) {
    ReplayOnce<int>::Callback later;
    auto once = ReplayOnce<int>::make([&](auto done) { later = done; });
    Seen early, late;
    auto c1 = watch(once, early);
    EXPECT_EQ(early.count(), 0u);
    later(ReplayOnce<int>::ResultType::success(3));
    auto c2 = watch(once, late);
    for (Seen* s : {&early, &late}) {
        EXPECT_EQ(s->values, std::vector<int>{3});
        EXPECT_EQ(s->ends, std::vector<std::string>{"finished"});
    }
}

TEST(ReplayOnce, ASecondCallbackIsIgnored) {
    ReplayOnce<int>::Callback later;
    auto once = ReplayOnce<int>::make([&](auto done) { later = done; });
    Seen seen;
    auto c = watch(once, seen);
    later(ReplayOnce<int>::ResultType::success(1));
    later(ReplayOnce<int>::ResultType::success(2));
    Seen late;
    auto c2 = watch(once, late);
    EXPECT_EQ(seen.values, std::vector<int>{1});
    EXPECT_EQ(late.values, std::vector<int>{1});
    EXPECT_EQ(seen.ends.size(), 1u);
}

TEST(ReplayOnce, AFailureReachesEarlyAndLateSubscribersWithoutAValue) {
    using Once = ReplayOnce<int, std::string>;
    Once::Callback later;
    auto once = Once::make([&](auto done) { later = done; });
    Seen early, late;
    auto c1 = watch(once, early);
    later(Once::ResultType::failure("refused"));
    auto c2 = watch(once, late);
    for (Seen* s : {&early, &late}) {
        EXPECT_TRUE(s->values.empty());
        EXPECT_EQ(s->ends, std::vector<std::string>{"failure:refused"});
    }
}

TEST(ReplayOnce, ResultFromAnotherThreadRacingLateSubscribersIsSeenExactlyOnce) {
    // Many subscribers attach while the result arrives from another thread:
    // each must see the value exactly once, whichever side wins.
    for (int round = 0; round < 20; ++round) {
        std::promise<void> go;
        std::shared_future<void> ready = go.get_future().share();
        std::thread worker;
        auto once = ReplayOnce<int>::make([&](auto done) {
            worker = std::thread([ready, done] {
                ready.wait();
                done(ReplayOnce<int>::ResultType::success(42));
            });
        });
        std::vector<std::unique_ptr<Seen>> seen;
        std::vector<AnyCancellable> cs;
        for (int i = 0; i < 8; ++i) {
            seen.push_back(std::make_unique<Seen>());
            cs.push_back(watch(once, *seen.back()));
            if (i == 3) go.set_value();
        }
        worker.join();
        for (auto& s : seen) {
            EXPECT_EQ(s->values, std::vector<int>{42});
            EXPECT_EQ(s->ends.size(), 1u);
        }
    }
}

TEST(ReplayOnce, CancelledSubscriberGetsNothing) {
    ReplayOnce<int>::Callback later;
    auto once = ReplayOnce<int>::make([&](auto done) { later = done; });
    Seen seen;
    auto c = watch(once, seen);
    c.cancel();
    later(ReplayOnce<int>::ResultType::success(5));
    EXPECT_EQ(seen.count(), 0u);
}

TEST(ReplayOnce, WorksAsAnInnerPublisherOfFlatMap) {
    auto subject = PassthroughSubject<int>::make();
    std::mutex m;
    std::vector<int> out;
    auto c = subject
                 ->flatMap([](const int& v) {
                     return ReplayOnce<int>::make([v](auto done) {
                         DispatchQueue::global().async(
                             [v, done] { done(ReplayOnce<int>::ResultType::success(v * v)); });
                     });
                 })
                 ->sink([&](const int& v) {
                     std::lock_guard lock(m);
                     out.push_back(v);
                 });
    for (int i = 1; i <= 5; ++i) subject->send(i);
    ASSERT_TRUE(testing::eventually([&] {
        std::lock_guard lock(m);
        return out.size() == 5;
    }));
    std::lock_guard lock(m);
    std::sort(out.begin(), out.end());
    EXPECT_EQ(out, (std::vector<int>{1, 4, 9, 16, 25}));
}

TEST(ReplayOnce, WorkThatNeverCallsBackLeavesSubscribersWaitingAndLeaksNothing) {
    std::weak_ptr<ReplayOnce<int>> weak;
    Seen seen;
    {
        auto once = ReplayOnce<int>::make([](auto) {});
        weak = once;
        auto c = watch(once, seen);
    }
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(seen.count(), 0u);
}

// Holds the data lock on another thread while the callback runs.
template <class Once>
void holdLockWhile(const std::shared_ptr<Once>& once, const std::function<void()>& body) {
    std::promise<void> locked, release;
    std::thread holder([&] {
        std::lock_guard lock(once->dataLock());
        locked.set_value();
        release.get_future().wait();
    });
    locked.get_future().wait();
    body();
    release.set_value();
    holder.join();
}

TEST(ReplayOnce, TimidDropsAValueWhenTheLockIsHeldAndSaysSo) {
    ReplayOnce<int>::Callback later;
    auto once = ReplayOnce<int>::make([&](auto done) { later = done; }, nullptr, /*timid=*/true);
    Seen seen;
    auto c = watch(once, seen);
    ::testing::internal::CaptureStdout();
    holdLockWhile(once, [&] { later(ReplayOnce<int>::ResultType::success(9)); });
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "ReplayOnce(Timid) is skipping [<unknown>], because it cannot get the lock. Did not "
              "send: 9\n");
    EXPECT_EQ(seen.count(), 0u);
    EXPECT_FALSE(once->hasResult());
}

TEST(ReplayOnce, TimidDropsAFailureWithItsOwnWording) {
    using Once = ReplayOnce<int, std::string>;
    Once::Callback later;
    auto once = Once::make([&](auto done) { later = done; }, nullptr, true, "probe");
    ::testing::internal::CaptureStdout();
    holdLockWhile(once, [&] { later(Once::ResultType::failure("timeout")); });
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "ReplayOnce(Timid) is skipping [probe], because it cannot get the lock. Did not "
              "execute: failure(timeout)\n");
}

TEST(ReplayOnce, TimidDeliversWhenTheLockIsFree) {
    auto once = ReplayOnce<int>::make(
        [](auto done) { done(ReplayOnce<int>::ResultType::success(1)); }, nullptr, true);
    Seen seen;
    auto c = watch(once, seen);
    EXPECT_EQ(seen.values, std::vector<int>{1});
}

TEST(ReplayOnce, DescribesValuesWithoutAStreamFormByTypeName) {
    struct Opaque {};
    EXPECT_EQ(detail::describeValue(2.5), "2.5");
    EXPECT_EQ(detail::describeValue(true), "true");
    EXPECT_EQ(detail::describeValue(std::string("x y")), "x y");
    EXPECT_NE(detail::describeValue(Opaque{}).find("Opaque"), std::string::npos);
}

}  // namespace
}  // namespace zdr
