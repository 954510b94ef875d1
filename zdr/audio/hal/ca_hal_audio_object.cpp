#include "zdr/audio/hal/ca_hal_audio_object.h"

namespace zdr::hal {

namespace {
AudioObjectPropertyAddress globalMain(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
}  // namespace

CAHALAudioObject::CAHALAudioObject(AudioObjectID objectID, std::shared_ptr<AudioHardware> hardware)
    : objectID_(objectID), hardware_(hardware ? std::move(hardware) : AudioHardware::current()) {}

bool CAHALAudioObject::HasProperty(const AudioObjectPropertyAddress& address) const {
    return hardware_->hasProperty(GetObjectID(), address);
}

bool CAHALAudioObject::IsPropertySettable(const AudioObjectPropertyAddress& address) const {
    bool settable = false;
    ThrowIfError(hardware_->isPropertySettable(GetObjectID(), address, settable));
    return settable;
}

UInt32 CAHALAudioObject::GetPropertyDataSize(const AudioObjectPropertyAddress& address,
                                             const PropertyValue* qualifier) const {
    UInt32 size = 0;
    ThrowIfError(hardware_->getPropertyDataSize(GetObjectID(), address, qualifier, size));
    return size;
}

PropertyValue CAHALAudioObject::GetPropertyData(const AudioObjectPropertyAddress& address,
                                                const PropertyValue* qualifier) const {
    PropertyValue value;
    ThrowIfError(hardware_->getPropertyData(GetObjectID(), address, qualifier, value));
    return value;
}

void CAHALAudioObject::SetPropertyData(const AudioObjectPropertyAddress& address,
                                       const PropertyValue& value) {
    ThrowIfError(hardware_->setPropertyData(GetObjectID(), address, value));
}

UInt32 CAHALAudioObject::GetPropertyData_UInt32(const AudioObjectPropertyAddress& address,
                                                const PropertyValue* qualifier) const {
    return typed<UInt32>(GetPropertyData(address, qualifier));
}

Float32 CAHALAudioObject::GetPropertyData_Float32(const AudioObjectPropertyAddress& address) const {
    return typed<Float32>(GetPropertyData(address));
}

Float64 CAHALAudioObject::GetPropertyData_Float64(const AudioObjectPropertyAddress& address) const {
    return typed<Float64>(GetPropertyData(address));
}

std::string CAHALAudioObject::GetPropertyData_String(const AudioObjectPropertyAddress& address,
                                                     const PropertyValue* qualifier) const {
    return typed<std::string>(GetPropertyData(address, qualifier));
}

std::vector<UInt32> CAHALAudioObject::GetPropertyData_ArrayOfUInt32(
    const AudioObjectPropertyAddress& address) const {
    return typed<std::vector<UInt32>>(GetPropertyData(address));
}

void CAHALAudioObject::AddPropertyListenerBlock(const AudioObjectPropertyAddress& address,
                                                const DispatchQueue& queue,
                                                const ListenerBlockRef& block) {
    ThrowIfError(hardware_->addPropertyListenerBlock(GetObjectID(), address, queue, block));
}

void CAHALAudioObject::RemovePropertyListenerBlock(const AudioObjectPropertyAddress& address,
                                                   const DispatchQueue& queue,
                                                   const ListenerBlockRef& block) {
    ThrowIfError(hardware_->removePropertyListenerBlock(GetObjectID(), address, queue, block));
}

std::string CAHALAudioObject::CopyName() const {
    return GetPropertyData_String(globalMain(kAudioObjectPropertyName));
}

std::string CAHALAudioObject::CopyManufacturer() const {
    return GetPropertyData_String(globalMain(kAudioObjectPropertyManufacturer));
}

}  // namespace zdr::hal
