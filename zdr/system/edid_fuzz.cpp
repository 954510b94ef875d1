// Fuzzes the EDID parser: any bytes must give an answer or a reason, never a
// crash, and an accepted block must satisfy what the parser promises.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zdr/system/edid.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string error;
    const auto info = zdr::parseEdid(std::span(data, size), &error);
    if (!info) {
        if (error.empty()) std::abort();  // every refusal carries its reason
        return 0;
    }
    if (size < zdr::kEdidBlockSize || info->manufacturer.size() != 3) std::abort();
    for (const auto* text : {&info->displayName, &info->serialNumberString}) {
        if (!*text) continue;
        if ((*text)->size() > 13) std::abort();
        for (char c : **text) {
            if (c < 0x20 || c > 0x7E) std::abort();
        }
    }
    const auto name = info->colorSpaceName();
    if (name != "sRGB" && name != "<unknown colorspace>") std::abort();
    return 0;
}
