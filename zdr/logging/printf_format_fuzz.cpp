// Fuzzes the printf formatter with any format. Every argument slot holds a
// pointer to a zeroed, wide-aligned buffer, so whatever a directive takes
// (an integer, a string, a wide string, a pointer, %n) reads valid memory;
// the formatter must neither crash nor read past the arguments it was given.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zdr/logging/detail/printf_format.h"

namespace {

alignas(16) wchar_t zeroes[64];

/// At most five argument slots per '%': a '*' width, a '*' precision and a
/// long double (two slots, plus one for alignment).
constexpr std::size_t kMaxDirectives = 8;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string format(reinterpret_cast<const char*>(data), size);
    format = format.c_str();  // up to the first NUL, as a C caller would pass it
    std::size_t directives = 0;
    for (char c : format) directives += c == '%';
    if (directives > kMaxDirectives) return 0;
    void* z = zeroes;
    std::string out = zdr::detail::stringWithFormat(
        format.c_str(), z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z,
        z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z, z);
    if (out.size() > format.size() + kMaxDirectives * 8192) std::abort();  // widths are capped
    return 0;
}
