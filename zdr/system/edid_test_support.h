// Test support: builds EDID base blocks field by field, with a correct
// checksum unless told otherwise.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace zdr::testing {

class EdidBuilder {
 public:
    EdidBuilder() {
        const std::uint8_t header[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
        std::copy(std::begin(header), std::end(header), bytes_.begin());
        bytes_[18] = 1;  // EDID 1.4
        bytes_[19] = 4;
        bytes_[20] = 0xA5;  // digital, 8 bits per colour, DisplayPort
        // A detailed timing first (1920x1080 at 148.5 MHz), as real blocks have.
        const std::uint8_t timing[18] = {0x02, 0x3A, 0x80, 0x18, 0x71, 0x38, 0x2D, 0x40, 0x58,
                                         0x2C, 0x45, 0x00, 0x09, 0x25, 0x21, 0x00, 0x00, 0x1E};
        std::copy(std::begin(timing), std::end(timing), bytes_.begin() + 54);
        // Unused descriptors are "dummy" (tag 0x10).
        for (int offset : {72, 90, 108}) bytes_[offset + 3] = 0x10;
    }
    /// Three capital letters.
    EdidBuilder& manufacturer(const std::string& letters) {
        const std::uint16_t id =
            static_cast<std::uint16_t>(((letters[0] - 'A' + 1) << 10) |
                                       ((letters[1] - 'A' + 1) << 5) | (letters[2] - 'A' + 1));
        bytes_[8] = static_cast<std::uint8_t>(id >> 8);
        bytes_[9] = static_cast<std::uint8_t>(id & 0xFF);
        return *this;
    }
    EdidBuilder& productCode(std::uint16_t code) {
        bytes_[10] = code & 0xFF;
        bytes_[11] = static_cast<std::uint8_t>(code >> 8);
        return *this;
    }
    EdidBuilder& serialNumber(std::uint32_t serial) {
        for (int i = 0; i < 4; ++i) bytes_[12 + i] = static_cast<std::uint8_t>(serial >> (8 * i));
        return *this;
    }
    EdidBuilder& manufactured(int week, int year) {
        bytes_[16] = static_cast<std::uint8_t>(week);
        bytes_[17] = static_cast<std::uint8_t>(year - 1990);
        return *this;
    }
    EdidBuilder& sizeCentimetres(int width, int height) {
        bytes_[21] = static_cast<std::uint8_t>(width);
        bytes_[22] = static_cast<std::uint8_t>(height);
        return *this;
    }
    EdidBuilder& sRGBDefault(bool on) {
        bytes_[24] = static_cast<std::uint8_t>(on ? (bytes_[24] | 0x04) : (bytes_[24] & ~0x04));
        return *this;
    }
    /// A text descriptor (0xFC name, 0xFF serial) in descriptor slot 1 to 3.
    EdidBuilder& text(int slot, std::uint8_t tag, const std::string& value) {
        std::uint8_t* d = bytes_.data() + 54 + 18 * slot;
        std::fill(d, d + 18, 0);
        d[3] = tag;
        std::size_t i = 0;
        for (; i < value.size() && i < 13; ++i) d[5 + i] = static_cast<std::uint8_t>(value[i]);
        if (i < 13) d[5 + i++] = 0x0A;
        for (; i < 13; ++i) d[5 + i] = 0x20;
        return *this;
    }
    EdidBuilder& name(const std::string& value) { return text(1, 0xFC, value); }
    EdidBuilder& serialText(const std::string& value) { return text(2, 0xFF, value); }

    /// The block with its checksum byte set so that all 128 bytes sum to 0.
    std::vector<std::uint8_t> build() const {
        std::vector<std::uint8_t> out(bytes_.begin(), bytes_.end());
        unsigned sum = 0;
        for (int i = 0; i < 127; ++i) sum += out[i];
        out[127] = static_cast<std::uint8_t>((256 - sum % 256) % 256);
        return out;
    }

 private:
    std::array<std::uint8_t, 128> bytes_{};
};

}  // namespace zdr::testing
