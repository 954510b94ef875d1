// EDID: what a display says about itself in the 128-byte base block of its
// Extended Display Identification Data (the X server's "EDID" output property,
// /sys/class/drm/*/edid).
//
// Only the base block is read: vendor, product and serial numbers, the
// manufacture date, the sRGB-default flag, the physical size and the name and
// serial-text descriptors. A block that is short, has the wrong header or a
// wrong checksum is refused with a reason; extension blocks after it are
// ignored. Written by hand because the few fields needed sit at fixed offsets
// and no packaged library parses EDID for programs.
//
// Threads: plain functions over values.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace zdr {

struct EdidInfo {
    /// The manufacturer ID as the display stores it (bytes 8 and 9, big
    /// endian): the "vendor number" of the display.
    std::uint16_t vendorNumber = 0;
    /// The three letters that ID encodes ("DEL"); '?' for a letter out of range.
    std::string manufacturer;
    /// The product code (bytes 10 and 11, little endian): the "model number".
    std::uint16_t productCode = 0;
    /// The serial number (bytes 12 to 15, little endian); 0 when not given.
    std::uint32_t serialNumber = 0;
    int weekOfManufacture = 0;  // 0 when not given; 255 marks a model year
    int yearOfManufacture = 0;  // 1990 + byte 17
    int version = 0;
    int revision = 0;
    bool digitalInput = false;
    int widthCentimetres = 0;  // 0 when not given
    int heightCentimetres = 0;
    /// The default colour space is sRGB (feature support byte, bit 2).
    bool sRGBIsDefault = false;
    std::optional<std::string> displayName;         // display product name descriptor
    std::optional<std::string> serialNumberString;  // display serial number descriptor
    int extensionCount = 0;

    /// "sRGB" when sRGB is the default colour space, else "<unknown colorspace>".
    std::string colorSpaceName() const;
};

inline constexpr std::size_t kEdidBlockSize = 128;

/// Parses the base block at the start of `data`; none, with the reason in
/// `error`, when it is short, has the wrong header or a wrong checksum.
std::optional<EdidInfo> parseEdid(std::span<const std::uint8_t> data, std::string* error = nullptr);

}  // namespace zdr
