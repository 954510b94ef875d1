// AudioDevice: its channel lists, device-level volume, mute and meters, and
// making it the system default. The lists and their locks live in
// DeviceChannels; this file hands it the device.
#include "zdr/audio/audio_device.h"
#include "zdr/audio/default_devices.h"
#include "zdr/audio/default_system_output_audio_device.h"

namespace zdr {

std::shared_ptr<AudioChannelOwner> AudioDevice::channelOwner() const {
    return std::const_pointer_cast<AudioDevice>(shared_from_this());
}

AudioDevice::ChannelList AudioDevice::recordChannels() {
    return channels_.recordChannels(channelOwner());
}
AudioDevice::ChannelList AudioDevice::playbackChannels() {
    return channels_.playbackChannels(channelOwner());
}
std::shared_ptr<AudioChannel> AudioDevice::channelForIndex(std::int64_t index) {
    return channels_.channelForIndex(channelOwner(), index, true);
}
float AudioDevice::averageChannelVolume(bool record) {
    return channels_.averageChannelVolume(channelOwner(), record);
}
float AudioDevice::outputVolume() { return channels_.outputVolume(channelOwner()); }
float AudioDevice::inputVolume() { return channels_.inputVolume(channelOwner()); }
void AudioDevice::setOutputVolume(float volume) {
    channels_.setOutputVolume(channelOwner(), volume);
}
void AudioDevice::setInputVolume(float volume) { channels_.setInputVolume(channelOwner(), volume); }
bool AudioDevice::muted() { return channels_.muted(channelOwner()); }
void AudioDevice::setMuted(bool muted) { channels_.setMuted(channelOwner(), muted); }
void AudioDevice::unmuteDevice() { channels_.unmuteDevice(channelOwner()); }
void AudioDevice::setAllInputAndOutputChannelVolumesTo(float volume, bool forInput,
                                                       bool includeMaster) {
    channels_.setAllInputAndOutputChannelVolumesTo(channelOwner(), volume, forInput, includeMaster);
}
void AudioDevice::setAllInputAndOutputChannelVolumesTo(float volume, bool includeMaster) {
    channels_.setAllInputAndOutputChannelVolumesTo(channelOwner(), volume, includeMaster);
}
void AudioDevice::setAllInputAndOutputChannelVolumesTo(float volume) {
    channels_.setAllInputAndOutputChannelVolumesTo(channelOwner(), volume);
}
float AudioDevice::volumeForChannel(hal::UInt32 channel, bool isInput) {
    return channels_.volumeForChannel(channelOwner(), channel, isInput);
}
float AudioDevice::averageInputVolumeAcrossAllChannels() {
    return channels_.averageInputVolumeAcrossAllChannels(channelOwner());
}
float AudioDevice::maxInputVolumeAcrossAllChannels() {
    return channels_.maxInputVolumeAcrossAllChannels(channelOwner());
}
float AudioDevice::averageOutputVolumeAcrossAllChannels() {
    return channels_.averageOutputVolumeAcrossAllChannels(channelOwner());
}
float AudioDevice::maxOutputVolumeAcrossAllChannels() {
    return channels_.maxOutputVolumeAcrossAllChannels(channelOwner());
}
float AudioDevice::maxPowerInDBAcrossAllChannels() {
    return channels_.maxPowerInDBAcrossAllChannels(channelOwner());
}
void AudioDevice::setMaxPowerInDBAcrossAllChannels(float db) {
    channels_.setMaxPowerInDBAcrossAllChannels(db);
}

void AudioDevice::makeDefaultOutputDevice() {
    makeDefaultAudioDevice(deviceID(), description(), false,
                           coreAudioDevice() ? coreAudioDevice()->hardware() : nullptr);
}
void AudioDevice::makeDefaultInputDevice() {
    makeDefaultAudioDevice(deviceID(), description(), true,
                           coreAudioDevice() ? coreAudioDevice()->hardware() : nullptr);
}
void AudioDevice::showMakeDefaultWarning(const std::string& detail) {
    zdr::showMakeDefaultWarning(description(), detail);
}

}  // namespace zdr
