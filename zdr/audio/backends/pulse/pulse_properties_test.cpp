#include "zdr/audio/backends/pulse/detail/pulse_properties.h"

#include <gtest/gtest.h>
#include <pulse/channelmap.h>
#include <pulse/sample.h>
#include <pulse/volume.h>

namespace zdr::detail {
namespace {

using namespace zdr::hal;

PulseDevice stereoSink() {
    PulseDevice d;
    d.kind = PulseDeviceKind::sink;
    d.name = "alsa_output.pci-0000_00_1f.3.analog-stereo";
    d.driver = "module-alsa-card.c";
    d.rate = 48000;
    d.channels = 2;
    d.sampleFormat = PA_SAMPLE_S16LE;
    d.channelPositions = {PA_CHANNEL_POSITION_FRONT_LEFT, PA_CHANNEL_POSITION_FRONT_RIGHT};
    d.volume = {PA_VOLUME_NORM, PA_VOLUME_NORM / 2};
    d.properties = {{"device.bus", "pci"}, {"device.vendor.name", "Intel Corporation"}};
    d.ports = {{"analog-output-speaker", "Speakers", 10000, 0},
               {"analog-output-headphones", "Headphones", 9900, 0}};
    d.activePort = "analog-output-headphones";
    return d;
}

TEST(PulseProperties, TransportTypeFollowsBusApiAndDriver) {
    PulseDevice d = stereoSink();
    EXPECT_EQ(pulseTransportType(d), kAudioDeviceTransportTypeBuiltIn);
    d.activePort = "hdmi-output-0";
    EXPECT_EQ(pulseTransportType(d), kAudioDeviceTransportTypeHDMI);
    d.properties["device.bus"] = "usb";
    EXPECT_EQ(pulseTransportType(d), kAudioDeviceTransportTypeUSB);
    d.properties = {{"device.api", "bluez"}};
    EXPECT_EQ(pulseTransportType(d), kAudioDeviceTransportTypeBluetooth);
    d.properties = {};
    d.driver = "module-raop-sink.c";
    EXPECT_EQ(pulseTransportType(d), kAudioDeviceTransportTypeAirPlay);
    d.driver = "module-null-sink.c";
    EXPECT_EQ(pulseTransportType(d), kAudioDeviceTransportTypeVirtual);
    PulseDevice monitor = stereoSink();
    monitor.kind = PulseDeviceKind::source;
    monitor.isMonitor = true;
    EXPECT_EQ(pulseTransportType(monitor), kAudioDeviceTransportTypeVirtual);
}

TEST(PulseProperties, StreamFormatDescribesTheSampleSpec) {
    PulseDevice d = stereoSink();
    auto f = pulseStreamFormat(d);
    EXPECT_EQ(f.mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(f.mSampleRate, 48000.0);
    EXPECT_EQ(f.mChannelsPerFrame, 2u);
    EXPECT_EQ(f.mBitsPerChannel, 16u);
    EXPECT_EQ(f.mBytesPerFrame, 4u);
    EXPECT_EQ(f.mFormatFlags, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked);

    d.sampleFormat = PA_SAMPLE_FLOAT32BE;
    d.channels = 6;
    f = pulseStreamFormat(d);
    EXPECT_EQ(f.mBytesPerFrame, 24u);
    EXPECT_EQ(f.mFormatFlags,
              kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked | kAudioFormatFlagIsBigEndian);

    d.sampleFormat = PA_SAMPLE_S24_32LE;
    d.channels = 2;
    f = pulseStreamFormat(d);
    EXPECT_EQ(f.mBitsPerChannel, 24u);
    EXPECT_EQ(f.mBytesPerFrame, 8u);  // 32-bit containers
}

TEST(PulseProperties, ChannelMapBecomesLayoutLabels) {
    PulseDevice d = stereoSink();
    auto layout = pulseChannelLayout(d);
    ASSERT_EQ(layout.numberChannelDescriptions(), 2u);
    EXPECT_EQ(layout.mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Left);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Right);
    EXPECT_EQ(pulseChannelLabel(PA_CHANNEL_POSITION_MONO), kAudioChannelLabel_Mono);
    EXPECT_EQ(pulseChannelLabel(PA_CHANNEL_POSITION_REAR_LEFT), kAudioChannelLabel_LeftSurround);
    EXPECT_EQ(pulseChannelLabel(PA_CHANNEL_POSITION_AUX3), kAudioChannelLabel_Discrete_0 + 3);
    EXPECT_EQ(pulseChannelLabel(PA_CHANNEL_POSITION_TOP_REAR_CENTER), kAudioChannelLabel_Unknown);
}

TEST(PulseProperties, VolumeScalarsKeepTheBalance) {
    PulseDevice d = stereoSink();
    EXPECT_FLOAT_EQ(pulseMainVolume(d), 1.0f);  // the loudest channel
    EXPECT_NEAR(pulseVolumeToScalar(d.volume[1]), 0.5f, 1e-4);
    EXPECT_FLOAT_EQ(pulseVolumeToScalar(PA_VOLUME_NORM * 2), 1.0f);  // boosted reads as full
    EXPECT_EQ(pulseScalarToVolume(-1.0f), PA_VOLUME_MUTED);
    EXPECT_EQ(pulseScalarToVolume(std::numeric_limits<float>::quiet_NaN()), PA_VOLUME_MUTED);

    auto halved = pulseWithMainVolume(d, 0.5f);
    ASSERT_EQ(halved.size(), 2u);
    EXPECT_NEAR(halved[0], PA_VOLUME_NORM / 2, 1);
    EXPECT_NEAR(halved[1], PA_VOLUME_NORM / 4, 1);

    d.volume = {PA_VOLUME_MUTED, PA_VOLUME_MUTED};
    EXPECT_EQ(pulseWithMainVolume(d, 0.25f),
              (std::vector<uint32_t>{PA_VOLUME_NORM / 4, PA_VOLUME_NORM / 4}));

    d = stereoSink();
    auto right = pulseWithChannelVolume(d, 2, 1.0f);
    EXPECT_EQ(right, (std::vector<uint32_t>{PA_VOLUME_NORM, PA_VOLUME_NORM}));
    EXPECT_EQ(pulseWithChannelVolume(d, 3, 0.0f), d.volume);  // no such channel
    EXPECT_LE(pulseVolumeToDecibels(PA_VOLUME_MUTED), -100.0f);
    EXPECT_NEAR(pulseVolumeToDecibels(PA_VOLUME_NORM), 0.0f, 1e-4);
}

TEST(PulseProperties, PortsAreDataSourcesByPosition) {
    PulseDevice d = stereoSink();
    EXPECT_EQ(pulseDataSourceIDs(d), (std::vector<UInt32>{1, 2}));
    EXPECT_EQ(pulseDataSourceID(d, d.activePort), 2u);
    EXPECT_FALSE(pulseDataSourceID(d, "missing"));
    EXPECT_EQ(pulsePortName(d, 1), "analog-output-speaker");
    EXPECT_EQ(pulsePortDescription(d, 2), "Headphones");
    EXPECT_FALSE(pulsePortName(d, 0));
    EXPECT_FALSE(pulsePortName(d, 3));
}

TEST(PulseProperties, BufferFramesComeFromLatency) {
    PulseDevice d = stereoSink();
    EXPECT_EQ(pulseBufferFrames(d), 512u);  // nothing known
    d.configuredLatencyUsec = 20000;
    EXPECT_EQ(pulseBufferFrames(d), 960u);
    d.latencyUsec = 10000;
    EXPECT_EQ(pulseLatencyFrames(d), 480u);
}

TEST(PulseProperties, ChangedAddressesNameExactlyWhatChanged) {
    PulseDevice before = stereoSink();
    PulseDevice after = before;
    EXPECT_TRUE(pulseChangedAddresses(before, after).empty());

    after.volume[1] = PA_VOLUME_NORM / 4;  // the right channel only; main unchanged
    auto changed = pulseChangedAddresses(before, after);
    ASSERT_EQ(changed.size(), 2u);
    EXPECT_EQ(changed[0], (AudioObjectPropertyAddress{kAudioDevicePropertyVolumeScalar,
                                                      kAudioObjectPropertyScopeOutput, 2}));
    EXPECT_EQ(changed[1].mSelector, kAudioDevicePropertyVolumeDecibels);

    after = before;
    after.volume = {PA_VOLUME_NORM / 2, PA_VOLUME_NORM / 2};
    changed = pulseChangedAddresses(before, after);
    EXPECT_EQ(changed[0], (AudioObjectPropertyAddress{kAudioDevicePropertyVolumeScalar,
                                                      kAudioObjectPropertyScopeOutput, 0}));

    after = before;
    after.kind = before.kind = PulseDeviceKind::source;
    after.mute = true;
    after.activePort = "analog-output-speaker";
    after.state = 0;
    changed = pulseChangedAddresses(before, after);
    auto has = [&](AudioObjectPropertySelector s, AudioObjectPropertyScope scope) {
        return std::any_of(changed.begin(), changed.end(),
                           [&](auto& a) { return a.mSelector == s && a.mScope == scope; });
    };
    EXPECT_TRUE(has(kAudioDevicePropertyMute, kAudioObjectPropertyScopeInput));
    EXPECT_TRUE(has(kAudioDevicePropertyDataSource, kAudioObjectPropertyScopeInput));
    EXPECT_TRUE(has(kAudioDevicePropertyDeviceIsRunning, kAudioObjectPropertyScopeGlobal));
    EXPECT_FALSE(has(kAudioDevicePropertyNominalSampleRate, kAudioObjectPropertyScopeGlobal));

    after = before;
    after.rate = 44100;
    after.channels = 1;
    changed = pulseChangedAddresses(before, after);
    EXPECT_TRUE(has(kAudioDevicePropertyNominalSampleRate, kAudioObjectPropertyScopeGlobal));
    EXPECT_TRUE(has(kAudioDevicePropertyStreams, kAudioObjectPropertyScopeInput));
    EXPECT_TRUE(has(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput));
}

}  // namespace
}  // namespace zdr::detail
