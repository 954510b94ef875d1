#include "zdr/measurement/zdr_events_per_second.h"

#include <gtest/gtest.h>

#include <thread>

namespace zdr {
namespace {

TEST(EventsPerSecondTest, CountsTheEventsInTheWindowEndingNow) {
    auto clock = std::make_shared<ManualClock>();
    ZDREventsPerSecond rate(2, clock);
    EXPECT_EQ(rate.eventsPerSecond(), 0.0);
    for (int i = 0; i < 30; ++i) {  // 30 events a second for one second
        rate.addEvent();
        clock->advanceSeconds(1.0 / 30.0);
    }
    EXPECT_NEAR(rate.eventsPerSecond(), 15.0, 1e-9);  // 30 events over a 2 s window
    clock->advanceSeconds(1.55);  // window (0.55 s, 2.55 s]: the 13 events from 17/30 s on
    EXPECT_NEAR(rate.eventsPerSecond(), 6.5, 1e-9);
    clock->advanceSeconds(1.5);  // the window has moved past every event
    EXPECT_EQ(rate.eventsPerSecond(), 0.0);
}

TEST(EventsPerSecondTest, WindowBoundsAreOpenBehindAndClosedAhead) {
    ZDREventsPerSecond rate(1, std::make_shared<ManualClock>());
    rate.setEvents({9.0, 9.5, 10.0, 10.5});
    EXPECT_EQ(rate.eventsPerSecond(10.0), 2.0);  // 9.5 and 10.0; 9.0 is on the open edge
    EXPECT_EQ(rate.eventsPerSecond(9.75), 2.0);  // 9.0 and 9.5; 10.0 and later not yet
}

TEST(EventsPerSecondTest, RecordingForgetsWhatNoLaterWindowCanCount) {
    ZDREventsPerSecond rate(1, std::make_shared<ManualClock>());
    for (double t : {1.0, 1.2, 1.9, 2.1, 2.5}) rate.addEvent(t);
    EXPECT_EQ(rate.events(), (std::vector<double>{1.9, 2.1, 2.5}));
    // Out of order times are kept when still in the window.
    rate.addEvent(2.0);
    EXPECT_EQ(rate.events(), (std::vector<double>{1.9, 2.1, 2.5, 2.0}));
    EXPECT_EQ(rate.eventsPerSecond(2.5), 4.0);
}

TEST(EventsPerSecondTest, AWindowThatIsNotPositiveGivesNoRate) {
    ZDREventsPerSecond rate(0, std::make_shared<ManualClock>());
    rate.addEvent(1.0);
    rate.addEvent(1.0);
    EXPECT_EQ(rate.events().size(), 2u);
    EXPECT_EQ(rate.eventsPerSecond(1.0), 0.0);
    rate.setTimeWindow(-3);
    EXPECT_EQ(rate.eventsPerSecond(1.0), 0.0);
    rate.setTimeWindow(1);
    EXPECT_EQ(rate.timeWindow(), 1);
    EXPECT_EQ(rate.eventsPerSecond(1.0), 2.0);
}

TEST(EventsPerSecondTest, ThreadsMayRecordAndReadTogether) {
    auto clock = std::make_shared<ManualClock>();
    ZDREventsPerSecond rate(1000, clock);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                rate.addEvent();
                (void)rate.eventsPerSecond();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(rate.events().size(), 1500u);
    EXPECT_EQ(rate.eventsPerSecond(), 1.5);
}

}  // namespace
}  // namespace zdr
