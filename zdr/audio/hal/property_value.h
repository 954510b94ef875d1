// PropertyValue: the typed value of one HAL property, as a backend answers it
// and as the wrappers read and write it.
//
// The platform HAL moves property data as raw bytes sized by the caller. Here
// every value carries its type, so a backend cannot be read with the wrong
// layout, while dataSize() still answers the byte size the HAL would report
// (4 per object ID, 40 per stream format, 12 + 20 per channel layout entry...)
// so callers that size lists from it keep the HAL's shape.
//
// Which kind each property has:
//   UInt32        transport type, is-alive, is-running, mute, safety offset, buffer frame
//                 size, data source ID, default device IDs, UID translation result
//   Float32       volume scalar and decibels
//   Float64       nominal and actual sample rate
//   String        name, manufacturer, UIDs, data-source name (qualifier: the source ID)
//   UInt32List    device list, stream list, data-source IDs, preferred stereo channels
//   StreamFormat  a stream's current virtual or physical format
//   RangedFormats a stream's available virtual or physical formats
//   ValueRange    buffer frame size range, decibel range
//   ValueRanges   available nominal sample rates
//   ChannelLayout preferred channel layout
//   BufferConfig  stream configuration
//
// Thread safety: a value type.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "zdr/audio/hal/hal_types.h"

namespace zdr::hal {

class PropertyValue {
 public:
    using Storage =
        std::variant<std::monostate, UInt32, Float32, Float64, std::string, std::vector<UInt32>,
                     AudioStreamBasicDescription, std::vector<AudioStreamRangedDescription>,
                     AudioValueRange, std::vector<AudioValueRange>, AudioChannelLayout,
                     AudioBufferListConfiguration>;

    PropertyValue() = default;
    PropertyValue(UInt32 v) : value_(v) {}                                                // NOLINT
    PropertyValue(Float32 v) : value_(v) {}                                               // NOLINT
    PropertyValue(Float64 v) : value_(v) {}                                               // NOLINT
    PropertyValue(std::string v) : value_(std::move(v)) {}                                // NOLINT
    PropertyValue(const char* v) : value_(std::string(v)) {}                              // NOLINT
    PropertyValue(std::vector<UInt32> v) : value_(std::move(v)) {}                        // NOLINT
    PropertyValue(const AudioStreamBasicDescription& v) : value_(v) {}                    // NOLINT
    PropertyValue(std::vector<AudioStreamRangedDescription> v) : value_(std::move(v)) {}  // NOLINT
    PropertyValue(const AudioValueRange& v) : value_(v) {}                                // NOLINT
    PropertyValue(std::vector<AudioValueRange> v) : value_(std::move(v)) {}               // NOLINT
    PropertyValue(AudioChannelLayout v) : value_(std::move(v)) {}                         // NOLINT
    PropertyValue(AudioBufferListConfiguration v) : value_(std::move(v)) {}               // NOLINT

    bool empty() const { return std::holds_alternative<std::monostate>(value_); }

    template <class T>
    bool holds() const {
        return std::holds_alternative<T>(value_);
    }
    /// The value if it has type T, else nullptr.
    template <class T>
    const T* getIf() const {
        return std::get_if<T>(&value_);
    }
    template <class T>
    std::optional<T> as() const {
        if (const T* v = std::get_if<T>(&value_)) return *v;
        return std::nullopt;
    }

    /// The byte size the platform HAL reports for this value (a string counts as
    /// one reference, 8 bytes; an empty value as 0).
    UInt32 dataSize() const;

    /// A short readable form for logs and the command-line tool.
    std::string describe() const;

    const Storage& storage() const { return value_; }
    friend bool operator==(const PropertyValue&, const PropertyValue&) = default;

 private:
    Storage value_;
};

/// Byte sizes of the HAL records, for code that sizes buffers the HAL's way.
inline constexpr UInt32 kSizeOfAudioStreamBasicDescription = 40;
inline constexpr UInt32 kSizeOfAudioStreamRangedDescription = 56;
inline constexpr UInt32 kSizeOfAudioValueRange = 16;
inline constexpr UInt32 kSizeOfAudioChannelDescription = 20;
inline constexpr UInt32 kSizeOfAudioChannelLayoutHeader = 12;
inline constexpr UInt32 kSizeOfAudioBuffer = 16;

}  // namespace zdr::hal
