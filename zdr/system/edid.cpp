#include "zdr/system/edid.h"

#include <algorithm>
#include <numeric>

namespace zdr {

namespace {

constexpr std::uint8_t kHeader[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr std::size_t kDescriptorOffsets[4] = {54, 72, 90, 108};
constexpr std::uint8_t kTagSerialNumber = 0xFF;
constexpr std::uint8_t kTagProductName = 0xFC;

bool fail(std::string* error, std::string reason) {
    if (error) *error = std::move(reason);
    return false;
}

// A descriptor's text: up to 13 bytes, ended by a line feed, padded with spaces.
std::string descriptorText(const std::uint8_t* text) {
    std::string out;
    for (int i = 0; i < 13; ++i) {
        const std::uint8_t c = text[i];
        if (c == 0x0A || c == 0x00) break;
        // Printable ASCII only: the text goes into logs and JSON.
        out += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

}  // namespace

std::string EdidInfo::colorSpaceName() const {
    return sRGBIsDefault ? "sRGB" : "<unknown colorspace>";
}

std::optional<EdidInfo> parseEdid(std::span<const std::uint8_t> data, std::string* error) {
    if (data.size() < kEdidBlockSize) {
        fail(error, "EDID is " + std::to_string(data.size()) + " bytes, shorter than its " +
                        std::to_string(kEdidBlockSize) + "-byte base block");
        return std::nullopt;
    }
    const std::uint8_t* b = data.data();
    if (!std::equal(std::begin(kHeader), std::end(kHeader), b)) {
        fail(error, "EDID does not start with the fixed header 00 FF FF FF FF FF FF 00");
        return std::nullopt;
    }
    const unsigned sum = std::accumulate(b, b + kEdidBlockSize, 0u);
    if (sum % 256 != 0) {
        fail(error, "EDID base block checksum is wrong (the bytes sum to " +
                        std::to_string(sum % 256) + " modulo 256, not 0)");
        return std::nullopt;
    }
    EdidInfo info;
    info.vendorNumber = static_cast<std::uint16_t>((b[8] << 8) | b[9]);
    for (int shift : {10, 5, 0}) {
        const int letter = (info.vendorNumber >> shift) & 0x1F;
        info.manufacturer +=
            (letter >= 1 && letter <= 26) ? static_cast<char>('A' + letter - 1) : '?';
    }
    info.productCode = static_cast<std::uint16_t>(b[10] | (b[11] << 8));
    info.serialNumber =
        static_cast<std::uint32_t>(b[12]) | (static_cast<std::uint32_t>(b[13]) << 8) |
        (static_cast<std::uint32_t>(b[14]) << 16) | (static_cast<std::uint32_t>(b[15]) << 24);
    info.weekOfManufacture = b[16];
    info.yearOfManufacture = 1990 + b[17];
    info.version = b[18];
    info.revision = b[19];
    info.digitalInput = (b[20] & 0x80) != 0;
    info.widthCentimetres = b[21];
    info.heightCentimetres = b[22];
    info.sRGBIsDefault = (b[24] & 0x04) != 0;
    for (std::size_t offset : kDescriptorOffsets) {
        const std::uint8_t* d = b + offset;
        // A display descriptor starts with three zero bytes; anything else
        // there is a detailed timing.
        if (d[0] != 0 || d[1] != 0 || d[2] != 0) continue;
        if (d[3] == kTagProductName && !info.displayName) {
            info.displayName = descriptorText(d + 5);
        } else if (d[3] == kTagSerialNumber && !info.serialNumberString) {
            info.serialNumberString = descriptorText(d + 5);
        }
    }
    info.extensionCount = b[126];
    return info;
}

}  // namespace zdr
