#include "zdr/runtime/publisher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <string>
#include <thread>
#include <vector>

namespace zdr {
namespace {

using namespace std::chrono_literals;

/// Values collected by a sink, safe to read from the test thread.
template <class T>
class Recorder {
 public:
    std::function<void(const T&)> onValue() {
        return [this](const T& v) {
            std::lock_guard lock(mutex_);
            values_.push_back(v);
            threads_.push_back(DispatchQueue::currentLabel().value_or(""));
            cv_.notify_all();
        };
    }
    std::function<void(Completion)> onCompletion() {
        return [this](Completion) {
            std::lock_guard lock(mutex_);
            ++completions_;
            cv_.notify_all();
        };
    }
    std::vector<T> values() const {
        std::lock_guard lock(mutex_);
        return values_;
    }
    std::vector<std::string> labels() const {
        std::lock_guard lock(mutex_);
        return threads_;
    }
    int completions() const {
        std::lock_guard lock(mutex_);
        return completions_;
    }
    /// Waits (generously) until `n` values arrived.
    bool waitForCount(std::size_t n, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return values_.size() >= n; });
    }
    bool waitForCompletion(std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return completions_ > 0; });
    }

 private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<T> values_;
    std::vector<std::string> threads_;
    int completions_ = 0;
};

/// Waits until every block submitted to `queue` so far has run.
void flush(const DispatchQueue& queue) {
    queue.sync([] {}, DispatchFlags::barrier);
}

TEST(Subjects, PassthroughDeliversInOrderToEverySubscriberWithoutReplay) {
    auto subject = PassthroughSubject<int>::make();
    subject->send(0);  // nobody listens: lost
    Recorder<int> a, b;
    auto ca = subject->sink(a.onCompletion(), a.onValue());
    subject->send(1);
    auto cb = subject->sink(b.onCompletion(), b.onValue());
    subject->send(2);
    subject->send(Completion::finished);
    subject->send(3);  // after completion: ignored
    subject->send(Completion::finished);

    EXPECT_EQ(a.values(), (std::vector<int>{1, 2}));
    EXPECT_EQ(b.values(), (std::vector<int>{2}));
    EXPECT_EQ(a.completions(), 1);
    EXPECT_EQ(b.completions(), 1);

    Recorder<int> late;
    auto cl = subject->sink(late.onCompletion(), late.onValue());
    EXPECT_TRUE(late.values().empty());
    EXPECT_EQ(late.completions(), 1);
}

TEST(Subjects, CurrentValueReplaysTheCurrentValueFirst) {
    auto subject = CurrentValueSubject<std::string>::make("initial");
    Recorder<std::string> a;
    auto ca = subject->sink(a.onValue());
    subject->send("second");
    EXPECT_EQ(subject->value(), "second");
    Recorder<std::string> b;
    auto cb = subject->sink(b.onValue());
    subject->send("third");
    EXPECT_EQ(a.values(), (std::vector<std::string>{"initial", "second", "third"}));
    EXPECT_EQ(b.values(), (std::vector<std::string>{"second", "third"}));
}

TEST(Subjects, CurrentValueSubscriberNeverSeesAnOlderValueLast) {
    // A subscriber that attaches while another thread sends must end with the
    // newest value: the replay may not overtake a newer send.
    for (int round = 0; round < 50; ++round) {
        auto subject = CurrentValueSubject<int>::make(0);
        std::thread sender([&] {
            for (int i = 1; i <= 200; ++i) subject->send(i);
        });
        Recorder<int> r;
        auto c = subject->sink(r.onValue());
        sender.join();
        auto values = r.values();
        ASSERT_FALSE(values.empty());
        EXPECT_EQ(values.back(), 200);
        EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
    }
}

TEST(Subjects, JustEmitsOneValueAndFinishesSynchronously) {
    Recorder<int> r;
    auto c = Just<int>::make(7)->sink(r.onCompletion(), r.onValue());
    EXPECT_EQ(r.values(), (std::vector<int>{7}));
    EXPECT_EQ(r.completions(), 1);
}

TEST(Cancellation, DestroyingOrCancellingDetachesAndReleasesThePipeline) {
    auto subject = PassthroughSubject<int>::make();
    auto marker = std::make_shared<int>(0);
    std::weak_ptr<int> weakMarker = marker;
    int received = 0;
    {
        auto c = subject->map([marker](int v) { return v + *marker; })->sink([&](const int&) {
            ++received;
        });
        marker.reset();
        subject->send(1);
        EXPECT_EQ(subject->subscriberCount(), 1u);
    }
    subject->send(2);
    EXPECT_EQ(received, 1);
    EXPECT_EQ(subject->subscriberCount(), 0u);
    EXPECT_TRUE(weakMarker.expired()) << "the map closure must be freed with the pipeline";

    AnyCancellable c2 = subject->sink([&](const int&) { ++received; });
    c2.cancel();
    c2.cancel();  // idempotent
    subject->send(3);
    EXPECT_EQ(received, 1);
}

TEST(Cancellation, CancelFromInsideTheSinkStopsFurtherValues) {
    auto subject = PassthroughSubject<int>::make();
    std::vector<int> seen;
    AnyCancellable c;
    c = subject->sink([&](const int& v) {
        seen.push_back(v);
        if (v == 2) c.cancel();
    });
    for (int i = 1; i <= 5; ++i) subject->send(i);
    EXPECT_EQ(seen, (std::vector<int>{1, 2}));
}

TEST(Cancellation, StoredInSetAndVectorAndMoveAssignmentCancelsThePrevious) {
    auto subject = PassthroughSubject<int>::make();
    int count = 0;
    std::set<AnyCancellable> set;
    std::vector<AnyCancellable> vector;
    subject->sink([&](const int&) { ++count; }).store(set);
    subject->sink([&](const int&) { ++count; }).store(set);
    subject->sink([&](const int&) { ++count; }).store(vector);
    EXPECT_EQ(set.size(), 2u);
    subject->send(1);
    EXPECT_EQ(count, 3);
    set.clear();
    subject->send(1);
    EXPECT_EQ(count, 4);

    vector[0] = subject->sink([&](const int&) { count += 10; });  // replaces (cancels) the old
    subject->send(1);
    EXPECT_EQ(count, 14);
    EXPECT_EQ(subject->subscriberCount(), 1u);

    bool ran = false;
    {
        AnyCancellable closure([&] { ran = true; });
    }
    EXPECT_TRUE(ran);
}

TEST(Operators, MapAndCompactMapTransformAndFilter) {
    auto subject = PassthroughSubject<int>::make();
    Recorder<std::string> r;
    auto c = subject
                 ->compactMap([](int v) -> std::optional<int> {
                     if (v % 2) return std::nullopt;
                     return v;
                 })
                 ->map([](int v) { return std::to_string(v * 10); })
                 ->sink(r.onCompletion(), r.onValue());
    for (int i = 0; i < 5; ++i) subject->send(i);
    subject->send(Completion::finished);
    EXPECT_EQ(r.values(), (std::vector<std::string>{"0", "20", "40"}));
    EXPECT_EQ(r.completions(), 1);
}

TEST(Operators, FlatMapMergesInnerPublishersAndFinishesAfterAllOfThem) {
    auto outer = PassthroughSubject<int>::make();
    std::vector<std::shared_ptr<PassthroughSubject<std::string>>> inners;
    Recorder<std::string> r;
    auto c = outer
                 ->flatMap([&](int v) -> AnyPublisher<std::string> {
                     if (v < 0) return Just<std::string>::make("just" + std::to_string(-v));
                     auto inner = PassthroughSubject<std::string>::make();
                     inners.push_back(inner);
                     return inner;
                 })
                 ->sink(r.onCompletion(), r.onValue());
    outer->send(1);
    outer->send(2);
    outer->send(-3);  // synchronous inner
    ASSERT_EQ(inners.size(), 2u);
    inners[1]->send("b1");
    inners[0]->send("a1");
    inners[1]->send("b2");
    inners[0]->send(Completion::finished);
    outer->send(Completion::finished);
    EXPECT_EQ(r.completions(), 0) << "an inner publisher is still running";
    inners[1]->send("b3");
    inners[1]->send(Completion::finished);
    EXPECT_EQ(r.values(), (std::vector<std::string>{"just3", "b1", "a1", "b2", "b3"}));
    EXPECT_EQ(r.completions(), 1);
}

TEST(Operators, FlatMapCancelDetachesEveryInnerPublisher) {
    auto outer = PassthroughSubject<int>::make();
    auto inner = PassthroughSubject<int>::make();
    int received = 0;
    auto c = outer->flatMap([&](int) { return inner; })->sink([&](const int&) { ++received; });
    outer->send(0);
    outer->send(0);
    EXPECT_EQ(inner->subscriberCount(), 2u);
    inner->send(1);
    EXPECT_EQ(received, 2);
    c.cancel();
    EXPECT_EQ(inner->subscriberCount(), 0u);
    EXPECT_EQ(outer->subscriberCount(), 0u);
}

TEST(Operators, CombineLatestPairsTheNewestValuesOnceBothHaveOne) {
    auto a = PassthroughSubject<int>::make();
    auto b = CurrentValueSubject<std::string>::make("x");
    Recorder<std::pair<int, std::string>> r;
    auto c = a->combineLatest<std::string>(b)->sink(r.onCompletion(), r.onValue());
    EXPECT_TRUE(r.values().empty());
    a->send(1);
    a->send(2);
    b->send("y");
    a->send(Completion::finished);
    b->send("z");
    EXPECT_EQ(r.completions(), 0);
    b->send(Completion::finished);
    using P = std::pair<int, std::string>;
    EXPECT_EQ(r.values(), (std::vector<P>{{1, "x"}, {2, "x"}, {2, "y"}, {2, "z"}}));
    EXPECT_EQ(r.completions(), 1);
}

TEST(Operators, ReceiveOnDeliversOnTheQueueInOrderOneAtATime) {
    // A concurrent queue must still see one delivery at a time, in order.
    DispatchQueue queue("test.receive-on", DispatchQueue::Attributes::concurrent);
    auto subject = PassthroughSubject<int>::make();
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    Recorder<int> r;
    auto record = r.onValue();
    auto c = subject->receiveOn(queue)->sink(r.onCompletion(), [&](const int& v) {
        if (inFlight.fetch_add(1) != 0) overlapped = true;
        std::this_thread::yield();
        record(v);
        inFlight.fetch_sub(1);
    });
    for (int i = 0; i < 500; ++i) subject->send(i);
    subject->send(Completion::finished);
    ASSERT_TRUE(r.waitForCompletion());
    auto values = r.values();
    ASSERT_EQ(values.size(), 500u);
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
    EXPECT_FALSE(overlapped.load());
    for (const auto& label : r.labels()) ASSERT_EQ(label, "test.receive-on");
}

TEST(Operators, ReceiveOnCancelledOnTheQueueDeliversNothingMore) {
    DispatchQueue queue("test.receive-on-cancel");
    auto subject = PassthroughSubject<int>::make();
    std::vector<int> seen;  // written on the queue only
    AnyCancellable c;
    c = subject->receiveOn(queue)->sink([&](const int& v) {
        seen.push_back(v);
        if (v == 3) c.cancel();
    });
    for (int i = 1; i <= 100; ++i) subject->send(i);
    flush(queue);
    flush(queue);
    EXPECT_EQ(queue.sync([&] { return seen; }), (std::vector<int>{1, 2, 3}));
}

// Throttle windows are checked against wall time with generous margins: a
// window of 300 ms, leading values expected well before it ends and trailing
// values not before it.
class ThrottleTest : public ::testing::TestWithParam<bool> {};

TEST_P(ThrottleTest, LeadingValueAtOnceThenOneTrailingValuePerWindow) {
    const bool latest = GetParam();
    const double interval = 0.3;
    DispatchQueue queue("test.throttle");
    auto subject = PassthroughSubject<int>::make();
    Recorder<int> r;
    std::vector<DispatchTime> times;  // written on the queue only
    auto record = r.onValue();
    auto c = subject->throttle(interval, queue, latest)->sink([&](const int& v) {
        times.push_back(dispatchNow());
        record(v);
    });
    const DispatchTime start = dispatchNow();
    for (int i = 1; i <= 50; ++i) subject->send(i);
    ASSERT_TRUE(r.waitForCount(2));
    std::this_thread::sleep_for(std::chrono::duration<double>(interval * 1.5));
    flush(queue);

    EXPECT_EQ(r.values(), (std::vector<int>{1, latest ? 50 : 2}));
    auto t = queue.sync([&] { return times; });
    ASSERT_EQ(t.size(), 2u);
    EXPECT_LT(t[0] - start, std::chrono::duration<double>(interval * 0.8));
    EXPECT_GE(t[1] - start, std::chrono::duration<double>(interval * 0.95));
    for (const auto& label : r.labels()) EXPECT_EQ(label, "test.throttle");

    // After a quiet period longer than the window, the next value is leading.
    const DispatchTime again = dispatchNow();
    subject->send(99);
    ASSERT_TRUE(r.waitForCount(3));
    auto t2 = queue.sync([&] { return times; });
    EXPECT_LT(t2.back() - again, std::chrono::duration<double>(interval * 0.8));
}

INSTANTIATE_TEST_SUITE_P(LatestAndFirst, ThrottleTest, ::testing::Bool());

TEST(Throttle, SteadyStreamIsPacedToAboutOneValuePerWindow) {
    const double interval = 0.1;
    DispatchQueue queue("test.throttle-steady");
    auto subject = PassthroughSubject<int>::make();
    Recorder<int> r;
    auto c = subject->throttle(interval, queue, true)->sink(r.onValue());
    const DispatchTime end = dispatchNow() + 1s;
    int sent = 0;
    while (dispatchNow() < end) {
        subject->send(++sent);
        std::this_thread::sleep_for(2ms);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(interval * 2));
    flush(queue);
    auto values = r.values();
    // About 1 s / 0.1 s = 10 windows, plus the leading value. Never more than
    // one per window; loaded machines may lose a few windows, not gain any.
    EXPECT_LE(values.size(), 12u);
    EXPECT_GE(values.size(), 5u);
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
    EXPECT_EQ(values.back(), sent) << "the last value of a burst is never lost";
}

TEST(Throttle, CompletionFlushesTheHeldValueAndCancelDropsIt) {
    DispatchQueue queue("test.throttle-end");
    auto subject = PassthroughSubject<int>::make();
    Recorder<int> r;
    auto c = subject->throttle(60.0, queue, true)->sink(r.onCompletion(), r.onValue());
    subject->send(1);
    subject->send(2);
    subject->send(Completion::finished);
    ASSERT_TRUE(r.waitForCompletion());
    EXPECT_EQ(r.values(), (std::vector<int>{1, 2}));

    auto subject2 = PassthroughSubject<int>::make();
    Recorder<int> r2;
    auto c2 = subject2->throttle(0.05, queue, true)->sink(r2.onValue());
    subject2->send(1);
    subject2->send(2);
    c2.cancel();
    std::this_thread::sleep_for(150ms);
    flush(queue);
    EXPECT_LE(r2.values().size(), 1u);
    if (!r2.values().empty()) {
        EXPECT_EQ(r2.values()[0], 1);
    }
}

TEST(Concurrency, SendsFromManyThreadsAreSerialisedPerSubscriber) {
    auto subject = PassthroughSubject<std::pair<int, int>>::make();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 5000;
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    std::vector<int> lastSeen(kThreads, -1);  // touched only inside deliveries
    bool outOfOrder = false;
    int total = 0;
    auto c = subject->map([](const std::pair<int, int>& p) { return p; })
                 ->sink([&](const std::pair<int, int>& p) {
                     if (inFlight.fetch_add(1) != 0) overlapped = true;
                     if (p.second <= lastSeen[p.first]) outOfOrder = true;
                     lastSeen[p.first] = p.second;
                     ++total;
                     inFlight.fetch_sub(1);
                 });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) subject->send({t, i});
        });
    for (auto& th : threads) th.join();
    EXPECT_FALSE(overlapped.load());
    EXPECT_FALSE(outOfOrder);
    EXPECT_EQ(total, kThreads * kPerThread);
}

TEST(Concurrency, SubscribeAndCancelWhileOtherThreadsSend) {
    auto subject = PassthroughSubject<int>::make();
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (int t = 0; t < 2; ++t)
        senders.emplace_back([&] {
            while (!stop) subject->send(1);
        });
    std::atomic<int> received{0};
    for (int i = 0; i < 300; ++i) {
        auto c = subject->map([](int v) { return v; })->sink([&](const int& v) { received += v; });
        if (i % 2) c.cancel();
    }
    stop = true;
    for (auto& th : senders) th.join();
    EXPECT_EQ(subject->subscriberCount(), 0u);
}

TEST(Concurrency, ReentrantSendIsDeliveredDepthFirst) {
    auto subject = PassthroughSubject<int>::make();
    std::vector<int> seen;
    auto c = subject->sink([&](const int& v) {
        seen.push_back(v);
        if (v < 3) subject->send(v + 1);
        seen.push_back(-v);
    });
    subject->send(1);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, -3, -2, -1}));
}

TEST(Concurrency, FlatMapMergesInnerValuesFromManyThreadsOneAtATime) {
    auto outer = PassthroughSubject<int>::make();
    std::vector<std::shared_ptr<PassthroughSubject<int>>> inners;
    for (int i = 0; i < 4; ++i) inners.push_back(PassthroughSubject<int>::make());
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    int total = 0;
    Recorder<int> done;
    auto c = outer->flatMap([&](int i) { return inners[static_cast<std::size_t>(i)]; })
                 ->sink(done.onCompletion(), [&](const int&) {
                     if (inFlight.fetch_add(1) != 0) overlapped = true;
                     ++total;
                     inFlight.fetch_sub(1);
                 });
    for (int i = 0; i < 4; ++i) outer->send(i);
    outer->send(Completion::finished);
    std::vector<std::thread> threads;
    for (auto& inner : inners)
        threads.emplace_back([inner] {
            for (int i = 0; i < 2000; ++i) inner->send(i);
            inner->send(Completion::finished);
        });
    for (auto& th : threads) th.join();
    EXPECT_FALSE(overlapped.load());
    EXPECT_EQ(total, 8000);
    EXPECT_EQ(done.completions(), 1);
}

}  // namespace
}  // namespace zdr
