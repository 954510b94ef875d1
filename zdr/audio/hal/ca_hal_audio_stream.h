// CAHALAudioStream: one stream of a device: its direction, starting channel and
// virtual and physical formats. Failures throw CAException.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <vector>

#include "zdr/audio/hal/ca_hal_audio_object.h"

namespace zdr::hal {

class CAHALAudioStream : public CAHALAudioObject {
 public:
    explicit CAHALAudioStream(AudioObjectID streamID,
                              std::shared_ptr<AudioHardware> hardware = nullptr);

    /// True for an input stream.
    bool GetDirection() const;
    UInt32 GetTerminalType() const;
    UInt32 GetStartingChannel() const;
    AudioStreamBasicDescription GetCurrentVirtualFormat() const;
    void SetCurrentVirtualFormat(const AudioStreamBasicDescription& format);
    std::vector<AudioStreamRangedDescription> GetAvailableVirtualFormats() const;
    AudioStreamBasicDescription GetCurrentPhysicalFormat() const;
    std::vector<AudioStreamRangedDescription> GetAvailablePhysicalFormats() const;
};

}  // namespace zdr::hal
