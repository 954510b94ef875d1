#include "zdr/runtime/notification_center.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

namespace zdr {
namespace {

TEST(NotificationCenterTest, DeliversByNameAndSenderWithUserInfo) {
    auto center = NotificationCenter::make();
    auto sender = std::make_shared<int>(1);
    auto other = std::make_shared<int>(2);
    int byName = 0, bySender = 0, all = 0;
    std::string seenKey;
    auto t1 = center->addObserver("changed", nullptr, std::nullopt, [&](const Notification& n) {
        byName++;
        seenKey = dictionaryGet<std::string>(n.userInfo, "key").value_or("");
    });
    auto t2 = center->addObserver("changed", sender.get(), std::nullopt,
                                  [&](const Notification&) { bySender++; });
    auto t3 = center->addObserver("", nullptr, std::nullopt, [&](const Notification&) { all++; });
    center->post("changed", sender, {{"key", std::string("volume")}});
    center->post("changed", other);
    center->post("unrelated");
    EXPECT_EQ(byName, 2);
    EXPECT_EQ(bySender, 1);
    EXPECT_EQ(all, 3);
    EXPECT_EQ(seenKey, "");  // the second post had no user info
}

TEST(NotificationCenterTest, AThrowingObserverNeitherEscapesPostNorSkipsTheOthers) {
    auto center = NotificationCenter::make();
    int before = 0, after = 0;
    auto t1 =
        center->addObserver("n", nullptr, std::nullopt, [&](const Notification&) { before++; });
    auto t2 =
        center->addObserver("n", nullptr, std::nullopt, [](const Notification&) { throw 42; });
    auto t3 = center->addObserver("n", nullptr, std::nullopt, [](const Notification&) {
        throw std::runtime_error("observer");
    });
    auto t4 =
        center->addObserver("n", nullptr, std::nullopt, [&](const Notification&) { after++; });
    EXPECT_NO_THROW(center->post("n"));
    EXPECT_NO_THROW(center->post("n"));
    EXPECT_EQ(before, 2);
    EXPECT_EQ(after, 2);
}

TEST(NotificationCenterTest, SynchronousDeliveryOnThePostingThread) {
    auto center = NotificationCenter::make();
    std::thread::id deliveredOn;
    auto t = center->addObserver("n", nullptr, std::nullopt, [&](const Notification&) {
        deliveredOn = std::this_thread::get_id();
    });
    std::thread::id posterId;
    std::thread poster([&] {
        posterId = std::this_thread::get_id();
        center->post("n");
    });
    poster.join();
    EXPECT_EQ(deliveredOn, posterId);
}

TEST(NotificationCenterTest, QueuedDeliveryRunsOnTheObserversQueue) {
    auto center = NotificationCenter::make();
    DispatchQueue q("test.observer");
    std::promise<std::optional<std::string>> label;
    auto t = center->addObserver("n", nullptr, q, [&](const Notification&) {
        label.set_value(DispatchQueue::currentLabel());
    });
    center->post("n");
    EXPECT_EQ(label.get_future().get(), std::optional<std::string>("test.observer"));
}

TEST(NotificationCenterTest, DestroyingTheTokenUnregistersAndDropsQueuedDeliveries) {
    auto center = NotificationCenter::make();
    auto main = DispatchQueue::main();
    main.drain();
    int count = 0;
    auto token = center->addObserver("n", nullptr, main, [&](const Notification&) { count++; });
    EXPECT_EQ(center->observerCount(), 1u);
    center->post("n");  // queued on the main queue, not yet delivered
    token.reset();
    EXPECT_EQ(center->observerCount(), 0u);
    main.drain();
    EXPECT_EQ(count, 0);
    center->post("n");
    main.drain();
    EXPECT_EQ(count, 0);
}

TEST(NotificationCenterTest, ObserversMayPostAndRemoveDuringDelivery) {
    auto center = NotificationCenter::make();
    std::shared_ptr<NotificationObserverToken> self;
    int first = 0, second = 0;
    self = center->addObserver("first", nullptr, std::nullopt, [&](const Notification&) {
        first++;
        self->remove();
        center->post("second");
    });
    auto t2 = center->addObserver("second", nullptr, std::nullopt,
                                  [&](const Notification&) { second++; });
    center->post("first");
    center->post("first");
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

}  // namespace
}  // namespace zdr
