// Channels and the device-level volume, mute and memento operations, on the
// simulated hardware.
#include "zdr/audio/audio_channel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"
#include "zdr/audio/channel_test_support.h"
#include "zdr/audio/detail/channel_log.h"
#include "zdr/audio/device_channels.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/notification_center.h"

namespace zdr {
namespace {

using namespace hal;
using SimDevice = testing::TestChannelOwner;

class RecordingUndo : public UndoManager {
 public:
    void registerUndo(const void* target, std::function<void()> undo,
                      const std::string& actionName) override {
        std::lock_guard lock(mutex);
        targets.push_back(target);
        names.push_back(actionName);
        actions.push_back(std::move(undo));
    }
    std::mutex mutex;
    std::vector<const void*> targets;
    std::vector<std::string> names;
    std::vector<std::function<void()>> actions;
};

constexpr const char* kMic = "BuiltInMicrophoneDevice";
constexpr const char* kSpeakers = "BuiltInSpeakerDevice";
constexpr const char* kHeadset = "AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2";
constexpr const char* kHdmi = "HDMI:DELL U2720Q:0";

class Channels : public ::testing::Test {
 protected:
    void SetUp() override {
        detail::setChannelLogObserver([this](const detail::ChannelLogRecord& r) {
            std::lock_guard lock(logMutex_);
            log_.push_back(r);
        });
    }
    void TearDown() override {
        detail::setChannelLogObserver(nullptr);
        UndoManager::install(nullptr);
        DispatchQueue::main().drain();
    }
    std::shared_ptr<SimDevice> device(const std::string& uid) {
        return std::make_shared<SimDevice>(hw_, uid);
    }
    bool logged(detail::ChannelLogLevel level, const std::string& message) {
        std::lock_guard lock(logMutex_);
        for (const auto& r : log_) {
            if (r.level == level && r.message == message) return true;
        }
        return false;
    }
    float halVolume(const std::string& uid, bool isInput, UInt32 element) {
        return CAHALAudioDevice(uid, hw_).GetVolumeControlScalarValue(
            CAHALAudioDevice::scope(isInput), element);
    }
    bool halMute(const std::string& uid, bool isInput, UInt32 element) {
        return CAHALAudioDevice(uid, hw_).GetMuteControlValue(CAHALAudioDevice::scope(isInput),
                                                              element);
    }

    std::shared_ptr<SimulatedAudioHardware> hw_ =
        std::make_shared<SimulatedAudioHardware>(SimulatedAudioHardware::defaultDesktop());
    std::mutex logMutex_;
    std::vector<detail::ChannelLogRecord> log_;
};

TEST_F(Channels, ChannelsForMakesOnePerHardwareChannel) {
    auto mic = device(kMic);
    auto channels = AudioChannel::channelsFor(mic, true);
    ASSERT_EQ(channels.size(), 2u);
    EXPECT_EQ(channels[1]->index(), 1);
    EXPECT_EQ(channels[1]->coreAudioChannelIndex(), 2u);
    EXPECT_EQ(channels[1]->name(), "Ch 2");
    EXPECT_TRUE(channels[1]->enabled());
    EXPECT_EQ(channels[1]->device(), mic);
    EXPECT_EQ(channels[0]->description(),
              "<AudioChannel: self.index=0, self.enabled=1, self.level=0.000000, "
              "self.peak=0.000000>");
    EXPECT_TRUE(AudioChannel::channelsFor(mic, false).empty());  // no output side
    EXPECT_TRUE(AudioChannel::channelsFor(nullptr, true).empty());
}

TEST_F(Channels, VolumeReadsTheOutputSideButAnswersTheRecordProxy) {
    auto headset = device(kHeadset);
    auto channel = AudioChannel::channelsFor(headset, true)[0];
    channel->setProxyVolume(0.25f);
    EXPECT_EQ(channel->volume(), 0.25f);
    EXPECT_EQ(channel->proxyOutputVolume(), 0.5f);  // element 1 of the output side
    hw_->setVolume(kHeadset, false, 1, 0.125f);
    EXPECT_EQ(channel->outputVolume(), 0.125f);
}

TEST_F(Channels, SetVolumeWritesTheHardwareAndRegistersItsUndo) {
    auto mic = device(kMic);
    auto channel = AudioChannel::channelsFor(mic, true)[1];
    channel->setVolume(0.3f);  // no undo manager: nothing to register, no harm
    auto undo = std::make_shared<RecordingUndo>();
    UndoManager::install(undo);
    channel->setVolume(0.4f);
    EXPECT_EQ(channel->proxyVolume(), 0.4f);
    EXPECT_FLOAT_EQ(halVolume(kMic, true, 2), 0.4f);
    EXPECT_TRUE(channel->levelChanged());
    ASSERT_EQ(undo->actions.size(), 1u);
    EXPECT_EQ(undo->targets[0], channel.get());
    undo->actions[0]();
    EXPECT_EQ(channel->proxyVolume(), 0.3f);
    EXPECT_FLOAT_EQ(halVolume(kMic, true, 2), 0.3f);

    auto speakers = device(kSpeakers);
    auto out = AudioChannel::channelsFor(speakers, false)[0];
    EXPECT_FLOAT_EQ(out->outputVolume(), 0.6f);  // the proxy follows the hardware
    out->setOutputVolume(0.2f);
    EXPECT_FLOAT_EQ(halVolume(kSpeakers, false, 1), 0.2f);
    undo->actions.back()();
    EXPECT_FLOAT_EQ(halVolume(kSpeakers, false, 1), 0.6f);
    EXPECT_EQ(out->proxyOutputVolume(), 0.6f);
}

TEST_F(Channels, HardwareFailuresAreLoggedAndAnsweredWithDefaults) {
    auto mic = device(kMic);
    auto channel = AudioChannel::channelsFor(mic, true)[0];
    hw_->failNextCall(kMic, kAudioDevicePropertyVolumeScalar, kAudioHardwareNotRunningError);
    channel->setVolume(0.3f);
    EXPECT_EQ(channel->proxyVolume(), 0.3f);
    EXPECT_TRUE(
        logged(detail::ChannelLogLevel::error, "Cannot set hardware volume for channel 0 to 0.30"));
    hw_->failNextCall(kMic, kAudioDevicePropertyVolumeScalar, kAudioHardwareNotRunningError);
    channel->setOutputVolume(0.7f);  // no output control on a microphone: nothing to fail
    EXPECT_FALSE(logged(detail::ChannelLogLevel::error,
                        "Cannot set hardware output volume for channel 0 to 0.70"));

    auto headset = device(kHeadset);
    auto hc = AudioChannel::channelsFor(headset, true)[0];
    hw_->failNextCall(kHeadset, kAudioDevicePropertyMute, kAudioHardwareBadDeviceError);
    EXPECT_FALSE(hc->muted());
    EXPECT_TRUE(logged(detail::ChannelLogLevel::error,
                       std::string("Unable to get mute state on device ") + kHeadset +
                           ", error: " + std::to_string(kAudioHardwareBadDeviceError)));
}

TEST_F(Channels, SetMutedAlwaysMutes) {
    auto headset = device(kHeadset);
    auto channel = AudioChannel::channelsFor(headset, true)[0];
    EXPECT_TRUE(channel->canMute());
    EXPECT_FALSE(channel->muted());
    channel->setMuted(false);
    EXPECT_TRUE(halMute(kHeadset, true, 1));
    EXPECT_TRUE(channel->muted());
    EXPECT_TRUE(logged(detail::ChannelLogLevel::info, "Set muted 0"));
    auto micDevice = device(kMic);
    auto mic = AudioChannel::channelsFor(micDevice, true)[0];
    EXPECT_FALSE(mic->canMute());
    mic->setMuted(true);  // no control: nothing written
    EXPECT_FALSE(mic->muted());
}

TEST_F(Channels, CapabilityQueries) {
    // Channels hold their device weakly: keep the devices alive here.
    auto hdmiDevice = device(kHdmi), speakersDevice = device(kSpeakers), micDevice = device(kMic);
    auto hdmi = AudioChannel::channelsFor(hdmiDevice, false)[0];
    EXPECT_FALSE(hdmi->canSetOutputVolume());  // only a fixed main control
    auto speakers = AudioChannel::channelsFor(speakersDevice, false)[0];
    EXPECT_TRUE(speakers->canSetOutputVolume());
    EXPECT_FALSE(speakers->canSetInputVolume());
    EXPECT_FALSE(speakers->hasRecordVolumeControl());
    auto mic = AudioChannel::channelsFor(micDevice, true)[0];
    EXPECT_TRUE(mic->hasRecordVolumeControl());
    EXPECT_TRUE(mic->canSetInputVolume());

    SimulatedDeviceSpec fixed;
    fixed.uid = "fixed";
    fixed.name = "Fixed";
    fixed.input.streamChannels = {1};
    fixed.input.volumes = {SimulatedControl{1, 0.5f, false}};
    hw_->addDevice(fixed);
    auto fixedDevice = device("fixed");
    auto fc = AudioChannel::channelsFor(fixedDevice, true)[0];
    EXPECT_FALSE(fc->canSetInputVolume());
    EXPECT_TRUE(logged(detail::ChannelLogLevel::info,
                       "Object " + fc->description() + " doesn't have a settable volume, index 0"));
}

TEST_F(Channels, SelectedLabelIsAnnouncedOnTheMainQueueByIdentity) {
    auto mic = device(kMic);
    auto channel = AudioChannel::channelsFor(mic, true)[0];
    std::vector<std::shared_ptr<void>> objects;
    std::vector<bool> onMain;
    auto token = NotificationCenter::defaultCenter()->addObserver(
        kAudioChannelLabelChanged, nullptr, std::nullopt, [&](const Notification& n) {
            objects.push_back(n.object);
            onMain.push_back(DispatchQueue::isMainThread());
        });
    auto left = ChannelLabel::left();
    channel->setSelectedLabel(left);
    EXPECT_TRUE(objects.empty());  // posted later, from the main queue
    DispatchQueue::main().drain();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0], channel);
    EXPECT_TRUE(onMain[0]);

    channel->setSelectedLabel(left);  // the same object: nothing
    DispatchQueue::main().drain();
    EXPECT_EQ(objects.size(), 1u);
    channel->setSelectedLabel(left->copy());  // equal but another object
    DispatchQueue::main().drain();
    EXPECT_EQ(objects.size(), 2u);

    mic->mono_ = true;
    EXPECT_EQ(channel->selectedLabel()->name(), "Mono");
    EXPECT_EQ(AudioChannel::channelsFor(mic, true)[1]->selectedLabel()->name(), "Mono");
    mic->mono_ = false;
    EXPECT_EQ(channel->selectedLabel()->label(), kAudioChannelLabel_Left);
}

TEST_F(Channels, MetersAnnounceLevelOnceAndPeaksDropOffAfterOneSecond) {
    auto channel = AudioChannel::make(0);
    int announced = 0;
    auto observation = channel->observeKey("level", [&] { ++announced; });
    channel->fireChannelNotification();
    EXPECT_EQ(announced, 0);
    channel->setLevelNoNotify(0.5f, -6.0f);
    channel->setPeakNoNotify(0.8f, -2.0f);
    EXPECT_EQ(channel->levelInDB(), -6.0f);
    EXPECT_EQ(channel->peakInDB(), -2.0f);
    channel->fireChannelNotification();
    channel->fireChannelNotification();
    EXPECT_EQ(announced, 1);
    observation.reset();
    channel->setLevelNoNotify(0.1f, -20.0f);
    channel->fireChannelNotification();
    EXPECT_EQ(announced, 1);

    auto clock = std::make_shared<ManualClock>();
    channel->setClock(clock);
    EXPECT_FALSE(channel->peakCanDropoff());  // never reset
    channel->resetPeakTime();
    clock->advanceSeconds(1.0);
    EXPECT_FALSE(channel->peakCanDropoff());
    clock->advanceSeconds(0.001);
    EXPECT_TRUE(channel->peakCanDropoff());
}

// ---------------------------------------------------------------------------
// Device level

class DeviceLevel : public Channels {
 protected:
    DeviceChannels channels_;
};

TEST_F(DeviceLevel, RecordListIsReplacedAfterTheReadThatNoticedTheChange) {
    auto mic = device(kMic);
    EXPECT_TRUE(channels_.recordChannels(mic).empty());  // the first read sees none yet
    auto first = channels_.recordChannels(mic);
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(channels_.recordChannels(mic), first);  // unchanged count: same objects
    EXPECT_EQ(channels_.playbackChannels(mic).size(), 0u);

    auto speakers = device(kSpeakers);
    EXPECT_EQ(channels_.playbackChannels(speakers).size(), 2u);  // replaced at once
    EXPECT_EQ(channels_._checkAndRecreatePlaybackChannels(speakers), 2u);
}

TEST_F(DeviceLevel, DeviceThatDisappearsOrDiesKeepsSafeLists) {
    auto headset = device(kHeadset);
    auto playback = channels_.playbackChannels(headset);
    ASSERT_EQ(playback.size(), 2u);
    headset->dead_ = true;
    hw_->stopServer();  // every call now fails, as for a device that went away
    ASSERT_EQ(headset->numberOfChannels(false), 0u);
    // Marked dead: the playback list is not rebuilt.
    EXPECT_EQ(channels_.playbackChannels(headset), playback);
    EXPECT_EQ(channels_._checkAndRecreatePlaybackChannels(headset), 0u);
    channels_.recordChannels(headset);
    EXPECT_TRUE(channels_.recordChannels(headset).empty());
    EXPECT_EQ(channels_.channelForIndex(headset, 0, true), nullptr);
    EXPECT_EQ(channels_.channelForIndex(headset, -1, false), nullptr);
    EXPECT_EQ(channels_.channelForIndex(headset, 1, false), playback[1]);
    EXPECT_EQ(channels_.outputVolume(headset), 0.0f);
    channels_.setOutputVolume(headset, 0.5f);
    channels_.unmuteDevice(headset);
    EXPECT_FALSE(channels_.muted(headset));
}

TEST_F(DeviceLevel, AveragesAndTheEmptySide) {
    auto mic = device(kMic);
    EXPECT_TRUE(std::isnan(channels_.averageChannelVolume(mic, false)));  // 0 / 0
    channels_.recordChannels(mic);
    auto record = channels_.recordChannels(mic);
    record[0]->setProxyVolume(0.2f);
    record[1]->setProxyVolume(0.6f);
    EXPECT_FLOAT_EQ(channels_.averageChannelVolume(mic, true), 0.4f);
    EXPECT_FLOAT_EQ(channels_.inputVolume(mic), 0.75f);  // the main control wins

    auto headset = device(kHeadset);  // no main input control
    channels_.recordChannels(headset);
    channels_.recordChannels(headset)[0]->setProxyVolume(0.9f);
    EXPECT_FLOAT_EQ(channels_.inputVolume(headset), 0.9f);
    EXPECT_EQ(channels_.inputVolume(nullptr), 0.0f);
}

TEST_F(DeviceLevel, OutputVolumeUsesTheMainControlOrTheChannels) {
    auto speakers = device(kSpeakers);
    EXPECT_FLOAT_EQ(channels_.outputVolume(speakers), 0.6f);
    channels_.setOutputVolume(speakers, 0.3f);
    EXPECT_FLOAT_EQ(halVolume(kSpeakers, false, 0), 0.3f);
    EXPECT_FLOAT_EQ(halVolume(kSpeakers, false, 1), 0.6f);  // channels untouched

    SimulatedDeviceSpec perChannel;
    perChannel.uid = "per-channel";
    perChannel.name = "Per channel";
    perChannel.output.streamChannels = {2};
    perChannel.output.volumes = {SimulatedControl{1, 0.2f}, SimulatedControl{2, 0.4f}};
    hw_->addDevice(perChannel);
    auto dev = device("per-channel");
    EXPECT_FLOAT_EQ(channels_.outputVolume(dev), 0.3f);
    channels_.setOutputVolume(dev, 0.8f);
    EXPECT_FLOAT_EQ(halVolume("per-channel", false, 1), 0.8f);
    EXPECT_FLOAT_EQ(halVolume("per-channel", false, 2), 0.8f);

    hw_->failNextCall(kSpeakers, kAudioDevicePropertyVolumeScalar, kAudioHardwareNotRunningError);
    EXPECT_EQ(channels_.outputVolume(speakers), 0.0f);
    EXPECT_TRUE(logged(detail::ChannelLogLevel::error,
                       std::string("Unable to get volume of output section, for ") + kSpeakers +
                           ". Error: " + std::to_string(kAudioHardwareNotRunningError)));
    hw_->failNextCall(kSpeakers, kAudioDevicePropertyVolumeScalar, kAudioHardwareNotRunningError);
    channels_.setOutputVolume(speakers, 0.25f);
    EXPECT_TRUE(logged(detail::ChannelLogLevel::error,
                       std::string("Unable to set volume on ") + kSpeakers +
                           " to 0.25, error: " + std::to_string(kAudioHardwareNotRunningError)));
}

TEST_F(DeviceLevel, InputVolumeSetterAndItsFailure) {
    auto mic = device(kMic);
    channels_.setInputVolume(mic, 0.5f);
    EXPECT_FLOAT_EQ(halVolume(kMic, true, 0), 0.5f);
    hw_->failNextCall(kMic, kAudioDevicePropertyVolumeScalar, kAudioHardwareNotRunningError);
    channels_.setInputVolume(mic, 0.25f);
    EXPECT_TRUE(logged(detail::ChannelLogLevel::error,
                       std::string("Unable to set the record volume for ") + kMic +
                           " to 0.25, error: " + std::to_string(kAudioHardwareNotRunningError)));

    auto headset = device(kHeadset);
    channels_.recordChannels(headset);
    channels_.setInputVolume(headset, 0.35f);  // per channel
    EXPECT_FLOAT_EQ(halVolume(kHeadset, true, 1), 0.35f);
}

TEST_F(DeviceLevel, MuteUnmuteAndAllVolumes) {
    auto speakers = device(kSpeakers);
    channels_.setMuted(speakers, true);
    EXPECT_TRUE(channels_.muted(speakers));
    channels_.setMuted(speakers, false);
    EXPECT_FALSE(channels_.muted(speakers));

    auto headset = device(kHeadset);
    hw_->setMute(kHeadset, false, 0, true);
    hw_->setMute(kHeadset, true, 1, true);
    channels_.unmuteDevice(headset);
    EXPECT_FALSE(halMute(kHeadset, false, 0));
    EXPECT_FALSE(halMute(kHeadset, true, 1));

    channels_.setAllInputAndOutputChannelVolumesTo(headset, 0.1f, false);
    EXPECT_FLOAT_EQ(halVolume(kHeadset, false, 0), 0.5f);  // main element left alone
    EXPECT_FLOAT_EQ(halVolume(kHeadset, false, 2), 0.1f);
    EXPECT_FLOAT_EQ(halVolume(kHeadset, true, 1), 0.1f);
    channels_.setAllInputAndOutputChannelVolumesTo(headset, 0.9f);
    EXPECT_FLOAT_EQ(halVolume(kHeadset, false, 0), 0.9f);
    EXPECT_FLOAT_EQ(channels_.volumeForChannel(headset, 2, false), 0.9f);

    EXPECT_EQ(channels_.volumeForChannel(headset, 7, true), 0.0f);
    EXPECT_TRUE(
        logged(detail::ChannelLogLevel::error,
               std::string("Unable to get the volume for channel 7 on device ") + kHeadset +
                   ", section 1. Error: " + std::to_string(kAudioHardwareUnknownPropertyError)));
    hw_->failNextCall(kHeadset, kAudioDevicePropertyMute, kAudioHardwareNotRunningError);
    channels_.unmuteDevice(headset);
    EXPECT_TRUE(logged(detail::ChannelLogLevel::error,
                       std::string("Unable to unmute device ") + kHeadset +
                           ", error: " + std::to_string(kAudioHardwareNotRunningError)));
}

TEST_F(DeviceLevel, MeterSummaries) {
    auto mic = device(kMic);
    EXPECT_EQ(channels_.averageInputVolumeAcrossAllChannels(mic), 0.0f);
    auto record = channels_.recordChannels(mic);
    record[0]->setLevelNoNotify(0.2f, -14.0f);
    record[1]->setLevelNoNotify(0.6f, -4.4f);
    EXPECT_FLOAT_EQ(channels_.averageInputVolumeAcrossAllChannels(mic), 0.4f);
    EXPECT_FLOAT_EQ(channels_.maxInputVolumeAcrossAllChannels(mic), 0.6f);
    EXPECT_FLOAT_EQ(channels_.maxPowerInDBAcrossAllChannels(mic), -4.4f);
    channels_.setMaxPowerInDBAcrossAllChannels(-1.0f);
    EXPECT_FLOAT_EQ(channels_.maxPowerInDBAcrossAllChannels(mic), -1.0f);
    EXPECT_EQ(channels_.maxOutputVolumeAcrossAllChannels(mic), 0.0f);
    channels_.setNewFastMaxPowerInDBAcrossAllChannels(-3.0f);
    EXPECT_EQ(channels_.newFastMaxPowerInDBAcrossAllChannels(), -3.0f);
}

TEST_F(DeviceLevel, MomentoRestoresChannelsThatExistAndSkipsTheRest) {
    auto headset = device(kHeadset);
    channels_.recordChannels(headset);
    auto rec = channels_.recordChannels(headset)[0];
    auto play = channels_.playbackChannels(headset);
    rec->setProxyVolume(0.3f);
    rec->setEnabled(false);
    auto label = ChannelLabel::leftSurround();
    rec->setSelectedLabel(label);
    play[1]->setProxyOutputVolume(0.7f);
    Dictionary momento = channels_.momentoDictionary(headset);
    EXPECT_EQ(momento.size(), 3u);  // rec-0, play-0, play-1

    rec->setProxyVolume(1.0f);
    rec->setEnabled(true);
    rec->setSelectedLabel(nullptr);
    play[1]->setProxyOutputVolume(1.0f);
    momento["rec-7"] = Dictionary{{"proxyVolume", 0.1f}};
    auto playOne = std::any_cast<Dictionary>(momento["play-1"]);
    playOne["enabled"] = std::string("yes");  // wrong type: skipped with a log line
    momento["play-1"] = playOne;
    channels_.setMomentoDictionary(headset, momento);
    EXPECT_EQ(rec->proxyVolume(), 0.3f);
    EXPECT_FALSE(rec->enabled());
    EXPECT_EQ(rec->selectedLabel(), label);
    EXPECT_EQ(play[1]->proxyOutputVolume(), 0.7f);
    EXPECT_TRUE(play[1]->enabled());
    EXPECT_TRUE(logged(detail::ChannelLogLevel::error,
                       "Ignoring the value for \"enabled\" of channel 1: it has the wrong type"));
    EXPECT_EQ(channels_.recordChannels(headset).size(), 1u);
}

TEST_F(DeviceLevel, ConcurrentUseWhileTheChannelCountChanges) {
    SimulatedDeviceSpec spec;
    spec.uid = "changing";
    spec.name = "Changing";
    spec.input.streamChannels = {2};
    spec.output.streamChannels = {2};
    spec.input.volumes = {SimulatedControl{1, 0.5f}, SimulatedControl{2, 0.5f}};
    hw_->addDevice(spec);
    auto dev = device("changing");
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            while (!stop.load()) {
                for (const auto& c : channels_.recordChannels(dev)) {
                    c->setLevelNoNotify(0.5f, -6.0f);
                    if (t == 0) c->setVolume(0.25f);
                    c->fireChannelNotification();
                }
                for (const auto& c : channels_.playbackChannels(dev)) c->outputVolume();
                (void)channels_.averageChannelVolume(dev, true);
                (void)channels_.momentoDictionary(dev);
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        dev->channelsOverride_ = 1 + i % 3;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop = true;
    for (auto& t : threads) t.join();
    channels_.recordChannels(dev);
    EXPECT_EQ(channels_.recordChannels(dev).size(), dev->numberOfChannels(true));
}

}  // namespace
}  // namespace zdr
