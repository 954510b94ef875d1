#include "zdr/timing/clock_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/testing/eventually.h"

namespace zdr {
namespace {

class FixedClock final : public MediaClock {
 public:
    CMTime time() const override { return CMTime::make(42, 1); }
};

class ClockStateTest : public ::testing::Test {
 protected:
    void SetUp() override {
        ASSERT_TRUE(DispatchQueue::isMainThread());
        state_ = ClockState::make();
    }
    void TearDown() override { DispatchQueue::main().drain(); }

    static void post(const std::string& name, ClockNotification message) {
        NotificationCenter::defaultCenter()->post(
            name, ClockNotification::makeObject(std::move(message)));
    }
    void created(const UUID& id, std::optional<NamedClock> clock) {
        post(ClockState::clockCreatedNotification(), {id, std::move(clock)});
    }
    void destroyed(const UUID& id) { post(ClockState::clockDestroyedNotification(), {id, {}}); }
    static void drain() { DispatchQueue::main().drain(); }

    std::vector<std::string> names() const {
        std::vector<std::string> out;
        const auto clocks = state_->clocks();
        for (const auto& [id, clock] : *clocks) out.push_back(clock.name);
        std::sort(out.begin(), out.end());
        return out;
    }

    std::shared_ptr<ClockState> state_;
};

TEST_F(ClockStateTest, StartsWithTheHostClockOnly) {
    const auto clocks = state_->clocks();
    ASSERT_TRUE(clocks.has_value());
    ASSERT_EQ(clocks->size(), 1u);
    const NamedClock& host = clocks->begin()->second;
    EXPECT_EQ(host.name, "Host Clock");
    EXPECT_EQ(host.clock, hostTimeClock());
    EXPECT_EQ(ClockState::clockCreatedNotification(), "ClockCreated");
    EXPECT_EQ(ClockState::clockDestroyedNotification(), "ClockDestroyed");
    // Two registries are independent, each with a host clock under its own id.
    auto other = ClockState::make();
    EXPECT_NE(other->clocks()->begin()->first, clocks->begin()->first);
}

TEST_F(ClockStateTest, UpdatesArriveOnTheMainQueue) {
    const UUID cam = UUID::random();
    created(cam, NamedClock("Camera", std::make_shared<FixedClock>()));
    EXPECT_EQ(state_->clocks()->size(), 1u);  // not before the main queue runs
    drain();
    EXPECT_EQ(names(), (std::vector<std::string>{"Camera", "Host Clock"}));

    // The same source again replaces its entry.
    created(cam, NamedClock("Camera 2", nullptr));
    drain();
    EXPECT_EQ(names(), (std::vector<std::string>{"Camera 2", "Host Clock"}));

    // A created notice without a clock removes the entry.
    created(cam, std::nullopt);
    drain();
    EXPECT_EQ(names(), (std::vector<std::string>{"Host Clock"}));
}

TEST_F(ClockStateTest, DestroyedRemovesAndUnknownSourcesChangeNothing) {
    const UUID a = UUID::random();
    const UUID b = UUID::random();
    created(a, NamedClock("A", nullptr));
    created(b, NamedClock("B", nullptr));
    drain();
    int changes = 0;
    auto watch = state_->observe("clocks", [&](const KeyChange&) { ++changes; });
    destroyed(UUID::random());
    drain();
    EXPECT_EQ(names(), (std::vector<std::string>{"A", "B", "Host Clock"}));
    EXPECT_EQ(changes, 0);
    destroyed(a);
    drain();
    EXPECT_EQ(names(), (std::vector<std::string>{"B", "Host Clock"}));
    EXPECT_EQ(changes, 1);
}

TEST_F(ClockStateTest, ObjectsOfOtherTypesAreIgnored) {
    NotificationCenter::defaultCenter()->post(ClockState::clockCreatedNotification(),
                                              std::make_shared<std::string>("not a clock"));
    NotificationCenter::defaultCenter()->post(ClockState::clockCreatedNotification());
    NotificationCenter::defaultCenter()->post(ClockState::clockDestroyedNotification(),
                                              std::make_shared<int>(7));
    drain();
    EXPECT_EQ(names(), (std::vector<std::string>{"Host Clock"}));
}

TEST_F(ClockStateTest, PublisherAnnouncesBeforeTheValueChanges) {
    std::vector<std::size_t> published;
    std::vector<std::size_t> storedAtWillChange;
    auto sub = state_->clocksPublisher()->sink(
        [&](const std::optional<ClockState::Clocks>& c) { published.push_back(c->size()); });
    auto watch = state_->observe(
        "clocks",
        [&](const KeyChange& change) {
            if (change.phase == KeyChangePhase::willChange)
                storedAtWillChange.push_back(state_->clocks()->size());
        },
        KeyObservationOptions{.prior = true});
    created(UUID::random(), NamedClock("A", nullptr));
    drain();
    EXPECT_EQ(published, (std::vector<std::size_t>{1, 2}));
    EXPECT_EQ(storedAtWillChange, (std::vector<std::size_t>{1}));
}

TEST_F(ClockStateTest, AllClocksOtherThan) {
    auto clock = std::make_shared<FixedClock>();
    created(UUID::random(), NamedClock("A", clock));
    created(UUID::random(), NamedClock("B", nullptr));
    drain();
    const NamedClock host("Host Clock", hostTimeClock());
    auto others = state_->allClocksOtherThan(host);
    ASSERT_EQ(others.size(), 2u);
    EXPECT_TRUE(std::none_of(others.begin(), others.end(),
                             [](const NamedClock& c) { return c.name == "Host Clock"; }));
    // Same name, other clock object: nothing matches, so every entry is listed.
    EXPECT_EQ(state_->allClocksOtherThan(NamedClock("A", std::make_shared<FixedClock>())).size(),
              3u);
    EXPECT_EQ(state_->allClocksOtherThan(NamedClock("A", clock)).size(), 2u);
}

TEST_F(ClockStateTest, FindClockWithNameFromTheMainThread) {
    created(UUID::random(), NamedClock("Camera", nullptr));
    drain();
    auto found = state_->findClockWithName("Camera");
    ASSERT_EQ(found.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    auto clock = found.get();
    ASSERT_TRUE(clock.has_value());
    EXPECT_EQ(clock->name, "Camera");
    auto missing = state_->findClockWithName("camera");  // exact, case-sensitive
    ASSERT_EQ(missing.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_FALSE(missing.get().has_value());
}

TEST_F(ClockStateTest, FindClockWithNameFromAnotherThreadReadsOnTheMainQueue) {
    std::future<std::optional<NamedClock>> found;
    std::thread asker([&] { found = state_->findClockWithName("Host Clock"); });
    asker.join();
    // Nothing can be answered until the main queue runs the read.
    EXPECT_EQ(found.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    ASSERT_TRUE(zdr::testing::eventually(
        [&] { return found.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready; },
        std::chrono::seconds(10), [] { DispatchQueue::main().drain(); }));
    auto clock = found.get();
    ASSERT_TRUE(clock.has_value());
    EXPECT_EQ(clock->clock, hostTimeClock());
}

TEST_F(ClockStateTest, RegistryListensToTheNamesCurrentWhenMade) {
    ClockState::setClockCreatedNotification("TestClockCreated");
    ClockState::setClockDestroyedNotification("TestClockDestroyed");
    auto renamed = ClockState::make();
    const UUID id = UUID::random();
    post("TestClockCreated", {id, NamedClock("Renamed", nullptr)});
    drain();
    ClockState::setClockCreatedNotification("ClockCreated");
    ClockState::setClockDestroyedNotification("ClockDestroyed");
    EXPECT_EQ(renamed->clocks()->size(), 2u);
    EXPECT_EQ(state_->clocks()->size(), 1u);  // made under the old names
    post("ClockDestroyed", {id, {}});
    drain();
    EXPECT_EQ(renamed->clocks()->size(), 2u);
    post("TestClockDestroyed", {id, {}});
    drain();
    EXPECT_EQ(renamed->clocks()->size(), 1u);
}

TEST_F(ClockStateTest, ARegistryGoneBeforeDeliveryIsNotTouched) {
    created(UUID::random(), NamedClock("Late", nullptr));
    std::weak_ptr<ClockState> weak = state_;
    state_.reset();
    EXPECT_TRUE(weak.expired());
    drain();  // must neither crash nor revive it
    EXPECT_TRUE(weak.expired());
    state_ = ClockState::make();
}

TEST(GlobalClockStateTest, IsOneSharedRegistry) {
    EXPECT_EQ(ClockState::globalClockState(), ClockState::globalClockState());
    EXPECT_GE(ClockState::globalClockState()->clocks()->size(), 1u);
}

}  // namespace
}  // namespace zdr
