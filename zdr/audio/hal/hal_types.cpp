#include "zdr/audio/hal/hal_types.h"

#include <cctype>

namespace zdr::hal {

std::string fourCharString(std::uint32_t code) {
    std::string s(4, '.');
    for (int i = 0; i < 4; ++i) {
        const auto c = static_cast<unsigned char>((code >> (24 - 8 * i)) & 0xFF);
        if (std::isprint(c)) s[static_cast<std::size_t>(i)] = static_cast<char>(c);
    }
    return s;
}

std::string statusString(OSStatus status) {
    const auto code = static_cast<std::uint32_t>(status);
    bool printable = status != 0;
    for (int i = 0; i < 4 && printable; ++i) {
        printable = std::isprint(static_cast<unsigned char>((code >> (24 - 8 * i)) & 0xFF)) != 0;
    }
    if (printable) {
        // Appended piece by piece: GCC 12 at -O3 misreads `"'" + string + "'"`
        // as an overlapping copy (-Wrestrict) and the build treats that as an error.
        std::string quoted(1, '\'');
        quoted += fourCharString(code);
        quoted += '\'';
        return quoted;
    }
    return std::to_string(status);
}

}  // namespace zdr::hal
