#include "zdr/audio/hal/ca_stream_basic_description.h"

#include <cstdio>

namespace zdr::hal {

CAStreamBasicDescription CAStreamBasicDescription::linearPCM(Float64 sampleRate, UInt32 channels,
                                                             bool isFloat, UInt32 bitsPerChannel) {
    CAStreamBasicDescription d;
    d.mSampleRate = sampleRate;
    d.mFormatID = kAudioFormatLinearPCM;
    d.mFormatFlags = kAudioFormatFlagIsPacked |
                     (isFloat ? kAudioFormatFlagIsFloat : kAudioFormatFlagIsSignedInteger);
    d.mBitsPerChannel = isFloat ? 32 : bitsPerChannel;
    d.mChannelsPerFrame = channels;
    d.mFramesPerPacket = 1;
    d.mBytesPerFrame = channels * (d.mBitsPerChannel / 8);
    d.mBytesPerPacket = d.mBytesPerFrame;
    return d;
}

UInt32 CAStreamBasicDescription::SampleWordSize() const {
    if (mBytesPerFrame > 0 && mChannelsPerFrame > 0) {
        return IsInterleaved() ? mBytesPerFrame / mChannelsPerFrame : mBytesPerFrame;
    }
    return 0;
}

std::string CAStreamBasicDescription::AsString() const {
    char buf[160];
    std::snprintf(buf, sizeof buf, "%u ch, %.0f Hz, '%s' (0x%08X) %u-bit %s-endian %s",
                  mChannelsPerFrame, mSampleRate, fourCharString(mFormatID).c_str(), mFormatFlags,
                  mBitsPerChannel, (mFormatFlags & kAudioFormatFlagIsBigEndian) ? "big" : "little",
                  IsFloat() ? "float" : "integer");
    return buf;
}

}  // namespace zdr::hal
