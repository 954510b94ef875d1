// Fuzzes the bookmark decoder with arbitrary bytes: it must answer a record or
// an error, never crash or read outside the input; a record it accepts must
// encode back to the same bytes (minus fields it skips).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "zdr/system/bookmark_record_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zdr::Error error;
    auto record = zdr::detail::decodeBookmark(std::span<const std::uint8_t>(data, size), &error);
    if (!record) {
        if (error.localizedDescription().empty()) std::abort();
        return 0;
    }
    auto encoded = zdr::detail::encodeBookmark(*record);
    auto again = zdr::detail::decodeBookmark(encoded, &error);
    if (!again || !(*again == *record)) std::abort();
    return 0;
}
