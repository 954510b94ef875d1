// The simulated server's scripting: plug, unplug, replug, restart, property
// changes, hidden devices, injected failures, and the listener calls each one
// raises.
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"

#include <gtest/gtest.h>

#include <mutex>

#include "zdr/audio/hal/ca_hal_audio_device.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"

namespace zdr::hal {
namespace {

// Records every listener call; flush() waits until the queue has run them.
struct Recorder {
    DispatchQueue queue{"test.hal.listeners"};
    std::mutex mutex;
    std::vector<std::pair<AudioObjectID, AudioObjectPropertyAddress>> calls;
    ListenerBlockRef block = makeListenerBlock(
        [this](AudioObjectID object, const std::vector<AudioObjectPropertyAddress>& addresses) {
            std::lock_guard lock(mutex);
            for (const auto& a : addresses) calls.emplace_back(object, a);
        });

    std::vector<AudioObjectPropertySelector> flush() {
        queue.sync([] {});
        std::lock_guard lock(mutex);
        std::vector<AudioObjectPropertySelector> selectors;
        for (const auto& c : calls) selectors.push_back(c.second.mSelector);
        calls.clear();
        return selectors;
    }
};

const AudioObjectPropertyAddress kWildcard{kAudioObjectPropertySelectorWildcard,
                                           kAudioObjectPropertyScopeWildcard,
                                           kAudioObjectPropertyElementWildcard};
AudioObjectPropertyAddress global(AudioObjectPropertySelector s) {
    return {s, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
using Selectors = std::vector<AudioObjectPropertySelector>;

class SimulatedHardware : public ::testing::Test {
 protected:
    void SetUp() override {
        ASSERT_EQ(hw_->addPropertyListenerBlock(kAudioObjectSystemObject, kWildcard, system_.queue,
                                                system_.block),
                  kAudioHardwareNoError);
    }
    AudioObjectID idOf(const std::string& uid) { return hw_->objectIDForUID(uid).value_or(0); }

    std::shared_ptr<SimulatedAudioHardware> hw_ =
        std::make_shared<SimulatedAudioHardware>(SimulatedAudioHardware::defaultDesktop());
    Recorder system_;
    Recorder device_;
};

TEST_F(SimulatedHardware, UnplugAndReplugGiveANewIDAndRaiseTheListCalls) {
    const std::string uid = "AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2";
    const AudioObjectID before = idOf(uid);
    ASSERT_EQ(hw_->addPropertyListenerBlock(before, kWildcard, device_.queue, device_.block),
              kAudioHardwareNoError);

    ASSERT_TRUE(hw_->unplugDevice(uid));
    EXPECT_EQ(device_.flush(), Selectors{kAudioDevicePropertyDeviceIsAlive});
    EXPECT_EQ(system_.flush(), Selectors{kAudioHardwarePropertyDevices});
    EXPECT_FALSE(CAHALAudioDevice(before, hw_).IsAlive());
    EXPECT_EQ(CAHALAudioSystemObject(hw_).GetAudioDeviceForUID(uid), kAudioObjectUnknown);
    EXPECT_FALSE(hw_->unplugDevice(uid));

    const AudioObjectID after = hw_->replugDevice(uid);
    EXPECT_NE(after, kAudioObjectUnknown);
    EXPECT_NE(after, before);
    EXPECT_EQ(system_.flush(), Selectors{kAudioHardwarePropertyDevices});
    EXPECT_EQ(CAHALAudioDevice(uid, hw_).GetObjectID(), after);
    EXPECT_EQ(hw_->replugDevice(uid), kAudioObjectUnknown);  // already plugged
}

TEST_F(SimulatedHardware, UnpluggingTheDefaultOutputMovesTheDefault) {
    ASSERT_TRUE(hw_->unplugDevice("BuiltInSpeakerDevice"));
    const Selectors calls = system_.flush();
    EXPECT_NE(std::find(calls.begin(), calls.end(), kAudioHardwarePropertyDefaultOutputDevice),
              calls.end());
    CAHALAudioSystemObject system(hw_);
    EXPECT_EQ(system.GetDefaultAudioDevice(false, false),
              idOf("AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2"));
}

TEST_F(SimulatedHardware, RestartRenumbersEverythingAndDropsDeviceListeners) {
    const AudioObjectID before = idOf("BuiltInMicrophoneDevice");
    ASSERT_EQ(hw_->addPropertyListenerBlock(before, kWildcard, device_.queue, device_.block),
              kAudioHardwareNoError);
    hw_->restartServer();
    EXPECT_EQ(system_.flush(),
              (Selectors{kAudioHardwarePropertyDevices, kAudioHardwarePropertyServiceRestarted}));
    const AudioObjectID after = idOf("BuiltInMicrophoneDevice");
    EXPECT_NE(after, before);
    EXPECT_EQ(hw_->removePropertyListenerBlock(before, kWildcard, device_.queue, device_.block),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(hw_->listenerCount(), 1u);  // only the system listener survived
    EXPECT_EQ(CAHALAudioSystemObject(hw_).GetDefaultAudioDevice(true, false), after);
    EXPECT_EQ(CAHALAudioSystemObject(hw_).GetAudioDevices().size(), 6u);
}

TEST_F(SimulatedHardware, PropertyChangesReachMatchingListenersOnly) {
    const AudioObjectID speakers = idOf("BuiltInSpeakerDevice");
    const AudioObjectPropertyAddress volumeOut{kAudioDevicePropertyVolumeScalar,
                                               kAudioObjectPropertyScopeOutput, 1};
    ASSERT_EQ(hw_->addPropertyListenerBlock(speakers, volumeOut, device_.queue, device_.block),
              kAudioHardwareNoError);
    EXPECT_EQ(hw_->addPropertyListenerBlock(speakers, volumeOut, device_.queue, device_.block),
              kAudioHardwareIllegalOperationError);

    hw_->setVolume("BuiltInSpeakerDevice", false, 2, 0.1f);  // another element
    hw_->setMute("BuiltInSpeakerDevice", false, 0, true);
    EXPECT_TRUE(device_.flush().empty());
    hw_->setVolume("BuiltInSpeakerDevice", false, 1, 0.1f);
    EXPECT_EQ(device_.flush(), Selectors{kAudioDevicePropertyVolumeScalar});

    ASSERT_EQ(hw_->removePropertyListenerBlock(speakers, volumeOut, device_.queue, device_.block),
              kAudioHardwareNoError);
    EXPECT_EQ(hw_->removePropertyListenerBlock(speakers, volumeOut, device_.queue, device_.block),
              kAudioHardwareIllegalOperationError);
    hw_->setVolume("BuiltInSpeakerDevice", false, 1, 0.9f);
    EXPECT_TRUE(device_.flush().empty());

    // Several changes raised together arrive in one call, in order.
    ASSERT_EQ(hw_->addPropertyListenerBlock(speakers, kWildcard, device_.queue, device_.block),
              kAudioHardwareNoError);
    hw_->changeProperties("BuiltInSpeakerDevice",
                          {{global(kAudioDevicePropertyDeviceIsRunning), UInt32{1}},
                           {global(kAudioDevicePropertyLatency), UInt32{7}},
                           {global(kAudioDeviceProcessorOverload), UInt32{1}}});
    EXPECT_EQ(device_.flush(),
              (Selectors{kAudioDevicePropertyDeviceIsRunning, kAudioDevicePropertyLatency,
                         kAudioDeviceProcessorOverload}));
}

TEST_F(SimulatedHardware, SettingTheSameValueRaisesNothing) {
    const AudioObjectID speakers = idOf("BuiltInSpeakerDevice");
    ASSERT_EQ(hw_->addPropertyListenerBlock(speakers, kWildcard, device_.queue, device_.block),
              kAudioHardwareNoError);
    CAHALAudioDevice device(speakers, hw_);
    device.SetNominalSampleRate(48000.0);
    EXPECT_TRUE(device_.flush().empty());
    device.SetNominalSampleRate(96000.0);
    EXPECT_EQ(device_.flush(), Selectors{kAudioDevicePropertyNominalSampleRate});
}

TEST_F(SimulatedHardware, HidingADeviceChangesTheListButNotItsTranslation) {
    ASSERT_TRUE(hw_->setHidden("HDMI:DELL U2720Q:0", true));
    EXPECT_EQ(system_.flush(), Selectors{kAudioHardwarePropertyDevices});
    CAHALAudioSystemObject system(hw_);
    EXPECT_EQ(system.GetAudioDevices().size(), 5u);
    EXPECT_NE(system.GetAudioDeviceForUID("HDMI:DELL U2720Q:0"), kAudioObjectUnknown);
}

TEST_F(SimulatedHardware, DefaultDeviceRequiresStreamsInThatDirection) {
    CAHALAudioSystemObject system(hw_);
    EXPECT_THROW(system.SetDefaultAudioDevice(true, false, idOf("BuiltInSpeakerDevice")),
                 CAException);
    system.SetDefaultAudioDevice(false, false, idOf("HDMI:DELL U2720Q:0"));
    EXPECT_EQ(system_.flush(), Selectors{kAudioHardwarePropertyDefaultOutputDevice});
    // The default follows the device across a restart.
    hw_->restartServer();
    system_.flush();
    EXPECT_EQ(system.GetDefaultAudioDevice(false, false), idOf("HDMI:DELL U2720Q:0"));
}

TEST_F(SimulatedHardware, AddDeviceRefusesDuplicateAndEmptyUIDs) {
    SimulatedDeviceSpec spec;
    spec.uid = "BuiltInSpeakerDevice";
    EXPECT_EQ(hw_->addDevice(spec), kAudioObjectUnknown);
    spec.uid = "";
    EXPECT_EQ(hw_->addDevice(spec), kAudioObjectUnknown);
    EXPECT_TRUE(system_.flush().empty());
}

}  // namespace
}  // namespace zdr::hal
