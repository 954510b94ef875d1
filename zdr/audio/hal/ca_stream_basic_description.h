// CAStreamBasicDescription: an AudioStreamBasicDescription with the helpers
// that code reading stream formats needs (channel count, PCM checks, a readable
// form).
//
// Thread safety: a value type.
#pragma once

#include <string>

#include "zdr/audio/hal/hal_types.h"

namespace zdr::hal {

class CAStreamBasicDescription : public AudioStreamBasicDescription {
 public:
    CAStreamBasicDescription() = default;
    CAStreamBasicDescription(const AudioStreamBasicDescription& desc)  // NOLINT
        : AudioStreamBasicDescription(desc) {}
    /// Packed interleaved linear PCM: 32-bit float, or signed integers of
    /// `bitsPerChannel` bits.
    static CAStreamBasicDescription linearPCM(Float64 sampleRate, UInt32 channels,
                                              bool isFloat = true, UInt32 bitsPerChannel = 32);

    UInt32 NumberChannels() const { return mChannelsPerFrame; }
    bool IsPCM() const { return mFormatID == kAudioFormatLinearPCM; }
    bool IsInterleaved() const { return (mFormatFlags & kAudioFormatFlagIsNonInterleaved) == 0; }
    bool IsFloat() const { return (mFormatFlags & kAudioFormatFlagIsFloat) != 0; }
    UInt32 SampleWordSize() const;
    /// "2 ch, 48000 Hz, 'lpcm' (0x00000009) 32-bit little-endian float".
    std::string AsString() const;
};

}  // namespace zdr::hal
