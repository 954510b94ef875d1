// CAHALAudioSystemObject: the HAL's system object (kAudioObjectSystemObject):
// the device list, UID translation and the default devices. Failures throw
// CAException.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <string>
#include <vector>

#include "zdr/audio/hal/ca_hal_audio_object.h"

namespace zdr::hal {

class CAHALAudioSystemObject : public CAHALAudioObject {
 public:
    explicit CAHALAudioSystemObject(std::shared_ptr<AudioHardware> hardware = nullptr);

    UInt32 GetNumberAudioDevices() const;
    std::vector<AudioObjectID> GetAudioDevices() const;
    /// The ID at `index` of the device list; kAudioObjectUnknown past its end.
    AudioObjectID GetAudioDeviceAtIndex(UInt32 index) const;
    /// kAudioObjectUnknown when no device has the UID.
    AudioObjectID GetAudioDeviceForUID(const std::string& uid) const;
    /// isSystem picks the system output (alert sounds) device for output.
    AudioObjectID GetDefaultAudioDevice(bool isInput, bool isSystem) const;
    void SetDefaultAudioDevice(bool isInput, bool isSystem, AudioObjectID device);
};

}  // namespace zdr::hal
