// The audio-format service's channel names: the human-readable name of every
// channel label the platform defines (the same label numbers), as asked for
// with the channel-name property of the audio-format service.
//
// Discrete labels (kAudioChannelLabel_Discrete_0 + n) are named "Discrete n".
// A label the table does not know cannot be named: the call answers
// kAudioFormatUnknownFormatError and leaves the name alone.
//
// Thread safety: constant data; any thread.
#pragma once

#include <span>
#include <string>

#include "zdr/audio/hal/hal_types.h"

namespace zdr {

// The audio-format service's property and statuses (the platform's values).
inline constexpr hal::UInt32 kAudioFormatProperty_ChannelName = hal::fourcc("cnam");
inline constexpr hal::OSStatus kAudioFormatUnsupportedPropertyError =
    static_cast<hal::OSStatus>(hal::fourcc("prop"));
inline constexpr hal::OSStatus kAudioFormatBadSpecifierSizeError =
    static_cast<hal::OSStatus>(hal::fourcc("!spc"));
inline constexpr hal::OSStatus kAudioFormatBadPropertySizeError =
    static_cast<hal::OSStatus>(hal::fourcc("!siz"));
inline constexpr hal::OSStatus kAudioFormatUnknownFormatError =
    static_cast<hal::OSStatus>(hal::fourcc("!fmt"));

struct ChannelLabelName {
    hal::AudioChannelLabel label;
    const char* name;
};

/// Every named label except the discrete ones, in label order.
std::span<const ChannelLabelName> channelLabelNames();

/// The name of the description's label.
hal::OSStatus audioFormatChannelName(const hal::AudioChannelDescription& description,
                                     std::string& outName);

/// The platform call's shape: `propertyID` must be kAudioFormatProperty_ChannelName,
/// the specifier a 20-byte AudioChannelDescription and the out data one string
/// (8 bytes on the platform, here a std::string*).
hal::OSStatus AudioFormatGetProperty(hal::UInt32 propertyID, hal::UInt32 specifierSize,
                                     const void* specifier, hal::UInt32* ioPropertyDataSize,
                                     void* outPropertyData);

}  // namespace zdr
