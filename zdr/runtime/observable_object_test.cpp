#include "zdr/runtime/observable_object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace zdr {
namespace {

class Channel : public ObservableObject {
 public:
    void setLevel(double v) {
        changeValue("level", [&] { level_ = v; });
    }
    double level() const { return level_; }

 private:
    double level_ = 0;
};

std::string describe(const KeyChange& c) {
    return (c.phase == KeyChangePhase::willChange ? "will:" : "did:") + c.key;
}

TEST(ObservableObject, ObserversSeeTheirKeyAndPhasesInOrder) {
    Channel channel;
    std::vector<std::string> log;
    auto levelOnly =
        channel.observe("level", [&](const KeyChange& c) { log.push_back("A " + describe(c)); });
    auto prior = channel.observe(
        "level", [&](const KeyChange& c) { log.push_back("B " + describe(c)); }, {.prior = true});
    auto all = channel.observe("", [&](const KeyChange& c) { log.push_back("C " + describe(c)); });
    std::vector<std::string> published;
    auto c1 = channel.objectWillChange()->sink([&](const std::string& k) {
        published.push_back("will " + k + " " + std::to_string(channel.level()));
    });
    auto c2 = channel.objectDidChange()->sink([&](const std::string& k) {
        published.push_back("did " + k + " " + std::to_string(channel.level()));
    });

    channel.setLevel(0.5);
    channel.didChangeValue("volume");

    EXPECT_EQ(log, (std::vector<std::string>{"B will:level", "A did:level", "B did:level",
                                             "C did:level", "C did:volume"}));
    EXPECT_EQ(published, (std::vector<std::string>{"will level 0.000000", "did level 0.500000",
                                                   "did volume 0.500000"}));
}

TEST(ObservableObject, TokensUnregisterAndMayOutliveTheObject) {
    auto channel = std::make_unique<Channel>();
    int calls = 0;
    auto token = channel->observe("level", [&](const KeyChange&) { ++calls; });
    {
        auto shortLived = channel->observe("level", [&](const KeyChange&) { calls += 100; });
        EXPECT_EQ(channel->keyObserverCount(), 2u);
    }
    channel->setLevel(1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(channel->keyObserverCount(), 1u);
    token->invalidate();
    channel->setLevel(2);
    EXPECT_EQ(calls, 1);

    auto survivor = channel->observe("level", [&](const KeyChange&) { ++calls; });
    channel.reset();
    survivor.reset();  // the object is gone: nothing to do, nothing breaks

    Channel copy;
    auto onCopy = copy.observe("", [&](const KeyChange&) { ++calls; });
    Channel copied(copy);
    copied.setLevel(3);
    EXPECT_EQ(calls, 1) << "a copy starts without observers";
}

TEST(ObservableObject, QueuedObserversRunOnTheirQueueAndAreDroppedOnceRemoved) {
    Channel channel;
    DispatchQueue queue("test.kvo");
    std::vector<std::string> labels;  // written on the queue only
    auto token = channel.observe(
        "level",
        [&](const KeyChange&) { labels.push_back(DispatchQueue::currentLabel().value_or("")); },
        {.queue = queue});

    auto gate = std::make_shared<std::atomic<bool>>(false);
    queue.async([gate] {
        while (!gate->load()) std::this_thread::yield();
    });
    channel.setLevel(1);  // queued behind the gate
    token.reset();        // removed before the queued call starts: dropped
    gate->store(true);
    EXPECT_TRUE(queue.sync([&] { return labels.empty(); }));

    auto token2 = channel.observe(
        "level",
        [&](const KeyChange&) { labels.push_back(DispatchQueue::currentLabel().value_or("")); },
        {.queue = queue});
    channel.setLevel(2);
    EXPECT_EQ(queue.sync([&] { return labels; }), (std::vector<std::string>{"test.kvo"}));
}

TEST(ObservableObject, ObserversMayRemoveThemselvesWhileOthersAnnounceConcurrently) {
    Channel channel;
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    std::atomic<bool> stop{false};
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&] {
            while (!stop) channel.didChangeValue("level");  // announcing only: no shared write
        });
    for (int i = 0; i < 200; ++i) {
        std::shared_ptr<KeyObservation> token;
        token = channel.observe("level", [&](const KeyChange&) { ++calls; });
        token->invalidate();
    }
    stop = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(channel.keyObserverCount(), 0u);
}

class Clocks : public ObservableObject {
 public:
    Published<int> count{*this, "count", 0};
};

TEST(Published, AnnouncesPublishesBeforeStoringAndReplaysTheCurrentValue) {
    Clocks clocks;
    std::vector<std::string> log;
    auto token = clocks.observe("count", [&](const KeyChange& c) { log.push_back(describe(c)); },
                                {.prior = true});
    auto sub = clocks.count.publisher()->sink([&](const int& v) {
        log.push_back("value " + std::to_string(v) + " while stored " +
                      std::to_string(clocks.count.get()));
    });
    clocks.count.set(5);
    EXPECT_EQ(clocks.count.get(), 5);
    EXPECT_EQ(log, (std::vector<std::string>{"value 0 while stored 0", "will:count",
                                             "value 5 while stored 0", "did:count"}));
    std::vector<int> late;
    auto lateSub = clocks.count.publisher()->sink([&](const int& v) { late.push_back(v); });
    EXPECT_EQ(late, (std::vector<int>{5}));
}

}  // namespace
}  // namespace zdr
