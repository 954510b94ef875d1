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

}  // namespace
}  // namespace zdr
