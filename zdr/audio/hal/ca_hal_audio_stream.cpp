#include "zdr/audio/hal/ca_hal_audio_stream.h"

namespace zdr::hal {

namespace {
AudioObjectPropertyAddress globalMain(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
}  // namespace

CAHALAudioStream::CAHALAudioStream(AudioObjectID streamID, std::shared_ptr<AudioHardware> hardware)
    : CAHALAudioObject(streamID, std::move(hardware)) {}

bool CAHALAudioStream::GetDirection() const {
    return GetPropertyData_UInt32(globalMain(kAudioStreamPropertyDirection)) != 0;
}

UInt32 CAHALAudioStream::GetTerminalType() const {
    return GetPropertyData_UInt32(globalMain(kAudioStreamPropertyTerminalType));
}

UInt32 CAHALAudioStream::GetStartingChannel() const {
    return GetPropertyData_UInt32(globalMain(kAudioStreamPropertyStartingChannel));
}

AudioStreamBasicDescription CAHALAudioStream::GetCurrentVirtualFormat() const {
    return typed<AudioStreamBasicDescription>(
        GetPropertyData(globalMain(kAudioStreamPropertyVirtualFormat)));
}

void CAHALAudioStream::SetCurrentVirtualFormat(const AudioStreamBasicDescription& format) {
    SetPropertyData(globalMain(kAudioStreamPropertyVirtualFormat), PropertyValue(format));
}

std::vector<AudioStreamRangedDescription> CAHALAudioStream::GetAvailableVirtualFormats() const {
    return typed<std::vector<AudioStreamRangedDescription>>(
        GetPropertyData(globalMain(kAudioStreamPropertyAvailableVirtualFormats)));
}

AudioStreamBasicDescription CAHALAudioStream::GetCurrentPhysicalFormat() const {
    return typed<AudioStreamBasicDescription>(
        GetPropertyData(globalMain(kAudioStreamPropertyPhysicalFormat)));
}

std::vector<AudioStreamRangedDescription> CAHALAudioStream::GetAvailablePhysicalFormats() const {
    return typed<std::vector<AudioStreamRangedDescription>>(
        GetPropertyData(globalMain(kAudioStreamPropertyAvailablePhysicalFormats)));
}

}  // namespace zdr::hal
