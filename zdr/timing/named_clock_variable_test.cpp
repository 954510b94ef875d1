#include "zdr/timing/named_clock_variable.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/timing/clock_state.h"

namespace zdr {
namespace {

class FixedClock final : public MediaClock {
 public:
    CMTime time() const override { return CMTime::make(1, 1); }
};

// A frame source that keeps its clock and logs every step it is asked to make.
class Source : public IdentifiableNamedClockVariable {
 public:
    UUID id() const override { return id_; }
    std::optional<NamedClock> clock() const override {
        std::lock_guard lock(mutex_);
        return clock_;
    }
    void setClock(std::optional<NamedClock> clock) override {
        std::lock_guard lock(mutex_);
        log_.push_back("set " + (clock ? clock->name : std::string("none")));
        clock_ = std::move(clock);
    }
    void note(std::string line) {
        std::lock_guard lock(mutex_);
        log_.push_back(std::move(line));
    }
    std::vector<std::string> log() const {
        std::lock_guard lock(mutex_);
        return log_;
    }
    std::string stored() const {
        auto c = clock();
        return c ? c->name : "none";
    }

    const UUID id_ = UUID::random();

 private:
    mutable std::mutex mutex_;
    std::optional<NamedClock> clock_;
    std::vector<std::string> log_;
};

class NamedClockVariableTest : public ::testing::Test {
 protected:
    void SetUp() override {
        source_ = std::make_shared<Source>();
        auto center = NotificationCenter::defaultCenter();
        // Synchronous observers: they run on the posting thread, at the moment
        // of posting, so they see what the source stores right then.
        for (const char* kind : {"created", "destroyed"}) {
            const std::string name = std::string(kind) == "created"
                                         ? ClockState::clockCreatedNotification()
                                         : ClockState::clockDestroyedNotification();
            tokens_.push_back(center->addObserver(
                name, nullptr, std::nullopt, [this, kind](const Notification& n) {
                    const ClockNotification* m = ClockNotification::from(n);
                    if (!m || !(m->frameSourceID == source_->id_)) return;
                    source_->note(std::string(kind) + " " + (m->clock ? m->clock->name : "none") +
                                  " while storing " + source_->stored());
                }));
        }
    }
    void TearDown() override { DispatchQueue::main().drain(); }

    void set(std::optional<NamedClock> value) {
        auto done = source_->setNamedClockAndNotify(std::move(value));
        ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }

    std::shared_ptr<Source> source_;
    std::vector<std::shared_ptr<NotificationObserverToken>> tokens_;
    std::shared_ptr<MediaClock> clockA_ = std::make_shared<FixedClock>();
    std::shared_ptr<MediaClock> clockB_ = std::make_shared<FixedClock>();
};

TEST_F(NamedClockVariableTest, AbsentToAValuePostsCreatedBeforeStoring) {
    set(NamedClock("A", clockA_));
    EXPECT_EQ(source_->log(), (std::vector<std::string>{"created A while storing none", "set A"}));
}

TEST_F(NamedClockVariableTest, ValueToAnotherPostsDestroyedThenCreated) {
    set(NamedClock("A", clockA_));
    set(NamedClock("B", clockB_));
    EXPECT_EQ(source_->log(), (std::vector<std::string>{"created A while storing none", "set A",
                                                        "destroyed A while storing A",
                                                        "created B while storing A", "set B"}));
}

TEST_F(NamedClockVariableTest, ValueToAbsentPostsOneDestroyed) {
    set(NamedClock("A", clockA_));
    set(std::nullopt);
    EXPECT_EQ(source_->log(),
              (std::vector<std::string>{"created A while storing none", "set A",
                                        "destroyed A while storing A", "set none"}));
}

TEST_F(NamedClockVariableTest, UnchangedValuesPostNothing) {
    set(std::nullopt);
    EXPECT_TRUE(source_->log().empty());
    set(NamedClock("A", clockA_));
    set(NamedClock("A", clockA_));  // equal: same name, same clock object
    EXPECT_EQ(source_->log(), (std::vector<std::string>{"created A while storing none", "set A"}));
    // Same name but another clock object is a change.
    set(NamedClock("A", clockB_));
    EXPECT_EQ(source_->log().size(), 5u);
}

TEST_F(NamedClockVariableTest, TheRegistryFollowsOnceTheMainQueueRuns) {
    auto registry = ClockState::make();
    set(NamedClock("Camera", clockA_));
    DispatchQueue::main().drain();
    const auto clocks = registry->clocks();
    ASSERT_EQ(clocks->count(source_->id_), 1u);
    EXPECT_EQ(clocks->at(source_->id_).name, "Camera");
    set(std::nullopt);
    DispatchQueue::main().drain();
    EXPECT_EQ(registry->clocks()->count(source_->id_), 0u);
}

// Overridden helpers are reached and may finish later, on another thread; the
// variable is stored only after the created notice has completed.
class SlowSource final : public Source {
 public:
    void namedClockCreated(const UUID& id, const NamedClock& clock,
                           std::function<void()> completion) override {
        note("slow created " + clock.name);
        std::thread([this, id, clock, completion = std::move(completion)] {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            note("slow created done, storing " + stored());
            NamedClockHelpers::namedClockCreated(id, clock, completion);
        }).detach();
    }
};

TEST(NamedClockVariableOverrideTest, WaitsForAnAsynchronousHelper) {
    auto source = std::make_shared<SlowSource>();
    auto done = source->setNamedClockAndNotify(source->id(), NamedClock("S", nullptr));
    ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(source->log(), (std::vector<std::string>{
                                 "slow created S", "slow created done, storing none", "set S"}));
}

TEST(NamedClockVariableOverrideTest, CompletionRunsOnTheActor) {
    auto source = std::make_shared<Source>();
    std::promise<std::optional<std::string>> label;
    source->setNamedClockAndNotify(NamedClock("Q", nullptr),
                                   [&] { label.set_value(DispatchQueue::currentLabel()); });
    auto f = label.get_future();
    ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(f.get(), NamedClockActor::shared().label());
    DispatchQueue::main().drain();
}

}  // namespace
}  // namespace zdr
