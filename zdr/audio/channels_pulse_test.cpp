// Volume, mute and the default device against a private PulseAudio server.
#include <gtest/gtest.h>

#include "zdr/testing/eventually.h"

#include <chrono>
#include <thread>

#include "zdr/audio/backends/pulse/pulse_audio_hardware.h"
#include "zdr/audio/channel_test_support.h"
#include "zdr/audio/default_devices.h"
#include "zdr/audio/device_channels.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"
#include "zdr/testing/pulse_server_fixture.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;
using namespace hal;
using zdr::testing::TestChannelOwner;

class ChannelsOnPulse : public zdr::testing::AudioServerTest {
 protected:
    void SetUp() override {
        AudioServerTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        PulseAudioHardware::Options options;
        options.server = server_->serverString();
        hw_ = PulseAudioHardware::create(options);
        ASSERT_TRUE(hw_) << "no connection to the private server";
    }
    void TearDown() override {
        hw_.reset();
        AudioServerTest::TearDown();
    }
    // The server reports a change a moment after it answered the request.
    template <class Pred>
    static bool eventually(Pred pred) {
        return zdr::testing::eventually(pred);
    }
    std::string pactl(std::vector<std::string> args) {
        std::string out;
        EXPECT_TRUE(server_->pactl(args, &out));
        return out;
    }

    std::shared_ptr<PulseAudioHardware> hw_;
    DeviceChannels channels_;
};

ZDR_INSTANTIATE_ON_BOTH_AUDIO_SERVERS(ChannelsOnPulse);

TEST_P(ChannelsOnPulse, OutputVolumeAndMuteReachTheServer) {
    auto sink = std::make_shared<TestChannelOwner>(hw_, "zdr_fixture_out");
    ASSERT_TRUE(sink->hasMasterOutputVolume());
    channels_.setOutputVolume(sink, 0.5f);
    EXPECT_NE(pactl({"get-sink-volume", "zdr_fixture_out"}).find("50%"), std::string::npos);
    EXPECT_TRUE(eventually([&] { return std::abs(channels_.outputVolume(sink) - 0.5f) < 0.01f; }));

    ASSERT_TRUE(sink->hasMasterOutputMute());
    channels_.setMuted(sink, true);
    EXPECT_NE(pactl({"get-sink-mute", "zdr_fixture_out"}).find("yes"), std::string::npos);
    EXPECT_TRUE(eventually([&] { return channels_.muted(sink); }));
    channels_.unmuteDevice(sink);
    EXPECT_NE(pactl({"get-sink-mute", "zdr_fixture_out"}).find("no"), std::string::npos);

    // One channel's volume: the other keeps its own.
    auto playback = channels_.playbackChannels(sink);
    ASSERT_EQ(playback.size(), 2u);
    playback[1]->setOutputVolume(0.25f);
    const std::string volume = pactl({"get-sink-volume", "zdr_fixture_out"});
    EXPECT_NE(volume.find("25%"), std::string::npos) << volume;
    EXPECT_NE(volume.find("50%"), std::string::npos) << volume;
}

TEST_P(ChannelsOnPulse, InputVolumeAndChangesFromOutside) {
    auto source = std::make_shared<TestChannelOwner>(hw_, "zdr_fixture_in");
    ASSERT_TRUE(source->hasMasterInputVolume());
    channels_.setInputVolume(source, 0.3f);
    EXPECT_NE(pactl({"get-source-volume", "zdr_fixture_in"}).find("30%"), std::string::npos);
    ASSERT_TRUE(server_->pactl({"set-source-volume", "zdr_fixture_in", "70%"}));
    EXPECT_TRUE(eventually([&] { return std::abs(channels_.inputVolume(source) - 0.7f) < 0.01f; }));
}

TEST_P(ChannelsOnPulse, MakeDefaultOutputAndInput) {
    ASSERT_TRUE(server_->loadNullSink("second", "Second"));
    AudioObjectID second = kAudioObjectUnknown;
    ASSERT_TRUE(eventually(
        [&] { return (second = hw_->translateUIDToDevice("second")) != kAudioObjectUnknown; }));
    makeDefaultAudioDevice(second, "Second", false, hw_);
    EXPECT_NE(pactl({"get-default-sink"}).find("second"), std::string::npos);
    CAHALAudioSystemObject system(hw_);
    EXPECT_TRUE(eventually([&] { return system.GetDefaultAudioDevice(false, false) == second; }));

    const AudioObjectID input = hw_->translateUIDToDevice("zdr_fixture_in");
    makeDefaultAudioDevice(input, "Fixture input", true, hw_);
    EXPECT_NE(pactl({"get-default-source"}).find("zdr_fixture_in"), std::string::npos);
}

}  // namespace
}  // namespace zdr
