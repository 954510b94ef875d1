#include "zdr/audio/channel_names.h"

#include <algorithm>
#include <array>

#include "zdr/audio/hal/property_value.h"

namespace zdr {
namespace {

constexpr hal::AudioChannelLabel kDiscreteBase = hal::kAudioChannelLabel_Discrete_0;
constexpr hal::AudioChannelLabel kDiscreteLast = kDiscreteBase | 0xFFFFu;

// Sorted by label, so a look-up is a binary search.
constexpr auto kNames = std::to_array<ChannelLabelName>({
    {0, "Unused"},
    {1, "Left"},
    {2, "Right"},
    {3, "Center"},
    {4, "LFE Screen"},
    {5, "Left Surround"},
    {6, "Right Surround"},
    {7, "Left Center"},
    {8, "Right Center"},
    {9, "Center Surround"},
    {10, "Left Surround Direct"},
    {11, "Right Surround Direct"},
    {12, "Top Center Surround"},
    {13, "Vertical Height Left"},
    {14, "Vertical Height Center"},
    {15, "Vertical Height Right"},
    {16, "Top Back Left"},
    {17, "Top Back Center"},
    {18, "Top Back Right"},
    {33, "Rear Surround Left"},
    {34, "Rear Surround Right"},
    {35, "Left Wide"},
    {36, "Right Wide"},
    {37, "LFE 2"},
    {38, "Left Total"},
    {39, "Right Total"},
    {40, "Hearing Impaired"},
    {41, "Narration"},
    {42, "Mono"},
    {43, "Dialog Centric Mix"},
    {44, "Center Surround Direct"},
    {45, "Haptic"},
    {100, "Use Coordinates"},
    {200, "Ambisonic W"},
    {201, "Ambisonic X"},
    {202, "Ambisonic Y"},
    {203, "Ambisonic Z"},
    {204, "Mid"},
    {205, "Side"},
    {206, "X"},
    {207, "Y"},
    {208, "Binaural Left"},
    {209, "Binaural Right"},
    {301, "Headphones Left"},
    {302, "Headphones Right"},
    {304, "Click Track"},
    {305, "Foreign Language"},
    {400, "Discrete"},
    {0x20000u, "HOA ACN 0"},
    {0x20001u, "HOA ACN 1"},
    {0x20002u, "HOA ACN 2"},
    {0x20003u, "HOA ACN 3"},
    {0xFFFFFFFFu, "Unknown"},
});

}  // namespace

std::span<const ChannelLabelName> channelLabelNames() { return kNames; }

hal::OSStatus audioFormatChannelName(const hal::AudioChannelDescription& description,
                                     std::string& outName) {
    const hal::AudioChannelLabel label = description.mChannelLabel;
    if (label >= kDiscreteBase && label <= kDiscreteLast) {
        outName = "Discrete " + std::to_string(label - kDiscreteBase);
        return 0;
    }
    auto it = std::lower_bound(
        kNames.begin(), kNames.end(), label,
        [](const ChannelLabelName& entry, hal::AudioChannelLabel l) { return entry.label < l; });
    if (it == kNames.end() || it->label != label) return kAudioFormatUnknownFormatError;
    outName = it->name;
    return 0;
}

hal::OSStatus AudioFormatGetProperty(hal::UInt32 propertyID, hal::UInt32 specifierSize,
                                     const void* specifier, hal::UInt32* ioPropertyDataSize,
                                     void* outPropertyData) {
    if (propertyID != kAudioFormatProperty_ChannelName) return kAudioFormatUnsupportedPropertyError;
    if (specifier == nullptr || specifierSize != hal::kSizeOfAudioChannelDescription) {
        return kAudioFormatBadSpecifierSizeError;
    }
    // One string reference, 8 bytes on the platform.
    if (ioPropertyDataSize == nullptr || *ioPropertyDataSize != 8 || outPropertyData == nullptr) {
        return kAudioFormatBadPropertySizeError;
    }
    return audioFormatChannelName(*static_cast<const hal::AudioChannelDescription*>(specifier),
                                  *static_cast<std::string*>(outPropertyData));
}

}  // namespace zdr
