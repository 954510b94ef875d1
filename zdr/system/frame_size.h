// DescribedFrameSize: the named table of standard video frame sizes that a
// recording application offers by name, and the matching of any size against
// it; with the size helpers that name and print sizes.
//
//   auto fhd = DescribedFrameSize::sizeWithVertical(1080);    // "Full HD"
//   humanReadableString(Size{1919.5, 1080.4});                  // "Full HD"
//   descriptionWithAccuracy(Size{1280.25, 720}, 1);             // "1280.2x720"
//
// The table keeps its order: lookups return the first entry that matches, so
// 1080 lines read as "Full HD", never as "2K Video".
//
// Thread safety: value types; the table is immutable and may be read from any
// thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "zdr/system/geometry_types.h"

namespace zdr {

struct DescribedFrameSize {
    std::string name;
    Size size;

    /// The table, in order: "Half HD" 720x576, "High Definition" 1280x720,
    /// "Full HD" 1920x1080, "Quad HD" 2560x1440, "2K Video" 2048x1080,
    /// "4K Video" 3840x2160, "8K Video" 7680x4320.
    static const std::vector<DescribedFrameSize>& humanReadableFrameSizes();
    /// The table's sizes alone, in order.
    static const std::vector<Size>& humanReadableSizes();
    /// The "High Definition" entry.
    static const DescribedFrameSize& defaultSize();

    /// The first entry whose height, truncated to an integer, is `height`;
    /// else `fallback`; else the default entry.
    static DescribedFrameSize sizeWithVertical(long height,
                                               std::optional<DescribedFrameSize> fallback = {});

    /// The name, ", " and the printed size: "Full HD, (1920.0, 1080.0)".
    std::string id() const;
    /// The name, " - " and the whole-number size: "Full HD - 1920x1080".
    std::string description() const;

    /// {"name": "Full HD", "size": [1920, 1080]}.
    nlohmann::json toJSON() const;
    /// None when `json` is not of that form.
    static std::optional<DescribedFrameSize> fromJSON(const nlohmann::json& json);

    friend bool operator==(const DescribedFrameSize&, const DescribedFrameSize&) = default;
};

// ---- Size helpers ----

/// The size printed as a pair of decimals: "(1920.0, 1080.0)".
std::string sizeDescription(Size size);
/// The first table entry whose width and height are each within 1.0 of the
/// size's (a difference of exactly 1.0 still matches).
std::optional<DescribedFrameSize> closestDescribedFrameSize(Size size);
/// The matched entry's name, else sizeDescription(size).
std::string humanReadableString(Size size);
/// Width and height with at most `fractionDigits` fraction digits (rounded
/// half to even, trailing zeros dropped), joined by "x": "1919.5x1080".
std::string descriptionWithAccuracy(Size size, int fractionDigits);
/// descriptionWithAccuracy(size, 0).
std::string descriptionAsPoints(Size size);

/// ((a - b) / 2) per component.
Size halfTheDifference(Size a, Size b);
Size add(Size a, Size b);
Size subtract(Size a, Size b);
/// Per component.
Size multiply(Size a, Size b);
Size multiply(Size a, double factor);

}  // namespace zdr

template <>
struct std::hash<zdr::DescribedFrameSize> {
    std::size_t operator()(const zdr::DescribedFrameSize& f) const noexcept {
        return std::hash<std::string>{}(f.name) ^ (std::hash<zdr::Size>{}(f.size) << 1);
    }
};
