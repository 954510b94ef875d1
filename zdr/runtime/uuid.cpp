#include "zdr/runtime/uuid.h"

#include <sys/random.h>

#include <random>

namespace zdr {

UUID UUID::random() {
    std::array<std::uint8_t, 16> b{};
    std::size_t got = 0;
    while (got < b.size()) {
        ssize_t n = ::getrandom(b.data() + got, b.size() - got, 0);
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    if (got < b.size()) {
        // getrandom is always there on supported kernels; this is belt and braces.
        std::random_device rd;
        for (auto& byte : b) byte = static_cast<std::uint8_t>(rd());
    }
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return UUID(b);
}

std::string UUID::uuidString() const {
    static const char* hex = "0123456789ABCDEF";
    std::string s;
    s.reserve(36);
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) s.push_back('-');
        s.push_back(hex[bytes_[i] >> 4]);
        s.push_back(hex[bytes_[i] & 0x0F]);
    }
    return s;
}

std::optional<UUID> UUID::fromString(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::array<std::uint8_t, 16> b{};
    std::size_t byte = 0;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    for (std::size_t i = 0; i < 36;) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        int hi = nibble(text[i]), lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        b[byte++] = static_cast<std::uint8_t>(hi << 4 | lo);
        i += 2;
    }
    return UUID(b);
}

}  // namespace zdr
