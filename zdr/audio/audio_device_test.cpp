// The registry: one object per UID, across replug and server restart; the
// hidden preview device; failed setups; death and resurrection notifications.
#include "zdr/audio/audio_device.h"

#include "zdr/audio/audio_device_test_support.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"

namespace zdr {
namespace {

using namespace hal;
using testing::AudioDeviceTest;
using Registry = AudioDeviceTest;

TEST_F(Registry, OneObjectPerDeviceWhicheverWayItIsAskedFor) {
    auto byID = AudioDevice::deviceForCoreAudioID(idOf(kSpeakers));
    ASSERT_NE(byID, nullptr);
    EXPECT_EQ(byID->deviceUID(), kSpeakers);
    EXPECT_EQ(byID->deviceName(), "Built-in Speakers");
    EXPECT_EQ(AudioDevice::deviceForCoreAudioID(idOf(kSpeakers)), byID);
    EXPECT_EQ(AudioDevice::deviceForCoreAudioUID(std::string(kSpeakers)), byID);
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kSpeakers), byID);
    EXPECT_EQ(AudioDevice::defaultOutputDevice(), byID);
    EXPECT_TRUE(byID->hasMasterOutputVolume());
    EXPECT_TRUE(byID->hasMasterOutputMute());
    EXPECT_FALSE(byID->hasMasterInputVolume());
    EXPECT_TRUE(byID->listenerInstalled());
    EXPECT_EQ(byID->deviceDescriptionAndID(), "Built-in Speakers - BuiltInSpeakerDevice (id: " +
                                                  std::to_string(idOf(kSpeakers)) + ")");
    EXPECT_EQ(byID->deviceOutputDescription(), " 2 ch,  48000 Hz, 'lpcm'");
    EXPECT_EQ(AudioDevice::deviceForCoreAudioUID(std::nullopt), nullptr);
    EXPECT_EQ(AudioDevice::deviceForCoreAudioUID(std::string("nope")), nullptr);
}

TEST_F(Registry, LookupsByIDFollowTheHalAtOnce) {
    const AudioObjectID id = idOf(kHDMI);
    ASSERT_NE(AudioDevice::deviceForCoreAudioID(id), nullptr);
    const auto calls = hw_->callCount();
    ASSERT_NE(AudioDevice::deviceForCoreAudioID(id), nullptr);
    EXPECT_EQ(hw_->callCount(), calls);  // nothing changed: answered without the HAL
    hw_->unplugDevice(kHDMI);            // before any listener has run
    EXPECT_EQ(AudioDevice::findUIDForAudioDeviceID(id), std::nullopt);
    EXPECT_EQ(AudioDevice::deviceForCoreAudioID(id), nullptr);
}

TEST_F(Registry, ConcurrentFirstRequestsGetTheSameObject) {
    std::vector<std::shared_ptr<AudioDevice>> got(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < got.size(); ++i) {
        threads.emplace_back([&, i] { got[i] = AudioDevice::deviceForCoreAudioID(idOf(kMic)); });
    }
    for (auto& t : threads) t.join();
    for (const auto& d : got) EXPECT_EQ(d, got[0]);
}

TEST_F(Registry, UnknownIDGivesNoneAndAWarningAndCreatesNothing) {
    const std::size_t before = AudioDevice::_test_registeredCount();
    EXPECT_EQ(AudioDevice::deviceForCoreAudioID(9999), nullptr);
    EXPECT_EQ(AudioDevice::_test_registeredCount(), before);
    const auto lines = logsContaining("Could not find a device uniqueID for device with id: 9999");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, detail::AudioLogLevel::warning);
    EXPECT_EQ(lines[0].category, detail::AudioLogCategory::audio);
}

TEST_F(Registry, HiddenPreviewDeviceIsFoundByIDButNeverListed) {
    const AudioObjectID previewID = idOf("ZDRAudioCapture:4");
    EXPECT_EQ(AudioDevice::findUIDForAudioDeviceID(previewID), "ZDRAudioCapture:4");
    auto preview = AudioDevice::deviceForCoreAudioID(previewID);
    ASSERT_NE(preview, nullptr);
    EXPECT_EQ(AudioDevice::zdrAudioCaptureHALPreviewDevice(), preview);
    for (bool isInput : {true, false}) {
        for (const auto& d : AudioDevice::devices(isInput)) EXPECT_NE(d, preview);
    }
    EXPECT_FALSE(preview->isApplicationAudioCaptureDevice());
    EXPECT_EQ(AudioDevice::applicationAudioCaptureDeviceIDs(),
              (std::vector<std::string>{"ReelioAudioEngine:0", "ZDRAudioCapture:3"}));
    EXPECT_TRUE(AudioDevice::zdrAudioCaptureHALDevice()->isApplicationAudioCaptureDevice());
}

TEST_F(Registry, DeviceListsFollowStreamDirectionsInHalOrder) {
    std::vector<std::string> outputs, inputs;
    for (const auto& d : AudioDevice::outputDevices()) outputs.push_back(d->deviceUID());
    for (const auto& d : AudioDevice::inputDevices()) inputs.push_back(d->deviceUID());
    EXPECT_EQ(outputs, (std::vector<std::string>{kSpeakers, kHeadset, kHDMI,
                                                 "AirPlay:Living Room:6C:4A:85:12:34:56",
                                                 "ZDRAudioCapture:3"}));
    EXPECT_EQ(inputs, (std::vector<std::string>{kMic, kHeadset, "ZDRAudioCapture:3"}));
    // Listing fills the channel-count cache.
    EXPECT_TRUE(AudioDevice::lookupDeviceSingletonByDeviceUID(kHeadset)->haveCachedPropertyValueFor(
        "recordingChannelCount"));
}

TEST_F(Registry, AFailedSetupIsHandedOutButNotRegistered) {
    hw_->failNextCall(kHDMI, kAudioObjectPropertyName, kAudioHardwareNotReadyError);
    auto first = AudioDevice::deviceForCoreAudioID(idOf(kHDMI));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->deviceName(), "<not set>");
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kHDMI), nullptr);
    EXPECT_EQ(logsContaining("Unable to get the name of the device with Audio Device ID").size(),
              1u);
    auto second = AudioDevice::deviceForCoreAudioID(idOf(kHDMI));
    EXPECT_NE(second, first);
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kHDMI), second);
}

TEST_F(Registry, UnplugAndReplugKeepTheSameObjectAndAnnounceBothOnTheMainQueue) {
    auto headset = AudioDevice::deviceForCoreAudioUID(std::string(kHeadset));
    ASSERT_NE(headset, nullptr);
    const AudioObjectID oldID = headset->deviceID();

    ASSERT_TRUE(hw_->unplugDevice(kHeadset));
    settle();
    EXPECT_TRUE(headset->isMarkedAsDead());
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kHeadset), nullptr);
    EXPECT_GE(countPosted(kAudioDriverDeviceGoneDead, headset.get()), 1u);
    EXPECT_GE(countPosted(kAudioDevicesChanged), 1u);
    for (const auto& p : posted()) {
        if (p.name != kAudioDevicesDefaultOutputChanged) {
            EXPECT_TRUE(p.onMainThread) << p.name;
        }
    }
    // Guarded calls answer their empty value on a dead device, with a warning.
    EXPECT_FALSE(headset->nameOfDataSource(false).has_value());
    EXPECT_FALSE(logsContaining("is not alive.").empty());
    clear();

    const AudioObjectID newID = hw_->replugDevice(kHeadset);
    ASSERT_NE(newID, oldID);
    settle();
    EXPECT_EQ(countPosted(kAudioDriverDeviceAliveAgain, headset.get()), 1u);
    EXPECT_EQ(countPosted(kAudioDevicesChanged), 1u);
    EXPECT_FALSE(headset->isMarkedAsDead());
    EXPECT_EQ(headset->deviceID(), newID);
    EXPECT_EQ(AudioDevice::deviceForCoreAudioID(newID), headset);
    EXPECT_EQ(AudioDevice::_test_possiblyDeadCount(), 0u);
    EXPECT_TRUE(headset->listenerInstalled());
    EXPECT_FALSE(logsContaining("has come alive again").empty());
}

TEST_F(Registry, AReplugAskedForBeforeTheHandlerRunsStillGivesTheSameObject) {
    auto headset = AudioDevice::deviceForCoreAudioUID(std::string(kHeadset));
    hw_->unplugDevice(kHeadset);
    settle();
    const AudioObjectID newID = hw_->replugDevice(kHeadset);
    EXPECT_EQ(AudioDevice::deviceForCoreAudioID(newID), headset);  // before settle()
    settle();
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kHeadset), headset);
}

TEST_F(Registry, ServerRestartBringsEveryDeviceBackAsTheSameObject) {
    const auto before = AudioDevice::outputDevices();
    hw_->restartServer();
    settle();
    EXPECT_EQ(countPosted(kCoreAudioDRestarted), 1u);
    const auto after = AudioDevice::outputDevices();
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_EQ(after[i], before[i]);
        EXPECT_EQ(after[i]->deviceID(), idOf(after[i]->deviceUID()));
    }
    EXPECT_EQ(AudioDevice::_test_possiblyDeadCount(), 0u);
    EXPECT_FALSE(logsContaining("coreaudiod was restarted").empty());
}

TEST_F(Registry, TestHooksDriveDeathAndResurrection) {
    auto mic = AudioDevice::deviceForCoreAudioUID(std::string(kMic));
    mic->set_test_MakeNotAlive(true);
    AudioDevice::hardwarePropertyNotification(0);
    settle();
    EXPECT_TRUE(mic->isMarkedAsDead());
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kMic), nullptr);
    EXPECT_EQ(countPosted(kAudioDriverDeviceGoneDead, mic.get()), 1u);
    ASSERT_FALSE(logsContaining("has died").empty());
    EXPECT_EQ(logsContaining("has died")[0].function, "AudioDevice::HardwarePropertyNotification");

    // Asking again while it is dead posts again each time.
    EXPECT_TRUE(mic->markAsDeadIfDeviceIsNotAlive());
    settle();
    EXPECT_EQ(countPosted(kAudioDriverDeviceGoneDead, mic.get()), 2u);

    mic->set_test_MakeNotAlive(false);
    AudioDevice::hardwarePropertyNotification(0);
    settle();
    EXPECT_EQ(countPosted(kAudioDriverDeviceAliveAgain, mic.get()), 1u);
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kMic), mic);
}

// Only the registered object of a UID moves between the registry and the
// possibly-dead table. A stale object of the same UID (here: one made before
// the registry was set up again on other hardware) that finds itself dead must
// not park itself in the new tables: the live object would then stay
// registered while dead, be reported dead on every device-list change and
// never alive again.
TEST_F(Registry, StaleObjectOfAUIDNeverStandsInForTheLiveOne) {
    auto stale = AudioDevice::deviceForCoreAudioUID(std::string(kMic));
    ASSERT_TRUE(stale);
    auto oldHardware = hw_;
    hw_ = std::make_shared<hal::SimulatedAudioHardware>(
        hal::SimulatedAudioHardware::defaultDesktop());
    AudioDevice::_test_resetRegistry(hw_);
    settle();
    clear();
    auto live = AudioDevice::deviceForCoreAudioUID(std::string(kMic));
    ASSERT_TRUE(live);
    ASSERT_NE(live, stale);

    ASSERT_TRUE(oldHardware->unplugDevice(kMic));
    EXPECT_TRUE(stale->markAsDeadIfDeviceIsNotAlive());
    settle();
    EXPECT_EQ(AudioDevice::_test_possiblyDeadCount(), 0u);
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kMic), live);

    ASSERT_TRUE(hw_->unplugDevice(kMic));
    settle();
    EXPECT_TRUE(live->isMarkedAsDead());
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kMic), nullptr);
    // Reported by the device-list handler and by the device's own listener.
    EXPECT_GE(countPosted(kAudioDriverDeviceGoneDead, live.get()), 1u);
    ASSERT_TRUE(hw_->replugDevice(kMic));
    settle();
    EXPECT_EQ(countPosted(kAudioDriverDeviceAliveAgain, live.get()), 1u);
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kMic), live);

    // A twin made directly is not registered: its death leaves the live one be.
    auto twin = AudioDevice::initWithCoreAudioDevice(idOf(kMic));
    twin->set_test_MakeNotAlive(true);
    EXPECT_TRUE(twin->markAsDeadIfDeviceIsNotAlive());
    EXPECT_FALSE(twin->isMarkedAsDead());
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kMic), live);
}

TEST_F(Registry, IDGoneZeroMakesTwinsUnequal) {
    auto mic = AudioDevice::deviceForCoreAudioUID(std::string(kMic));
    auto twin = AudioDevice::initWithCoreAudioDevice(idOf(kMic));
    EXPECT_NE(twin, mic);
    EXPECT_TRUE(mic->isEqual(twin));
    mic->set_test_MakeIDGoZero(true);
    EXPECT_EQ(mic->deviceID(), 0u);
    EXPECT_FALSE(mic->isEqual(twin));
    EXPECT_FALSE(mic->isEqual(nullptr));
    EXPECT_TRUE(mic->isEqual(mic));
}

TEST_F(Registry, FakeRestartGoesThroughGoneDeadAndAliveAgain) {
    auto speakers = AudioDevice::deviceForCoreAudioUID(std::string(kSpeakers));
    speakers->fakeCoreAudioDRestart(0.005);
    ASSERT_TRUE(eventually([&] { return countPosted(kAudioDriverDeviceAliveAgain) >= 1; }));
    EXPECT_GE(countPosted(kAudioDriverDeviceGoneDead, speakers.get()), 1u);
    EXPECT_EQ(countPosted(kCoreAudioDRestarted), 0u);
    EXPECT_TRUE(eventually([&] { return !speakers->_test_MakeNotAlive(); }));
    settle();
    EXPECT_EQ(AudioDevice::lookupDeviceSingletonByDeviceUID(kSpeakers), speakers);
}

TEST_F(Registry, DefaultOutputChangeIsPostedFromTheListenerQueue) {
    hw_->setDefaultDevice(false, false, kHDMI);
    settle();
    const auto all = posted();
    ASSERT_EQ(countPosted(kAudioDevicesDefaultOutputChanged), 1u);
    for (const auto& p : all) {
        if (p.name == kAudioDevicesDefaultOutputChanged) {
            EXPECT_FALSE(p.onMainThread);
        }
    }
    EXPECT_EQ(AudioDevice::defaultOutputDevice()->deviceUID(), kHDMI);
}

TEST_F(Registry, ApplicationCaptureDevicesAndDebugSwitches) {
    EXPECT_EQ(AudioDevice::ReelioAudioCaptureDevice(), nullptr);  // not on this machine
    auto capture = AudioDevice::zdrAudioCaptureHALDevice();
    ASSERT_NE(capture, nullptr);
    EXPECT_EQ(AudioDevice::designatedApplicationAudioDevice(), capture);
    EXPECT_EQ(AudioDevice::designatedApplicationAudioCapturePreviewDevice(), capture);
    AudioDevice::optIntoUsingHALPreviewAsSource();
    EXPECT_EQ(AudioDevice::designatedApplicationAudioCapturePreviewDevice()->deviceUID(),
              "ZDRAudioCapture:4");
    AudioDevice::dontUseTheNewZDRAudioHALCaptureDevicePlease();
    EXPECT_EQ(AudioDevice::designatedApplicationAudioDevice(), nullptr);
    AudioDevice::useTheNewZDRAudioHALCaptureDevicePlease();

    AudioDevice::_debug_toggleExistenceOfAudioCaptureDriver();  // posts synchronously
    EXPECT_EQ(countPosted(kAudioDevicesChanged), 1u);
    EXPECT_EQ(AudioDevice::zdrAudioCaptureHALDevice(), nullptr);
    AudioDevice::_debug_setAudioDriversExistDontReturnNil(false);
    EXPECT_EQ(countPosted(kAudioDevicesChanged), 1u);
    EXPECT_NE(AudioDevice::zdrAudioCaptureHALDevice(), nullptr);
    AudioDevice::_debug_setAudioDriversExistDontReturnNil(true);
    EXPECT_EQ(countPosted(kAudioDevicesChanged), 2u);
}

TEST_F(Registry, FirstNonAirplayAppleOutputSkipsAirPlayEvenWhenItsUIDMatches) {
    SimulatedDeviceSpec appleAirPlay;
    appleAirPlay.uid = "APPLE-TV-AirPlay";
    appleAirPlay.name = "Apple TV";
    appleAirPlay.transportType = kAudioDeviceTransportTypeAirPlay;
    appleAirPlay.output.streamChannels = {2};
    hw_->unplugDevice(kSpeakers);
    hw_->addDevice(appleAirPlay);
    settle();
    // The headset's UID contains "Apple" (AppleUSBAudioEngine).
    auto first = AudioDevice::firstNonAirplayAppleOutputDevice();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->deviceUID(), kHeadset);
    hw_->unplugDevice(kHeadset);
    settle();
    EXPECT_EQ(AudioDevice::firstNonAirplayAppleOutputDevice(), nullptr);
}

}  // namespace
}  // namespace zdr
