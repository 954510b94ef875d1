// DefaultSystemOutputAudioDevice: an AudioDevice that stands for whichever
// device is the system's default output device at the moment of each call.
// User interfaces list it beside the real devices and keep it selected while
// the user changes the system's output device.
//
// The registry holds one instance, created on first use under the pseudo-UID
// kDefaultSystemOutputAudioDeviceUniqueID ("Default Output"); no HAL device
// has that UID, so looking it up never reaches the hardware. The proxy owns
// no HAL wrapper, channel lists or listener: every forwarded operation looks
// the default output device up afresh and asks it; with no default device the
// answer is the empty value (0, false, none, an empty list).
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <memory>
#include <string>

#include "zdr/audio/audio_device.h"

namespace zdr {

inline constexpr const char* kDefaultSystemOutputAudioDeviceUniqueID =
    "__ZDR:defaultSystemOutputAudioDeviceUniqueID";

class DefaultSystemOutputAudioDevice : public AudioDevice {
 public:
    static std::shared_ptr<DefaultSystemOutputAudioDevice> initWithName(const std::string& name);
    static std::string defaultSystemOutputAudioDeviceUniqueID() {
        return kDefaultSystemOutputAudioDeviceUniqueID;
    }
    ~DefaultSystemOutputAudioDevice() override;

    std::string customDeviceName() const;

    /// The playback volume of the current default output device.
    float volume() const;
    void setVolume(float volume);

    // ---- Forwarded to the current default output device ----
    hal::AudioObjectID deviceID() const override;
    std::shared_ptr<AudioDeviceDelegate> delegate() const override;
    bool isAlive() const override;
    bool hasMasterOutputVolume() const override;
    bool hasMasterInputVolume() const override;
    bool hasMasterOutputMute() const override;
    bool mono() const override;
    float averageInputVolumeAcrossAllChannels() override;
    hal::CAHALAudioDevice* coreAudioDevice() const override;
    hal::Float64 nominalSampleRate() const override;
    hal::UInt32 deviceMaxVariableBufferSizeInFrames() const override;
    std::optional<std::string> currentRecordingDatasource() const override;
    void setCurrentRecordingDatasource(const std::string& name) override;
    std::optional<std::string> currentPlaybackDatasource() const override;
    void setCurrentPlaybackDatasource(const std::string& name) override;
    ChannelList recordChannels() override;
    hal::UInt32 recordingChannelCount() override;
    ChannelList playbackChannels() override;
    hal::UInt32 playbackChannelCount() override;
    hal::UInt32 safetyOffset() const override;
    hal::UInt32 bufferSizeInFrames() const override;
    Dictionary momentoDictionary() const override;
    void setMomentoDictionary(const Dictionary& momento) override;
    float inputVolume() override;
    void setInputVolume(float volume) override;

    /// Never: the proxy stands for whichever device is the default, so it
    /// stays registered (the same object) while the default device comes and
    /// goes, also across an audio-server restart.
    bool markAsDeadIfDeviceIsNotAlive() override { return false; }

 private:
    DefaultSystemOutputAudioDevice() = default;
    std::string customDeviceName_;
};

}  // namespace zdr
