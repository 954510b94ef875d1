#include "zdr/audio/hal/ca_hal_audio_system_object.h"

namespace zdr::hal {

namespace {
AudioObjectPropertyAddress globalMain(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
AudioObjectPropertySelector defaultSelector(bool isInput, bool isSystem) {
    if (isInput) return kAudioHardwarePropertyDefaultInputDevice;
    return isSystem ? kAudioHardwarePropertyDefaultSystemOutputDevice
                    : kAudioHardwarePropertyDefaultOutputDevice;
}
}  // namespace

CAHALAudioSystemObject::CAHALAudioSystemObject(std::shared_ptr<AudioHardware> hardware)
    : CAHALAudioObject(kAudioObjectSystemObject, std::move(hardware)) {}

UInt32 CAHALAudioSystemObject::GetNumberAudioDevices() const {
    return GetPropertyDataSize(globalMain(kAudioHardwarePropertyDevices)) /
           static_cast<UInt32>(sizeof(AudioObjectID));
}

std::vector<AudioObjectID> CAHALAudioSystemObject::GetAudioDevices() const {
    return GetPropertyData_ArrayOfUInt32(globalMain(kAudioHardwarePropertyDevices));
}

AudioObjectID CAHALAudioSystemObject::GetAudioDeviceAtIndex(UInt32 index) const {
    const auto devices = GetAudioDevices();
    return index < devices.size() ? devices[index] : kAudioObjectUnknown;
}

AudioObjectID CAHALAudioSystemObject::GetAudioDeviceForUID(const std::string& uid) const {
    const PropertyValue qualifier(uid);
    return GetPropertyData_UInt32(globalMain(kAudioHardwarePropertyTranslateUIDToDevice),
                                  &qualifier);
}

AudioObjectID CAHALAudioSystemObject::GetDefaultAudioDevice(bool isInput, bool isSystem) const {
    return GetPropertyData_UInt32(globalMain(defaultSelector(isInput, isSystem)));
}

void CAHALAudioSystemObject::SetDefaultAudioDevice(bool isInput, bool isSystem,
                                                   AudioObjectID device) {
    SetPropertyData(globalMain(defaultSelector(isInput, isSystem)), PropertyValue(UInt32{device}));
}

}  // namespace zdr::hal
