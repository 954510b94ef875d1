#include "zdr/measurement/instance_counter.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <unordered_set>

namespace zdr {
namespace {

class Widget : public CountableInstance {
 public:
    UUID id() const override { return id_; }
    const UUID id_ = UUID::random();
};

class Gadget final : public Widget, public CountableContext {
 public:
    explicit Gadget(std::string context) : context_(std::move(context)) {}
    std::string countableContext() const override { return context_; }

 private:
    std::string context_;
};

// Registers itself for its whole life, as an application object would.
class Tracked final : public CountableInstance {
 public:
    explicit Tracked(std::shared_ptr<InstanceCounter> counter) : counter_(std::move(counter)) {
        counter_->instanceInit(*this);
    }
    ~Tracked() override { counter_->safeDeinit(id_); }
    UUID id() const override { return id_; }

 private:
    const UUID id_ = UUID::random();
    std::shared_ptr<InstanceCounter> counter_;
};

const std::string kWidget = "zdr::(anonymous namespace)::Widget";
const std::string kGadget = "zdr::(anonymous namespace)::Gadget";

TEST(CountedInstanceTest, DisplayNameIsTheDynamicTypeWithItsContext) {
    Widget widget;
    Gadget gadget("Built-in Output");
    const CountableInstance& asBase = gadget;
    EXPECT_EQ(CountedInstance::displayName(widget), kWidget);
    EXPECT_EQ(CountedInstance::displayName(asBase), kGadget + " (Built-in Output)");
    EXPECT_EQ(CountedInstance(gadget, 1.5).name, kGadget + " (Built-in Output)");
    EXPECT_EQ(CountedInstance(gadget, 1.5).id, gadget.id());
}

TEST(CountedInstanceTest, EqualityAndHashCoverIdNameAndAge) {
    const UUID id = UUID::random();
    CountedInstance a(id, "A", 1.0);
    EXPECT_EQ(a, CountedInstance(id, "A", 1.0));
    EXPECT_FALSE(a == CountedInstance(id, "A", 2.0));
    EXPECT_FALSE(a == CountedInstance(id, "B", 1.0));
    EXPECT_FALSE(a == CountedInstance(UUID::random(), "A", 1.0));
    std::unordered_set<CountedInstance> set{a, CountedInstance(id, "A", 1.0),
                                            CountedInstance(id, "A", 2.0)};
    EXPECT_EQ(set.size(), 2u);
}

class InstanceCounterTest : public ::testing::Test {
 protected:
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>(
        std::chrono::system_clock::time_point(std::chrono::seconds(1700000000)));
    std::shared_ptr<InstanceCounter> counter_ = InstanceCounter::make(clock_);

    void registerNow(const CountableInstance& object) {
        std::promise<void> done;
        counter_->instanceInit(object, [&] { done.set_value(); });
        done.get_future().wait();
    }
};

TEST_F(InstanceCounterTest, AgesCountFromTheFirstRegistration) {
    Widget a, b;
    clock_->advanceSeconds(100);  // time before the first registration does not count
    registerNow(a);
    clock_->advanceSeconds(2.5);
    registerNow(b);
    auto list = counter_->instances();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].id, a.id());
    EXPECT_DOUBLE_EQ(list[0].age, 0.0);
    EXPECT_EQ(list[1].id, b.id());
    EXPECT_DOUBLE_EQ(list[1].age, 2.5);
}

TEST_F(InstanceCounterTest, SortedByAgeThenName) {
    Gadget zed("z"), alpha("a");
    Widget older;
    registerNow(older);
    clock_->advanceSeconds(1);
    registerNow(zed);
    registerNow(alpha);  // same instant as zed
    auto sorted = counter_->sortedInstances();
    ASSERT_EQ(sorted.size(), 3u);
    EXPECT_EQ(sorted[0].name, kWidget);
    EXPECT_EQ(sorted[1].name, kGadget + " (a)");
    EXPECT_EQ(sorted[2].name, kGadget + " (z)");
    // Registration order is kept in the plain list.
    EXPECT_EQ(counter_->instances()[1].name, kGadget + " (z)");
}

TEST_F(InstanceCounterTest, SortIsStableForEqualAgeAndName) {
    Widget first, second;
    registerNow(first);
    registerNow(second);
    auto sorted = counter_->sortedInstances();
    ASSERT_EQ(sorted.size(), 2u);
    EXPECT_EQ(sorted[0].id, first.id());
    EXPECT_EQ(sorted[1].id, second.id());
}

TEST_F(InstanceCounterTest, TwiceRegisteredIsListedTwiceAndRemovedTogether) {
    Widget w, other;
    registerNow(w);
    registerNow(w);
    registerNow(other);
    EXPECT_EQ(counter_->instances().size(), 3u);
    counter_->safeDeinit(w);
    auto list = counter_->instances();  // waits for the removal queued before it
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].id, other.id());
}

TEST_F(InstanceCounterTest, UnknownIdChangesNothing) {
    Widget w;
    registerNow(w);
    const auto before = counter_->instances();
    counter_->safeDeinit(UUID::random());
    EXPECT_EQ(counter_->instances(), before);
}

TEST_F(InstanceCounterTest, ObjectsUnregisterFromTheirDestructors) {
    {
        Tracked a(counter_);
        Tracked b(counter_);
        EXPECT_EQ(counter_->instances().size(), 2u);
    }
    EXPECT_TRUE(counter_->instances().empty());
}

TEST_F(InstanceCounterTest, AsynchronousReadsRunOnTheActor) {
    Widget w;
    counter_->instanceInit(w);
    std::promise<std::pair<std::size_t, std::optional<std::string>>> seen;
    counter_->sortedInstances([&](std::vector<CountedInstance> list) {
        seen.set_value({list.size(), DispatchQueue::currentLabel()});
    });
    auto result = seen.get_future().get();
    EXPECT_EQ(result.first, 1u);
    EXPECT_EQ(result.second, counter_->queue().label());
}

TEST_F(InstanceCounterTest, ManyThreadsRegisterAndUnregister) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                Tracked tracked(counter_);
            }
        });
    }
    Tracked survivor(counter_);
    for (auto& t : threads) t.join();
    auto list = counter_->instances();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].id, survivor.id());
}

TEST(SharedInstanceCounterTest, IsOneProcessWideCounter) {
    EXPECT_EQ(InstanceCounter::shared(), InstanceCounter::shared());
    Widget w;
    InstanceCounter::shared()->instanceInit(w);
    auto list = InstanceCounter::shared()->instances();
    EXPECT_EQ(std::count_if(list.begin(), list.end(),
                            [&](const CountedInstance& c) { return c.id == w.id(); }),
              1);
    InstanceCounter::shared()->safeDeinit(w);
    list = InstanceCounter::shared()->instances();
    EXPECT_EQ(std::count_if(list.begin(), list.end(),
                            [&](const CountedInstance& c) { return c.id == w.id(); }),
              0);
}

}  // namespace
}  // namespace zdr
