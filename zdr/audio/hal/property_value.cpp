#include "zdr/audio/hal/property_value.h"

#include <cstdio>
#include <sstream>

namespace zdr::hal {

namespace {
template <class... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;

std::string formatDouble(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

std::string describeFormat(const AudioStreamBasicDescription& f) {
    return std::to_string(f.mChannelsPerFrame) + " ch, " + formatDouble(f.mSampleRate) + " Hz, '" +
           fourCharString(f.mFormatID) + "'";
}
}  // namespace

UInt32 PropertyValue::dataSize() const {
    return std::visit(
        Overloaded{
            [](const std::monostate&) -> UInt32 { return 0; },
            [](const UInt32&) -> UInt32 { return 4; },
            [](const Float32&) -> UInt32 { return 4; },
            [](const Float64&) -> UInt32 { return 8; },
            // The HAL hands strings out as one CFStringRef.
            [](const std::string&) -> UInt32 { return 8; },
            [](const std::vector<UInt32>& v) -> UInt32 {
                return static_cast<UInt32>(4 * v.size());
            },
            [](const AudioStreamBasicDescription&) -> UInt32 {
                return kSizeOfAudioStreamBasicDescription;
            },
            [](const std::vector<AudioStreamRangedDescription>& v) -> UInt32 {
                return static_cast<UInt32>(kSizeOfAudioStreamRangedDescription * v.size());
            },
            [](const AudioValueRange&) -> UInt32 { return kSizeOfAudioValueRange; },
            [](const std::vector<AudioValueRange>& v) -> UInt32 {
                return static_cast<UInt32>(kSizeOfAudioValueRange * v.size());
            },
            [](const AudioChannelLayout& l) -> UInt32 {
                return kSizeOfAudioChannelLayoutHeader +
                       kSizeOfAudioChannelDescription * l.numberChannelDescriptions();
            },
            [](const AudioBufferListConfiguration& c) -> UInt32 {
                // mNumberBuffers, padding, then one AudioBuffer per buffer.
                return 8 + kSizeOfAudioBuffer * static_cast<UInt32>(c.mNumberChannels.size());
            },
        },
        value_);
}

std::string PropertyValue::describe() const {
    return std::visit(
        Overloaded{
            [](const std::monostate&) -> std::string { return "<empty>"; },
            [](const UInt32& v) -> std::string { return std::to_string(v); },
            [](const Float32& v) -> std::string { return formatDouble(v); },
            [](const Float64& v) -> std::string { return formatDouble(v); },
            [](const std::string& v) -> std::string { return "\"" + v + "\""; },
            [](const std::vector<UInt32>& v) -> std::string {
                std::string s = "[";
                for (std::size_t i = 0; i < v.size(); ++i) {
                    s += (i ? ", " : "") + std::to_string(v[i]);
                }
                return s + "]";
            },
            [](const AudioStreamBasicDescription& f) -> std::string { return describeFormat(f); },
            [](const std::vector<AudioStreamRangedDescription>& v) -> std::string {
                std::string s = "[";
                for (std::size_t i = 0; i < v.size(); ++i) {
                    s += (i ? "; " : "") + describeFormat(v[i].mFormat);
                }
                return s + "]";
            },
            [](const AudioValueRange& r) -> std::string {
                return formatDouble(r.mMinimum) + "..." + formatDouble(r.mMaximum);
            },
            [](const std::vector<AudioValueRange>& v) -> std::string {
                std::string s = "[";
                for (std::size_t i = 0; i < v.size(); ++i) {
                    s += (i ? ", " : "") + formatDouble(v[i].mMinimum) + "..." +
                         formatDouble(v[i].mMaximum);
                }
                return s + "]";
            },
            [](const AudioChannelLayout& l) -> std::string {
                std::string s = "layout tag " + std::to_string(l.mChannelLayoutTag) + " [";
                for (std::size_t i = 0; i < l.mChannelDescriptions.size(); ++i) {
                    s += (i ? ", " : "") + std::to_string(l.mChannelDescriptions[i].mChannelLabel);
                }
                return s + "]";
            },
            [](const AudioBufferListConfiguration& c) -> std::string {
                std::string s = "buffers [";
                for (std::size_t i = 0; i < c.mNumberChannels.size(); ++i) {
                    s += (i ? ", " : "") + std::to_string(c.mNumberChannels[i]) + " ch";
                }
                return s + "]";
            },
        },
        value_);
}

}  // namespace zdr::hal
