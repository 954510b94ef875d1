#include "zdr/audio/default_system_output_audio_device.h"

namespace zdr {

std::shared_ptr<DefaultSystemOutputAudioDevice> DefaultSystemOutputAudioDevice::initWithName(
    const std::string& name) {
    // Base initialisation only: the proxy has no HAL object of its own.
    std::shared_ptr<DefaultSystemOutputAudioDevice> proxy(new DefaultSystemOutputAudioDevice());
    proxy->customDeviceName_ = name;
    proxy->setDeviceName(name);
    proxy->setDeviceUID(kDefaultSystemOutputAudioDeviceUniqueID);
    return proxy;
}

DefaultSystemOutputAudioDevice::~DefaultSystemOutputAudioDevice() { customDeviceName_.clear(); }

std::string DefaultSystemOutputAudioDevice::customDeviceName() const { return customDeviceName_; }

namespace {
// The default output device now; looked up on every call so the proxy
// follows the user's choice without listening for it.
std::shared_ptr<AudioDevice> current() { return AudioDevice::defaultOutputDevice(); }
}  // namespace

float DefaultSystemOutputAudioDevice::volume() const {
    auto d = current();
    return d ? d->outputVolume() : 0.0f;
}
void DefaultSystemOutputAudioDevice::setVolume(float volume) {
    if (auto d = current()) d->setOutputVolume(volume);
}

hal::AudioObjectID DefaultSystemOutputAudioDevice::deviceID() const {
    auto d = current();
    return d ? d->deviceID() : 0;
}
std::shared_ptr<AudioDeviceDelegate> DefaultSystemOutputAudioDevice::delegate() const {
    auto d = current();
    return d ? d->delegate() : nullptr;
}
bool DefaultSystemOutputAudioDevice::isAlive() const {
    auto d = current();
    return d && d->isAlive();
}
bool DefaultSystemOutputAudioDevice::hasMasterOutputVolume() const {
    auto d = current();
    return d && d->hasMasterOutputVolume();
}
bool DefaultSystemOutputAudioDevice::hasMasterInputVolume() const {
    auto d = current();
    return d && d->hasMasterInputVolume();
}
bool DefaultSystemOutputAudioDevice::hasMasterOutputMute() const {
    auto d = current();
    return d && d->hasMasterOutputMute();
}
bool DefaultSystemOutputAudioDevice::mono() const {
    auto d = current();
    return d && d->mono();
}
float DefaultSystemOutputAudioDevice::averageInputVolumeAcrossAllChannels() {
    auto d = current();
    return d ? d->averageInputVolumeAcrossAllChannels() : 0.0f;
}
hal::CAHALAudioDevice* DefaultSystemOutputAudioDevice::coreAudioDevice() const {
    // The pointer stays valid while the registry holds the device, which it
    // does until the device is found dead.
    auto d = current();
    return d ? d->coreAudioDevice() : nullptr;
}
hal::Float64 DefaultSystemOutputAudioDevice::nominalSampleRate() const {
    auto d = current();
    return d ? d->nominalSampleRate() : 0.0;
}
hal::UInt32 DefaultSystemOutputAudioDevice::deviceMaxVariableBufferSizeInFrames() const {
    auto d = current();
    return d ? d->deviceMaxVariableBufferSizeInFrames() : 0;
}
std::optional<std::string> DefaultSystemOutputAudioDevice::currentRecordingDatasource() const {
    auto d = current();
    return d ? d->currentRecordingDatasource() : std::nullopt;
}
void DefaultSystemOutputAudioDevice::setCurrentRecordingDatasource(const std::string& name) {
    if (auto d = current()) d->setCurrentRecordingDatasource(name);
}
std::optional<std::string> DefaultSystemOutputAudioDevice::currentPlaybackDatasource() const {
    auto d = current();
    return d ? d->currentPlaybackDatasource() : std::nullopt;
}
void DefaultSystemOutputAudioDevice::setCurrentPlaybackDatasource(const std::string& name) {
    if (auto d = current()) d->setCurrentPlaybackDatasource(name);
}
AudioDevice::ChannelList DefaultSystemOutputAudioDevice::recordChannels() {
    auto d = current();
    return d ? d->recordChannels() : ChannelList{};
}
hal::UInt32 DefaultSystemOutputAudioDevice::recordingChannelCount() {
    auto d = current();
    return d ? d->recordingChannelCount() : 0;
}
AudioDevice::ChannelList DefaultSystemOutputAudioDevice::playbackChannels() {
    auto d = current();
    return d ? d->playbackChannels() : ChannelList{};
}
hal::UInt32 DefaultSystemOutputAudioDevice::playbackChannelCount() {
    auto d = current();
    return d ? d->playbackChannelCount() : 0;
}
hal::UInt32 DefaultSystemOutputAudioDevice::safetyOffset() const {
    auto d = current();
    return d ? d->safetyOffset() : 0;
}
hal::UInt32 DefaultSystemOutputAudioDevice::bufferSizeInFrames() const {
    auto d = current();
    return d ? d->bufferSizeInFrames() : 0;
}
Dictionary DefaultSystemOutputAudioDevice::momentoDictionary() const {
    auto d = current();
    return d ? d->momentoDictionary() : Dictionary{};
}
void DefaultSystemOutputAudioDevice::setMomentoDictionary(const Dictionary& momento) {
    if (auto d = current()) d->setMomentoDictionary(momento);
}
float DefaultSystemOutputAudioDevice::inputVolume() {
    auto d = current();
    return d ? d->inputVolume() : 0.0f;
}
void DefaultSystemOutputAudioDevice::setInputVolume(float volume) {
    if (auto d = current()) d->setInputVolume(volume);
}

}  // namespace zdr
