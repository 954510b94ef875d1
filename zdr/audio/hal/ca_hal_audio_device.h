// CAHALAudioDevice: one audio device of the HAL: identity, transport, run
// state, sample rate, buffer sizes, streams and channels, channel layout,
// volume and mute controls per element, data sources and the device clock.
// Failures throw CAException with the HAL status.
//
// Thread safety: every member may be called from any thread; the object ID
// may be rewritten (SetObjectID) while other threads use the wrapper.
#pragma once

#include <string>
#include <vector>

#include "zdr/audio/hal/ca_hal_audio_object.h"

namespace zdr::hal {

class CAHALAudioDevice : public CAHALAudioObject {
 public:
    explicit CAHALAudioDevice(AudioObjectID deviceID,
                              std::shared_ptr<AudioHardware> hardware = nullptr);
    /// The device that `uid` translates to now (kAudioObjectUnknown if none).
    explicit CAHALAudioDevice(const std::string& uid,
                              std::shared_ptr<AudioHardware> hardware = nullptr);

    static AudioObjectPropertyScope scope(bool isInput) {
        return isInput ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput;
    }

    std::string CopyDeviceUID() const;
    std::string CopyModelUID() const;
    UInt32 GetTransportType() const;
    /// False for kAudioObjectUnknown without asking the hardware: an object that
    /// does not exist is not alive.
    bool IsAlive() const;
    bool IsRunning() const;
    bool IsHidden() const;
    bool CanBeDefaultDevice(bool isInput, bool isSystem) const;

    Float64 GetNominalSampleRate() const;
    void SetNominalSampleRate(Float64 rate);
    std::vector<AudioValueRange> GetAvailableNominalSampleRateRanges() const;
    Float64 GetActualSampleRate() const;

    UInt32 GetIOBufferSize() const;
    void SetIOBufferSize(UInt32 frames);
    AudioValueRange GetIOBufferSizeRange() const;
    bool UsesVariableIOBufferSizes() const;
    /// kAudioDevicePropertyUsesVariableBufferFrameSizes: the largest buffer.
    UInt32 GetMaximumVariableIOBufferSize() const;
    UInt32 GetSafetyOffset(bool isInput) const;
    UInt32 GetLatency(bool isInput) const;

    UInt32 GetNumberStreams(bool isInput) const;
    std::vector<AudioObjectID> GetStreams(bool isInput) const;
    AudioObjectID GetStreamByIndex(bool isInput, UInt32 index) const;
    AudioBufferListConfiguration GetStreamConfiguration(bool isInput) const;
    UInt32 GetTotalNumberChannels(bool isInput) const;
    bool HasPreferredChannelLayout(bool isInput) const;
    AudioChannelLayout GetPreferredChannelLayout(bool isInput) const;
    std::vector<UInt32> GetPreferredStereoChannels(bool isInput) const;

    bool HasVolumeControl(AudioObjectPropertyScope scope, UInt32 element) const;
    bool VolumeControlIsSettable(AudioObjectPropertyScope scope, UInt32 element) const;
    Float32 GetVolumeControlScalarValue(AudioObjectPropertyScope scope, UInt32 element) const;
    Float32 GetVolumeControlDecibelValue(AudioObjectPropertyScope scope, UInt32 element) const;
    void SetVolumeControlScalarValue(AudioObjectPropertyScope scope, UInt32 element, Float32 value);

    bool HasMuteControl(AudioObjectPropertyScope scope, UInt32 element) const;
    bool MuteControlIsSettable(AudioObjectPropertyScope scope, UInt32 element) const;
    bool GetMuteControlValue(AudioObjectPropertyScope scope, UInt32 element) const;
    void SetMuteControlValue(AudioObjectPropertyScope scope, UInt32 element, bool muted);

    bool HasDataSourceControl(AudioObjectPropertyScope scope, UInt32 element) const;
    bool DataSourceControlIsSettable(AudioObjectPropertyScope scope, UInt32 element) const;
    UInt32 GetCurrentDataSourceID(AudioObjectPropertyScope scope, UInt32 element) const;
    void SetCurrentDataSourceByID(AudioObjectPropertyScope scope, UInt32 element, UInt32 id);
    UInt32 GetNumberAvailableDataSources(AudioObjectPropertyScope scope, UInt32 element) const;
    std::vector<UInt32> GetAvailableDataSources(AudioObjectPropertyScope scope,
                                                UInt32 element) const;
    std::string CopyDataSourceNameForID(AudioObjectPropertyScope scope, UInt32 element,
                                        UInt32 id) const;

    AudioTimeStamp GetCurrentTime() const;
};

}  // namespace zdr::hal
