#include "zdr/timing/signposts.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

namespace zdr {
namespace {

bool tracerAttached() {
    return SCKitAudio_event_semaphore != 0 || SCKitAudio_interval_begin_semaphore != 0 ||
           SCKitAudio_interval_end_semaphore != 0;
}

class SignpostTest : public ::testing::Test {
 protected:
    void SetUp() override { ZDR_OSSignposting::installRecorder(buffer_); }
    void TearDown() override { ZDR_OSSignposting::installRecorder(nullptr); }

    std::shared_ptr<SignpostRecordingBuffer> buffer_ = std::make_shared<SignpostRecordingBuffer>();
};

TEST_F(SignpostTest, EventsCarryTheirNameAndAFreshIdentifier) {
    ZDR_OSSignposting::emitEvent("frame dropped");
    ZDR_OSSignposting::emitEvent("frame dropped");
    auto markers = buffer_->markers();
    ASSERT_EQ(markers.size(), 2u);
    EXPECT_EQ(markers[0].kind, SignpostMarkerKind::event);
    EXPECT_STREQ(markers[0].name, "frame dropped");
    EXPECT_STREQ(markers[0].message, "");
    EXPECT_NE(markers[0].id, 0u);
    EXPECT_NE(markers[0].id, markers[1].id);
}

TEST_F(SignpostTest, IntervalBeginAndEndShareTheIdentifier) {
    const ZDR_SignpostID id = ZDR_OSSignposting::makeIdentifier();
    EXPECT_NE(id.id, 0u);
    EXPECT_NE(ZDR_OSSignposting::makeIdentifier().id, id.id);
    auto interval = id.beginInterval("encode");
    EXPECT_TRUE(interval.isOpen());
    EXPECT_EQ(interval.id(), id.id);
    interval.endInterval();
    EXPECT_FALSE(interval.isOpen());
    auto markers = buffer_->markers();
    ASSERT_EQ(markers.size(), 2u);
    EXPECT_EQ(markers[0].kind, SignpostMarkerKind::intervalBegin);
    EXPECT_EQ(markers[1].kind, SignpostMarkerKind::intervalEnd);
    EXPECT_STREQ(markers[1].name, "encode");
    EXPECT_EQ(markers[0].id, id.id);
    EXPECT_EQ(markers[1].id, id.id);
    EXPECT_STREQ(markers[1].message, "");
}

TEST_F(SignpostTest, EndingTwiceMarksTheSecondEndAsAnError) {
    auto interval = ZDR_OSSignposting::makeIdentifier().beginInterval("twice");
    auto copy = interval;  // copies share the interval's state
    interval.endInterval();
    copy.endInterval();
    interval.endInterval();
    auto markers = buffer_->markers();
    ASSERT_EQ(markers.size(), 4u);
    EXPECT_STREQ(markers[1].message, "");
    EXPECT_STREQ(markers[2].message, "[Error] Interval already ended");
    EXPECT_STREQ(markers[3].message, "[Error] Interval already ended");
    EXPECT_EQ(markers[2].id, markers[0].id);
}

TEST_F(SignpostTest, WithIntervalSignpostBracketsTheWorkAndPassesItsResult) {
    const auto id = ZDR_OSSignposting::makeIdentifier();
    std::size_t seenInside = 0;
    const int result = id.withIntervalSignpost("work", [&] {
        seenInside = buffer_->markers().size();
        return 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(seenInside, 1u);
    ASSERT_EQ(buffer_->markers().size(), 2u);
    EXPECT_EQ(buffer_->markers()[1].kind, SignpostMarkerKind::intervalEnd);

    // Work that throws still ends its interval.
    buffer_->clear();
    EXPECT_THROW(id.withIntervalSignpost("throws", []() -> int { throw std::runtime_error("x"); }),
                 std::runtime_error);
    ASSERT_EQ(buffer_->markers().size(), 2u);
    EXPECT_STREQ(buffer_->markers()[1].name, "throws");
}

TEST_F(SignpostTest, MarkersFromManyThreadsAllArrive) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                ZDR_OSSignposting::makeIdentifier().withIntervalSignpost("t", [] {});
                ZDR_OSSignposting::emitEvent("e");
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(buffer_->markers().size(), 4u * 200u * 3u);
}

TEST(SignpostDisabledTest, WithoutListenersNothingIsEmittedAndNothingFails) {
    if (tracerAttached()) GTEST_SKIP() << "a tracer is attached to this process";
    ZDR_OSSignposting::installRecorder(nullptr);
    ZDR_OSSignposting::emitEvent("quiet");
    auto interval = ZDR_OSSignposting::makeIdentifier().beginInterval("quiet");
    EXPECT_FALSE(interval.isOpen());
    EXPECT_EQ(interval.id(), 0u);

    // Listening starts between begin and end: the end of an interval whose
    // begin nobody saw is not emitted.
    auto buffer = std::make_shared<SignpostRecordingBuffer>();
    ZDR_OSSignposting::installRecorder(buffer);
    interval.endInterval();
    interval.endInterval();
    ZDR_SignpostInterval_Mock mock;
    mock.endInterval();
    EXPECT_TRUE(buffer->markers().empty());
    EXPECT_EQ(ZDR_OSSignposting::installRecorder(nullptr), buffer);
}

// A tracer raises a probe's semaphore; the marker is then emitted even with no
// recorder installed, which shows in the identifiers it takes.
TEST(SignpostDisabledTest, ARaisedSemaphoreEnablesItsProbe) {
    if (tracerAttached()) GTEST_SKIP() << "a tracer is attached to this process";
    ZDR_OSSignposting::installRecorder(nullptr);
    const auto quiet0 = ZDR_OSSignposting::makeIdentifier().id;
    ZDR_OSSignposting::emitEvent("quiet");
    const auto quiet1 = ZDR_OSSignposting::makeIdentifier().id;
    EXPECT_EQ(quiet1, quiet0 + 1);

    SCKitAudio_event_semaphore = 1;
    ZDR_OSSignposting::emitEvent("traced");
    SCKitAudio_event_semaphore = 0;
    EXPECT_EQ(ZDR_OSSignposting::makeIdentifier().id, quiet1 + 2);

    SCKitAudio_interval_begin_semaphore = 1;
    auto interval = ZDR_OSSignposting::makeIdentifier().beginInterval("traced");
    SCKitAudio_interval_begin_semaphore = 0;
    EXPECT_TRUE(interval.isOpen());
    SCKitAudio_interval_end_semaphore = 1;
    interval.endInterval();
    SCKitAudio_interval_end_semaphore = 0;
    EXPECT_FALSE(interval.isOpen());
}

TEST(SignpostConstantsTest, Subsystem) {
    EXPECT_STREQ(ZDR_OSSignposting_Constants::signPoster().subsystem, "SCKitAudio");
    EXPECT_STREQ(ZDR_OSSignposting_Constants::signPoster().category, "PointsOfInterest");
}

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return out;
    char buffer[4096];
    std::size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    pclose(pipe);
    return out;
}

// The probes tracers attach to are in the library and in what links it, each
// with a semaphore (placed at a real address once linked).
TEST(SignpostProbeTest, ReadelfListsTheProbes) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    for (const std::string& file : {std::string(ZDR_TIMING_LIBRARY_FILE), self}) {
        SCOPED_TRACE(file);
        const std::string notes = run("readelf -n '" + file + "' 2>&1");
        ASSERT_NE(notes.find("stapsdt"), std::string::npos) << notes.substr(0, 2000);
        for (const char* probe : {"Name: event", "Name: interval_begin", "Name: interval_end"}) {
            EXPECT_NE(notes.find(probe), std::string::npos) << probe;
        }
        EXPECT_NE(notes.find("Provider: SCKitAudio"), std::string::npos);
        if (file != self) continue;
        // In the linked program every SCKitAudio probe names a semaphore address.
        std::size_t at = 0;
        int probes = 0;
        while ((at = notes.find("Provider: SCKitAudio", at)) != std::string::npos) {
            const std::size_t sem = notes.find("Semaphore: 0x", at);
            ASSERT_NE(sem, std::string::npos);
            const unsigned long long address = std::stoull(notes.substr(sem + 13, 16), nullptr, 16);
            EXPECT_NE(address, 0u);
            ++probes;
            ++at;
        }
        EXPECT_GE(probes, 3);
    }
}

}  // namespace
}  // namespace zdr
