// The built-in machine of the simulated backend: what a typical desktop
// recording setup looks like, so that the tools and demos have something real
// to show without any audio server.
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"

namespace zdr::hal {

namespace {
SimulatedControl control(UInt32 element, Float32 value, bool settable = true) {
    return SimulatedControl{element, value, settable};
}
AudioChannelLayout stereoLayout() {
    AudioChannelLayout l;
    l.mChannelDescriptions.resize(2);
    l.mChannelDescriptions[0].mChannelLabel = kAudioChannelLabel_Left;
    l.mChannelDescriptions[1].mChannelLabel = kAudioChannelLabel_Right;
    return l;
}
}  // namespace

SimulatedHardwareDescription SimulatedAudioHardware::defaultDesktop() {
    SimulatedHardwareDescription d;

    SimulatedDeviceSpec speakers;
    speakers.uid = "BuiltInSpeakerDevice";
    speakers.name = "Built-in Speakers";
    speakers.manufacturer = "Apple Inc.";
    speakers.transportType = kAudioDeviceTransportTypeBuiltIn;
    speakers.availableSampleRates = {44100.0, 48000.0, 88200.0, 96000.0};
    speakers.output.streamChannels = {2};
    speakers.output.volumes = {control(0, 0.6f), control(1, 0.6f), control(2, 0.6f)};
    speakers.output.mutes = {control(0, 0.0f)};
    speakers.output.dataSources = {{fourcc("ispk"), "Internal Speakers"},
                                   {fourcc("hdpn"), "Headphones"}};
    speakers.output.currentDataSource = fourcc("ispk");
    speakers.output.preferredLayout = stereoLayout();
    speakers.output.safetyOffset = 32;
    speakers.output.latency = 24;
    d.devices.push_back(speakers);

    SimulatedDeviceSpec mic;
    mic.uid = "BuiltInMicrophoneDevice";
    mic.name = "Built-in Microphone";
    mic.manufacturer = "Apple Inc.";
    mic.transportType = kAudioDeviceTransportTypeBuiltIn;
    mic.availableSampleRates = {44100.0, 48000.0, 96000.0};
    mic.input.streamChannels = {2};
    mic.input.volumes = {control(0, 0.75f), control(1, 0.75f), control(2, 0.75f)};
    mic.input.dataSources = {{fourcc("imic"), "Internal Microphone"},
                             {fourcc("emic"), "External Microphone"}};
    mic.input.currentDataSource = fourcc("imic");
    mic.input.safetyOffset = 24;
    d.devices.push_back(mic);

    SimulatedDeviceSpec headset;
    headset.uid = "AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2";
    headset.name = "USB Headset";
    headset.manufacturer = "Logitech";
    headset.transportType = kAudioDeviceTransportTypeUSB;
    headset.nominalSampleRate = 44100.0;
    headset.availableSampleRates = {44100.0, 48000.0};
    headset.maxVariableBufferFrameSize = 1024;
    headset.input.streamChannels = {1};
    headset.input.volumes = {control(1, 0.8f)};  // per channel only, no main control
    headset.input.mutes = {control(1, 0.0f)};
    headset.input.bitsPerChannel = 16;
    headset.input.isFloat = false;
    headset.output.streamChannels = {2};
    headset.output.volumes = {control(0, 0.5f), control(1, 0.5f), control(2, 0.5f)};
    headset.output.mutes = {control(0, 0.0f)};
    headset.output.bitsPerChannel = 16;
    headset.output.isFloat = false;
    headset.input.safetyOffset = 16;
    headset.output.safetyOffset = 16;
    d.devices.push_back(headset);

    SimulatedDeviceSpec hdmi;
    hdmi.uid = "HDMI:DELL U2720Q:0";
    hdmi.name = "DELL U2720Q";
    hdmi.manufacturer = "Dell";
    hdmi.transportType = kAudioDeviceTransportTypeHDMI;
    hdmi.output.streamChannels = {2};
    hdmi.output.volumes = {control(0, 1.0f, /*settable=*/false)};  // fixed by the display
    hdmi.output.safetyOffset = 64;
    d.devices.push_back(hdmi);

    SimulatedDeviceSpec airplay;
    airplay.uid = "AirPlay:Living Room:6C:4A:85:12:34:56";
    airplay.name = "Living Room";
    airplay.manufacturer = "Apple Inc.";
    airplay.transportType = kAudioDeviceTransportTypeAirPlay;
    airplay.nominalSampleRate = 44100.0;
    airplay.availableSampleRates = {44100.0};
    airplay.output.streamChannels = {2};
    airplay.output.volumes = {control(0, 0.4f)};
    airplay.output.mutes = {control(0, 0.0f)};
    airplay.output.safetyOffset = 512;
    airplay.output.latency = 88200;
    airplay.canBeDefaultSystem = false;
    d.devices.push_back(airplay);

    SimulatedDeviceSpec capture;
    capture.uid = "ZDRAudioCapture:3";
    capture.name = "ZDR Audio Capture";
    capture.manufacturer = "Tall Pine Craft";
    capture.transportType = kAudioDeviceTransportTypeVirtual;
    capture.input.streamChannels = {2};
    capture.output.streamChannels = {2};
    capture.output.volumes = {control(0, 1.0f)};
    capture.canBeDefaultSystem = false;
    d.devices.push_back(capture);

    SimulatedDeviceSpec preview = capture;
    preview.uid = "ZDRAudioCapture:4";
    preview.name = "ZDR Audio Capture Preview";
    preview.hidden = true;
    preview.canBeDefault = false;
    d.devices.push_back(preview);

    d.defaultOutput = speakers.uid;
    d.defaultSystemOutput = speakers.uid;
    d.defaultInput = mic.uid;
    return d;
}

}  // namespace zdr::hal
