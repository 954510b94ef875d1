#include "zdr/audio/hal/ca_hal_audio_device.h"

namespace zdr::hal {

namespace {
AudioObjectPropertyAddress globalMain(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
AudioObjectPropertyAddress scoped(AudioObjectPropertySelector selector, bool isInput) {
    return {selector, CAHALAudioDevice::scope(isInput), kAudioObjectPropertyElementMain};
}
}  // namespace

CAHALAudioDevice::CAHALAudioDevice(AudioObjectID deviceID, std::shared_ptr<AudioHardware> hardware)
    : CAHALAudioObject(deviceID, std::move(hardware)) {}

CAHALAudioDevice::CAHALAudioDevice(const std::string& uid, std::shared_ptr<AudioHardware> hardware)
    : CAHALAudioObject(kAudioObjectUnknown, std::move(hardware)) {
    SetObjectID(hardware_->translateUIDToDevice(uid));
}

std::string CAHALAudioDevice::CopyDeviceUID() const {
    return GetPropertyData_String(globalMain(kAudioDevicePropertyDeviceUID));
}

std::string CAHALAudioDevice::CopyModelUID() const {
    return GetPropertyData_String(globalMain(kAudioDevicePropertyModelUID));
}

UInt32 CAHALAudioDevice::GetTransportType() const {
    return GetPropertyData_UInt32(globalMain(kAudioDevicePropertyTransportType));
}

bool CAHALAudioDevice::IsAlive() const {
    if (GetObjectID() == kAudioObjectUnknown) return false;
    return GetPropertyData_UInt32(globalMain(kAudioDevicePropertyDeviceIsAlive)) != 0;
}

bool CAHALAudioDevice::IsRunning() const {
    return GetPropertyData_UInt32(globalMain(kAudioDevicePropertyDeviceIsRunning)) != 0;
}

bool CAHALAudioDevice::IsHidden() const {
    const auto address = globalMain(kAudioDevicePropertyIsHidden);
    return HasProperty(address) && GetPropertyData_UInt32(address) != 0;
}

bool CAHALAudioDevice::CanBeDefaultDevice(bool isInput, bool isSystem) const {
    return GetPropertyData_UInt32(scoped(isSystem
                                             ? kAudioDevicePropertyDeviceCanBeDefaultSystemDevice
                                             : kAudioDevicePropertyDeviceCanBeDefaultDevice,
                                         isInput)) != 0;
}

Float64 CAHALAudioDevice::GetNominalSampleRate() const {
    return GetPropertyData_Float64(globalMain(kAudioDevicePropertyNominalSampleRate));
}

void CAHALAudioDevice::SetNominalSampleRate(Float64 rate) {
    SetPropertyData(globalMain(kAudioDevicePropertyNominalSampleRate), PropertyValue(rate));
}

std::vector<AudioValueRange> CAHALAudioDevice::GetAvailableNominalSampleRateRanges() const {
    return typed<std::vector<AudioValueRange>>(
        GetPropertyData(globalMain(kAudioDevicePropertyAvailableNominalSampleRates)));
}

Float64 CAHALAudioDevice::GetActualSampleRate() const {
    return GetPropertyData_Float64(globalMain(kAudioDevicePropertyActualSampleRate));
}

UInt32 CAHALAudioDevice::GetIOBufferSize() const {
    return GetPropertyData_UInt32(globalMain(kAudioDevicePropertyBufferFrameSize));
}

void CAHALAudioDevice::SetIOBufferSize(UInt32 frames) {
    SetPropertyData(globalMain(kAudioDevicePropertyBufferFrameSize), PropertyValue(frames));
}

AudioValueRange CAHALAudioDevice::GetIOBufferSizeRange() const {
    return typed<AudioValueRange>(
        GetPropertyData(globalMain(kAudioDevicePropertyBufferFrameSizeRange)));
}

bool CAHALAudioDevice::UsesVariableIOBufferSizes() const {
    return HasProperty(globalMain(kAudioDevicePropertyUsesVariableBufferFrameSizes));
}

UInt32 CAHALAudioDevice::GetMaximumVariableIOBufferSize() const {
    return GetPropertyData_UInt32(globalMain(kAudioDevicePropertyUsesVariableBufferFrameSizes));
}

UInt32 CAHALAudioDevice::GetSafetyOffset(bool isInput) const {
    return GetPropertyData_UInt32(scoped(kAudioDevicePropertySafetyOffset, isInput));
}

UInt32 CAHALAudioDevice::GetLatency(bool isInput) const {
    return GetPropertyData_UInt32(scoped(kAudioDevicePropertyLatency, isInput));
}

UInt32 CAHALAudioDevice::GetNumberStreams(bool isInput) const {
    return GetPropertyDataSize(scoped(kAudioDevicePropertyStreams, isInput)) /
           static_cast<UInt32>(sizeof(AudioObjectID));
}

std::vector<AudioObjectID> CAHALAudioDevice::GetStreams(bool isInput) const {
    return GetPropertyData_ArrayOfUInt32(scoped(kAudioDevicePropertyStreams, isInput));
}

AudioObjectID CAHALAudioDevice::GetStreamByIndex(bool isInput, UInt32 index) const {
    const auto streams = GetStreams(isInput);
    return index < streams.size() ? streams[index] : kAudioObjectUnknown;
}

AudioBufferListConfiguration CAHALAudioDevice::GetStreamConfiguration(bool isInput) const {
    return typed<AudioBufferListConfiguration>(
        GetPropertyData(scoped(kAudioDevicePropertyStreamConfiguration, isInput)));
}

UInt32 CAHALAudioDevice::GetTotalNumberChannels(bool isInput) const {
    return GetStreamConfiguration(isInput).totalChannels();
}

bool CAHALAudioDevice::HasPreferredChannelLayout(bool isInput) const {
    return HasProperty(scoped(kAudioDevicePropertyPreferredChannelLayout, isInput));
}

AudioChannelLayout CAHALAudioDevice::GetPreferredChannelLayout(bool isInput) const {
    return typed<AudioChannelLayout>(
        GetPropertyData(scoped(kAudioDevicePropertyPreferredChannelLayout, isInput)));
}

std::vector<UInt32> CAHALAudioDevice::GetPreferredStereoChannels(bool isInput) const {
    return GetPropertyData_ArrayOfUInt32(
        scoped(kAudioDevicePropertyPreferredChannelsForStereo, isInput));
}

bool CAHALAudioDevice::HasVolumeControl(AudioObjectPropertyScope scope, UInt32 element) const {
    return HasProperty({kAudioDevicePropertyVolumeScalar, scope, element});
}

bool CAHALAudioDevice::VolumeControlIsSettable(AudioObjectPropertyScope scope,
                                               UInt32 element) const {
    return IsPropertySettable({kAudioDevicePropertyVolumeScalar, scope, element});
}

Float32 CAHALAudioDevice::GetVolumeControlScalarValue(AudioObjectPropertyScope scope,
                                                      UInt32 element) const {
    return GetPropertyData_Float32({kAudioDevicePropertyVolumeScalar, scope, element});
}

Float32 CAHALAudioDevice::GetVolumeControlDecibelValue(AudioObjectPropertyScope scope,
                                                       UInt32 element) const {
    return GetPropertyData_Float32({kAudioDevicePropertyVolumeDecibels, scope, element});
}

void CAHALAudioDevice::SetVolumeControlScalarValue(AudioObjectPropertyScope scope, UInt32 element,
                                                   Float32 value) {
    SetPropertyData({kAudioDevicePropertyVolumeScalar, scope, element}, PropertyValue(value));
}

bool CAHALAudioDevice::HasMuteControl(AudioObjectPropertyScope scope, UInt32 element) const {
    return HasProperty({kAudioDevicePropertyMute, scope, element});
}

bool CAHALAudioDevice::MuteControlIsSettable(AudioObjectPropertyScope scope, UInt32 element) const {
    return IsPropertySettable({kAudioDevicePropertyMute, scope, element});
}

bool CAHALAudioDevice::GetMuteControlValue(AudioObjectPropertyScope scope, UInt32 element) const {
    return GetPropertyData_UInt32({kAudioDevicePropertyMute, scope, element}) != 0;
}

void CAHALAudioDevice::SetMuteControlValue(AudioObjectPropertyScope scope, UInt32 element,
                                           bool muted) {
    SetPropertyData({kAudioDevicePropertyMute, scope, element},
                    PropertyValue(UInt32{muted ? 1u : 0u}));
}

bool CAHALAudioDevice::HasDataSourceControl(AudioObjectPropertyScope scope, UInt32 element) const {
    return HasProperty({kAudioDevicePropertyDataSource, scope, element});
}

bool CAHALAudioDevice::DataSourceControlIsSettable(AudioObjectPropertyScope scope,
                                                   UInt32 element) const {
    return IsPropertySettable({kAudioDevicePropertyDataSource, scope, element});
}

UInt32 CAHALAudioDevice::GetCurrentDataSourceID(AudioObjectPropertyScope scope,
                                                UInt32 element) const {
    return GetPropertyData_UInt32({kAudioDevicePropertyDataSource, scope, element});
}

void CAHALAudioDevice::SetCurrentDataSourceByID(AudioObjectPropertyScope scope, UInt32 element,
                                                UInt32 id) {
    SetPropertyData({kAudioDevicePropertyDataSource, scope, element}, PropertyValue(id));
}

UInt32 CAHALAudioDevice::GetNumberAvailableDataSources(AudioObjectPropertyScope scope,
                                                       UInt32 element) const {
    return GetPropertyDataSize({kAudioDevicePropertyDataSources, scope, element}) /
           static_cast<UInt32>(sizeof(UInt32));
}

std::vector<UInt32> CAHALAudioDevice::GetAvailableDataSources(AudioObjectPropertyScope scope,
                                                              UInt32 element) const {
    return GetPropertyData_ArrayOfUInt32({kAudioDevicePropertyDataSources, scope, element});
}

std::string CAHALAudioDevice::CopyDataSourceNameForID(AudioObjectPropertyScope scope,
                                                      UInt32 element, UInt32 id) const {
    const PropertyValue qualifier(id);
    return GetPropertyData_String({kAudioDevicePropertyDataSourceNameForIDCFString, scope, element},
                                  &qualifier);
}

AudioTimeStamp CAHALAudioDevice::GetCurrentTime() const {
    AudioTimeStamp ts;
    ts.mFlags = kAudioTimeStampSampleHostTimeValid;
    ThrowIfError(hardware_->deviceGetCurrentTime(GetObjectID(), ts));
    return ts;
}

}  // namespace zdr::hal
