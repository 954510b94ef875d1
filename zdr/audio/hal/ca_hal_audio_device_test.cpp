// The hardware layer's wrappers over the simulated backend: typed reads, the
// HAL's statuses as CAException, sizes in the HAL's units, backend choice.
#include <gtest/gtest.h>

#include <cstdlib>

#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"
#include "zdr/audio/hal/ca_hal_audio_device.h"
#include "zdr/audio/hal/ca_hal_audio_stream.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"
#include "zdr/audio/hal/ca_stream_basic_description.h"

namespace zdr::hal {
namespace {

TEST(HalTypes, FourCharacterCodesAreTheHalValues) {
    EXPECT_EQ(kAudioHardwarePropertyDevices, 0x64657623u);  // 'dev#'
    EXPECT_EQ(kAudioHardwareBadObjectError, 560947818);     // '!obj'
    EXPECT_EQ(kAudioHardwareUnknownPropertyError, 2003332927);
    EXPECT_EQ(kAudioHardwareIllegalOperationError, 1852797029);
    EXPECT_EQ(fourCharString(kAudioObjectPropertyScopeGlobal), "glob");
    EXPECT_EQ(fourCharString(0), "....");
    EXPECT_EQ(statusString(kAudioHardwareNotRunningError), "'stop'");
    EXPECT_EQ(statusString(-50), "-50");
    EXPECT_EQ(statusString(0), "0");
}

TEST(PropertyValue, DataSizeFollowsTheHalLayout) {
    EXPECT_EQ(PropertyValue().dataSize(), 0u);
    EXPECT_EQ(PropertyValue(UInt32{3}).dataSize(), 4u);
    EXPECT_EQ(PropertyValue(48000.0).dataSize(), 8u);
    EXPECT_EQ(PropertyValue(std::vector<UInt32>{1, 2, 3}).dataSize(), 12u);
    EXPECT_EQ(PropertyValue(AudioStreamBasicDescription{}).dataSize(), 40u);
    AudioChannelLayout layout;
    layout.mChannelDescriptions.resize(2);
    EXPECT_EQ(PropertyValue(layout).dataSize(), 52u);
    EXPECT_EQ(PropertyValue(std::vector<AudioStreamRangedDescription>(2)).dataSize(), 112u);
}

class HalWrappers : public ::testing::Test {
 protected:
    std::shared_ptr<SimulatedAudioHardware> hw_ =
        std::make_shared<SimulatedAudioHardware>(SimulatedAudioHardware::defaultDesktop());
    CAHALAudioSystemObject system_{hw_};
};

TEST_F(HalWrappers, SystemObjectListsVisibleDevicesAndTranslatesHiddenOnes) {
    const auto devices = system_.GetAudioDevices();
    EXPECT_EQ(system_.GetNumberAudioDevices(), devices.size());
    EXPECT_EQ(devices.size(), 6u);  // the hidden preview device is not listed
    const AudioObjectID preview = system_.GetAudioDeviceForUID("ZDRAudioCapture:4");
    ASSERT_NE(preview, kAudioObjectUnknown);
    EXPECT_EQ(std::count(devices.begin(), devices.end(), preview), 0);
    EXPECT_EQ(CAHALAudioDevice(preview, hw_).CopyDeviceUID(), "ZDRAudioCapture:4");
    EXPECT_EQ(system_.GetAudioDeviceForUID("no such device"), kAudioObjectUnknown);
    EXPECT_EQ(system_.GetAudioDeviceAtIndex(99), kAudioObjectUnknown);
}

TEST_F(HalWrappers, DeviceReadsIdentityStreamsAndControls) {
    CAHALAudioDevice speakers("BuiltInSpeakerDevice", hw_);
    ASSERT_NE(speakers.GetObjectID(), kAudioObjectUnknown);
    EXPECT_EQ(system_.GetDefaultAudioDevice(false, false), speakers.GetObjectID());
    EXPECT_EQ(speakers.CopyName(), "Built-in Speakers");
    EXPECT_TRUE(speakers.IsAlive());
    EXPECT_FALSE(speakers.IsRunning());
    EXPECT_EQ(speakers.GetNumberStreams(false), 1u);
    EXPECT_EQ(speakers.GetNumberStreams(true), 0u);
    EXPECT_EQ(speakers.GetTotalNumberChannels(false), 2u);
    EXPECT_TRUE(speakers.HasVolumeControl(kAudioObjectPropertyScopeOutput, 0));
    EXPECT_FALSE(speakers.HasVolumeControl(kAudioObjectPropertyScopeInput, 0));
    EXPECT_FLOAT_EQ(speakers.GetVolumeControlScalarValue(kAudioObjectPropertyScopeOutput, 1), 0.6f);
    speakers.SetVolumeControlScalarValue(kAudioObjectPropertyScopeOutput, 0, 1.5f);
    EXPECT_FLOAT_EQ(speakers.GetVolumeControlScalarValue(kAudioObjectPropertyScopeOutput, 0), 1.0f);
    EXPECT_FLOAT_EQ(speakers.GetVolumeControlDecibelValue(kAudioObjectPropertyScopeOutput, 0),
                    0.0f);
    EXPECT_EQ(speakers.CopyDataSourceNameForID(
                  kAudioObjectPropertyScopeOutput, 0,
                  speakers.GetCurrentDataSourceID(kAudioObjectPropertyScopeOutput, 0)),
              "Internal Speakers");
    // The UID is a global property: it answers in any scope.
    EXPECT_TRUE(
        speakers.HasProperty({kAudioDevicePropertyDeviceUID, kAudioObjectPropertyScopeInput, 0}));

    CAHALAudioStream stream(speakers.GetStreamByIndex(false, 0), hw_);
    EXPECT_FALSE(stream.GetDirection());
    EXPECT_EQ(stream.GetStartingChannel(), 1u);
    const CAStreamBasicDescription format = stream.GetCurrentVirtualFormat();
    EXPECT_TRUE(format.IsPCM());
    EXPECT_EQ(format.NumberChannels(), 2u);
    EXPECT_EQ(format.SampleWordSize(), 4u);
    EXPECT_EQ(stream.GetAvailableVirtualFormats().size(), 4u);
}

TEST_F(HalWrappers, FailuresThrowTheirStatus) {
    auto statusOf = [](auto&& f) -> OSStatus {
        try {
            f();
        } catch (const CAException& e) {
            return e.GetError();
        }
        return kAudioHardwareNoError;
    };
    CAHALAudioDevice gone(12345, hw_);
    EXPECT_EQ(statusOf([&] { gone.CopyName(); }), kAudioHardwareBadObjectError);
    EXPECT_FALSE(CAHALAudioDevice(kAudioObjectUnknown, hw_).IsAlive());

    CAHALAudioDevice hdmi("HDMI:DELL U2720Q:0", hw_);
    EXPECT_FALSE(hdmi.VolumeControlIsSettable(kAudioObjectPropertyScopeOutput, 0));
    EXPECT_EQ(statusOf([&] {
                  hdmi.SetVolumeControlScalarValue(kAudioObjectPropertyScopeOutput, 0, 0.5f);
              }),
              kAudioHardwareIllegalOperationError);
    EXPECT_EQ(statusOf([&] { hdmi.GetMuteControlValue(kAudioObjectPropertyScopeOutput, 0); }),
              kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(statusOf([&] { hdmi.SetNominalSampleRate(12345.0); }),
              kAudioDeviceUnsupportedFormatError);
    // A value of the wrong kind is a size error, as with a wrong byte count.
    EXPECT_EQ(statusOf([&] {
                  hdmi.SetPropertyData(
                      {kAudioDevicePropertyNominalSampleRate, kAudioObjectPropertyScopeGlobal, 0},
                      PropertyValue(UInt32{48000}));
              }),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(statusOf([&] { hdmi.GetCurrentTime(); }), kAudioHardwareNotRunningError);

    hw_->failNextCall("HDMI:DELL U2720Q:0", kAudioObjectPropertyName, kAudioHardwareNotReadyError);
    EXPECT_EQ(statusOf([&] { hdmi.CopyName(); }), kAudioHardwareNotReadyError);
    EXPECT_EQ(hdmi.CopyName(), "DELL U2720Q");  // only the next call fails

    hw_->stopServer();
    EXPECT_EQ(statusOf([&] { system_.GetAudioDevices(); }), kAudioHardwareNotRunningError);
}

TEST_F(HalWrappers, RunningDeviceReportsItsClock) {
    ASSERT_TRUE(hw_->setRunning("BuiltInMicrophoneDevice", true));
    CAHALAudioDevice mic("BuiltInMicrophoneDevice", hw_);
    const AudioTimeStamp t = mic.GetCurrentTime();
    EXPECT_EQ(t.mFlags, kAudioTimeStampSampleHostTimeValid);
    EXPECT_GT(t.mHostTime, 0u);
    EXPECT_GE(t.mSampleTime, 0.0);
}

TEST(AudioHardwareSelection, InstalledBackendWinsThenEnvironmentThenSimulated) {
    auto mine = std::make_shared<SimulatedAudioHardware>();
    AudioHardware::install(mine);
    EXPECT_EQ(AudioHardware::current(), mine);

    AudioHardware::install(nullptr);
    ::setenv("ZDR_AUDIO_BACKEND", "no-such-backend", 1);
    auto chosen = AudioHardware::current();
    ::unsetenv("ZDR_AUDIO_BACKEND");
    ASSERT_NE(chosen, nullptr);
    EXPECT_EQ(chosen->backendName(), "simulated");
    ASSERT_TRUE(AudioHardware::lastSelectionProblem().has_value());
    EXPECT_NE(AudioHardware::lastSelectionProblem()->find("no-such-backend"), std::string::npos);

    AudioHardware::registerBackend(
        "test-probe", [] { return std::make_shared<SimulatedAudioHardware>(); }, false);
    ::setenv("ZDR_AUDIO_BACKEND", "test-probe", 1);
    AudioHardware::install(nullptr);
    auto probed = AudioHardware::current();
    ::unsetenv("ZDR_AUDIO_BACKEND");
    EXPECT_NE(probed, chosen);
    EXPECT_TRUE(CAHALAudioSystemObject(probed).GetAudioDevices().empty());
    AudioHardware::install(nullptr);
}

}  // namespace
}  // namespace zdr::hal
