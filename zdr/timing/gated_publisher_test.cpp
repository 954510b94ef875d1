#include "zdr/timing/gated_publisher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "zdr/testing/eventually.h"

namespace zdr {
namespace {

using testing::eventually;

/// Work whose completions the test releases one by one.
struct HeldWork {
    std::mutex mutex;
    std::vector<int> started;
    std::vector<std::function<void(std::string)>> pending;
    std::vector<std::string> results;
    std::atomic<int> closed{0};

    std::size_t startedCount() {
        std::lock_guard lock(mutex);
        return started.size();
    }
    void finishNext() {
        std::function<void(std::string)> done;
        int value;
        {
            std::lock_guard lock(mutex);
            done = pending.front();
            pending.erase(pending.begin());
            value = started[started.size() - pending.size() - 1];
        }
        done("done " + std::to_string(value));
    }
    std::size_t resultCount() {
        std::lock_guard lock(mutex);
        return results.size();
    }
};

AnyCancellable gate(const std::shared_ptr<PassthroughSubject<int>>& subject, bool latest,
                    HeldWork& w) {
    return gatedPublisher<std::string>(
               subject, latest, [&w] { ++w.closed; },
               [&w](const int& v, std::function<void(std::string)> done) {
                   std::lock_guard lock(w.mutex);
                   w.started.push_back(v);
                   w.pending.push_back(std::move(done));
               })
        ->sink([&w](const std::string& r) {
            std::lock_guard lock(w.mutex);
            w.results.push_back(r);
        });
}

TEST(GatedPublisher, LatestRunsOnceMoreOnTheNewestRefusedValue) {
    auto subject = PassthroughSubject<int>::make();
    HeldWork w;
    auto c = gate(subject, true, w);
    subject->send(0);
    ASSERT_TRUE(eventually([&] { return w.startedCount() == 1; }));
    subject->send(1);
    subject->send(2);
    subject->send(3);
    EXPECT_EQ(w.closed.load(), 3);
    w.finishNext();
    ASSERT_TRUE(eventually([&] { return w.startedCount() == 2; }));
    w.finishNext();
    ASSERT_TRUE(eventually([&] { return w.resultCount() == 2; }));
    std::lock_guard lock(w.mutex);
    EXPECT_EQ(w.started, (std::vector<int>{0, 3}));
    EXPECT_EQ(w.results, (std::vector<std::string>{"done 0", "done 3"}));
    EXPECT_EQ(w.closed.load(), 3);
}

TEST(GatedPublisher, WithoutLatestRefusedValuesAreLost) {
    auto subject = PassthroughSubject<int>::make();
    HeldWork w;
    auto c = gate(subject, false, w);
    subject->send(0);
    ASSERT_TRUE(eventually([&] { return w.startedCount() == 1; }));
    subject->send(1);
    subject->send(2);
    subject->send(3);
    w.finishNext();
    ASSERT_TRUE(eventually([&] { return w.resultCount() == 1; }));
    // The gate is open again: a new value runs.
    subject->send(4);
    ASSERT_TRUE(eventually([&] { return w.startedCount() == 2; }));
    std::lock_guard lock(w.mutex);
    EXPECT_EQ(w.started, (std::vector<int>{0, 4}));
    EXPECT_EQ(w.closed.load(), 3);
}

TEST(GatedPublisher, SynchronousWorkRunsOnTheGlobalQueueAndThrowingWorkReopensTheGate) {
    struct Shared {
        std::mutex m;
        std::vector<int> out;
        std::vector<std::string> labels;
    };
    // Owned by the work too: a run may still be on the global queue when the
    // test ends.
    auto s = std::make_shared<Shared>();
    auto subject = PassthroughSubject<int>::make();
    auto c = gatedPublisher(subject, false, [s](const int& v) {
                 {
                     std::lock_guard lock(s->m);
                     s->labels.push_back(DispatchQueue::currentLabel().value_or(""));
                 }
                 if (v < 0) throw std::runtime_error("negative");
                 return v + 100;
             })->sink([s](const int& v) {
        std::lock_guard lock(s->m);
        s->out.push_back(v);
    });
    subject->send(-1);
    ASSERT_TRUE(eventually([&] {
        std::lock_guard lock(s->m);
        return s->labels.size() == 1;
    }));
    // The throwing run produced nothing; the gate must open again.
    ASSERT_TRUE(eventually([&] {
        subject->send(5);
        std::lock_guard lock(s->m);
        return !s->out.empty();
    }));
    std::lock_guard lock(s->m);
    EXPECT_EQ(s->out.front(), 105);
    EXPECT_EQ(s->labels.front(), DispatchQueue::global().label());
}

}  // namespace
}  // namespace zdr
