// The device's channels, volume and mute through AudioDevice, and the
// default-output proxy.
#include "zdr/audio/default_system_output_audio_device.h"

#include <gtest/gtest.h>

#include <cmath>

#include "zdr/audio/audio_device_test_support.h"
#include "zdr/audio/detail/channel_log.h"

namespace zdr {
namespace {

using namespace hal;
using DeviceChannelsTest = testing::AudioDeviceTest;

TEST_F(DeviceChannelsTest, ChannelCountsBuildTheListsAndTheMementoCoversThem) {
    auto headset = AudioDevice::deviceForCoreAudioUID(std::string(kHeadset));
    ASSERT_TRUE(headset);
    EXPECT_EQ(headset->recordingChannelCount(), 1u);
    EXPECT_EQ(headset->playbackChannelCount(), 2u);
    ASSERT_EQ(headset->recordChannels().size(), 1u);  // built by the count above
    ASSERT_EQ(headset->playbackChannels().size(), 2u);
    EXPECT_EQ(headset->recordChannels()[0]->device(), headset);

    headset->playbackChannels()[1]->setProxyOutputVolume(0.4f);
    Dictionary momento = headset->momentoDictionary();
    EXPECT_EQ(momento.size(), 3u);
    headset->playbackChannels()[1]->setProxyOutputVolume(1.0f);
    momento["rec-7"] = Dictionary{{"proxyVolume", 0.1f}};
    headset->setMomentoDictionary(momento);
    EXPECT_EQ(headset->playbackChannels()[1]->proxyOutputVolume(), 0.4f);

    EXPECT_FLOAT_EQ(headset->outputVolume(), 0.5f);
    headset->setOutputVolume(0.25f);
    EXPECT_FLOAT_EQ(headset->outputVolume(), 0.25f);
    headset->setMuted(true);
    EXPECT_TRUE(headset->muted());
    headset->unmuteDevice();
    EXPECT_FALSE(headset->muted());
    EXPECT_EQ(headset->channelForIndex(5), nullptr);
}

TEST_F(DeviceChannelsTest, ProxyIsRegisteredFromTheStartAndFollowsTheDefaultOutput) {
    auto proxy = AudioDevice::lookupDeviceSingletonByDeviceUID(
        DefaultSystemOutputAudioDevice::defaultSystemOutputAudioDeviceUniqueID());
    ASSERT_TRUE(proxy);
    EXPECT_TRUE(proxy->isProxyDefaultOutput());
    EXPECT_EQ(proxy->deviceName(), "Default Output");
    EXPECT_EQ(AudioDevice::proxiedDefaultSystemOutput(), proxy);
    auto typed = std::dynamic_pointer_cast<DefaultSystemOutputAudioDevice>(proxy);
    ASSERT_TRUE(typed);

    auto speakers = AudioDevice::deviceForCoreAudioUID(std::string(kSpeakers));
    ASSERT_TRUE(hw_->setDefaultDevice(false, false, kSpeakers));
    EXPECT_EQ(proxy->deviceID(), speakers->deviceID());
    EXPECT_FLOAT_EQ(typed->volume(), speakers->outputVolume());
    typed->setVolume(0.2f);
    EXPECT_FLOAT_EQ(speakers->outputVolume(), 0.2f);

    auto headset = AudioDevice::deviceForCoreAudioUID(std::string(kHeadset));
    ASSERT_TRUE(hw_->setDefaultDevice(false, false, kHeadset));
    EXPECT_EQ(proxy->deviceID(), headset->deviceID());
    EXPECT_EQ(proxy->playbackChannelCount(), 2u);
    EXPECT_EQ(proxy->deviceUID(),
              DefaultSystemOutputAudioDevice::defaultSystemOutputAudioDeviceUniqueID());
    EXPECT_EQ(AudioDevice::deviceForCoreAudioUID(
                  DefaultSystemOutputAudioDevice::defaultSystemOutputAudioDeviceUniqueID()),
              proxy);
}

TEST_F(DeviceChannelsTest, ProxyWithoutDefaultDeviceAnswersEmptyValues) {
    auto proxy = std::dynamic_pointer_cast<DefaultSystemOutputAudioDevice>(
        AudioDevice::proxiedDefaultSystemOutput());
    ASSERT_TRUE(proxy);
    hw_->stopServer();
    EXPECT_EQ(proxy->deviceID(), 0u);
    EXPECT_EQ(proxy->volume(), 0.0f);
    EXPECT_TRUE(proxy->playbackChannels().empty());
    EXPECT_FALSE(proxy->isAlive());
    EXPECT_TRUE(proxy->momentoDictionary().empty());
    // The device-list handler asks every registered device; the proxy is
    // never found dead, so it stays the registered object.
    EXPECT_FALSE(proxy->markAsDeadIfDeviceIsNotAlive());
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(
                  DefaultSystemOutputAudioDevice::defaultSystemOutputAudioDeviceUniqueID()),
              proxy);
    hw_->startServer();
    settle();
    // The device-list handler ran while nothing was the default: the proxy
    // is still the registered object, and follows the new default again.
    EXPECT_EQ(AudioDevice::proxiedDefaultSystemOutput(), proxy);
    EXPECT_EQ(countPosted(kAudioDriverDeviceGoneDead, proxy.get()), 0u);
    EXPECT_TRUE(eventually([&] { return proxy->deviceID() != 0; }));
}

TEST_F(DeviceChannelsTest, MakeDefaultFromTheDevice) {
    auto hdmi = AudioDevice::deviceForCoreAudioUID(std::string(kHDMI));
    hdmi->makeDefaultOutputDevice();
    EXPECT_EQ(AudioDevice::defaultOutputDevice(), hdmi);
    std::vector<std::string> lines;
    detail::setChannelLogObserver(
        [&](const detail::ChannelLogRecord& r) { lines.push_back(r.message); });
    const auto calls = hw_->callCount();
    hdmi->set_test_MakeIDGoZero(true);
    hdmi->makeDefaultOutputDevice();
    detail::setChannelLogObserver(nullptr);
    EXPECT_EQ(hw_->callCount(), calls);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string("We couldn't make ") + hdmi->description() +
                            " the default output device - the device ID is zero");
    hdmi->set_test_MakeIDGoZero(false);
}

// Through a plain AudioDevice pointer the proxy's device-level volume, mute
// and meter operations must act on the default output, not on the proxy's own
// (empty) state: callers that list the proxy beside real devices never know
// which one they hold.
class ProxyOperations : public testing::AudioDeviceTest {
 protected:
    static constexpr const char* kDesk = "DeskSpeakersNoMainControls";
    void SetUp() override {
        AudioDeviceTest::SetUp();
        SimulatedDeviceSpec desk;
        desk.uid = kDesk;
        desk.name = "Desk Speakers";
        desk.output.streamChannels = {2};
        // Per-channel controls only: the device-level operations must fall
        // back to the channels.
        desk.output.volumes = {{1, 0.3f, true}, {2, 0.5f, true}};
        desk.output.mutes = {{1, 0.0f, true}, {2, 0.0f, true}};
        hw_->addDevice(desk);
        settle();
        proxy_ = AudioDevice::proxiedDefaultSystemOutput();
    }
    bool halMute(const char* uid, UInt32 element) {
        CAHALAudioDevice hal(uid, hw_);
        return hal.GetMuteControlValue(kAudioObjectPropertyScopeOutput, element);
    }
    Float32 halVolume(const char* uid, UInt32 element) {
        CAHALAudioDevice hal(uid, hw_);
        return hal.GetVolumeControlScalarValue(kAudioObjectPropertyScopeOutput, element);
    }
    std::shared_ptr<AudioDevice> proxy_;
};

TEST_F(ProxyOperations, FollowDefaultOutputWithoutMainControls) {
    ASSERT_TRUE(hw_->setDefaultDevice(false, false, kDesk));
    settle();
    auto desk = AudioDevice::deviceForCoreAudioUID(std::string(kDesk));
    ASSERT_TRUE(desk);
    ASSERT_FALSE(desk->hasMasterOutputVolume());
    ASSERT_EQ(AudioDevice::defaultOutputDevice(), desk);

    EXPECT_FLOAT_EQ(proxy_->outputVolume(), 0.4f);
    EXPECT_FLOAT_EQ(proxy_->averageChannelVolume(false), 0.4f);
    EXPECT_FLOAT_EQ(proxy_->volumeForChannel(2, false), 0.5f);

    proxy_->setOutputVolume(0.9f);
    EXPECT_FLOAT_EQ(halVolume(kDesk, 1), 0.9f);
    EXPECT_FLOAT_EQ(halVolume(kDesk, 2), 0.9f);
    EXPECT_FLOAT_EQ(desk->outputVolume(), 0.9f);
    EXPECT_FLOAT_EQ(proxy_->outputVolume(), 0.9f);

    proxy_->setAllInputAndOutputChannelVolumesTo(0.2f, false, false);
    EXPECT_FLOAT_EQ(halVolume(kDesk, 2), 0.2f);

    // No main mute: the device and the proxy both answer false and ignore the setter.
    ASSERT_TRUE(hw_->setMute(kDesk, false, 1, true));
    EXPECT_FALSE(proxy_->muted());
    proxy_->unmuteDevice();
    EXPECT_FALSE(halMute(kDesk, 1));

    // The meter summaries read the default device's channels.
    auto channels = desk->playbackChannels();
    ASSERT_EQ(channels.size(), 2u);
    channels[0]->setLevelNoNotify(0.5f, -6.0f);
    channels[1]->setLevelNoNotify(0.25f, -12.0f);
    EXPECT_FLOAT_EQ(proxy_->maxOutputVolumeAcrossAllChannels(), 0.5f);
    EXPECT_FLOAT_EQ(proxy_->averageOutputVolumeAcrossAllChannels(), 0.375f);
}

TEST_F(ProxyOperations, FollowDefaultOutputWithMainControlsAndSwitchWithIt) {
    ASSERT_TRUE(hw_->setDefaultDevice(false, false, kSpeakers));
    settle();
    auto speakers = AudioDevice::deviceForCoreAudioUID(std::string(kSpeakers));
    ASSERT_TRUE(speakers->hasMasterOutputVolume());
    ASSERT_TRUE(speakers->hasMasterOutputMute());

    ASSERT_TRUE(hw_->setMute(kSpeakers, false, 0, true));
    EXPECT_TRUE(proxy_->muted());
    proxy_->setMuted(false);
    EXPECT_FALSE(halMute(kSpeakers, 0));
    proxy_->setMuted(true);
    EXPECT_TRUE(speakers->muted());

    proxy_->setOutputVolume(0.3f);
    EXPECT_FLOAT_EQ(halVolume(kSpeakers, 0), 0.3f);
    EXPECT_FLOAT_EQ(proxy_->outputVolume(), 0.3f);

    // The next call after a change of default reaches the new device.
    ASSERT_TRUE(hw_->setDefaultDevice(false, false, kDesk));
    settle();
    EXPECT_FLOAT_EQ(proxy_->outputVolume(), 0.4f);
    proxy_->setOutputVolume(0.7f);
    EXPECT_FLOAT_EQ(halVolume(kDesk, 1), 0.7f);
    EXPECT_FLOAT_EQ(halVolume(kSpeakers, 0), 0.3f);
    EXPECT_FALSE(proxy_->muted());
}

}  // namespace
}  // namespace zdr
