// Fuzzes the ZDR_LOG syntax: any text is either refused with a reason or
// gives settings that name at least one category each.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zdr/logging/log_settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string problem;
    auto settings = zdr::parseLogSettings(text, &problem);
    if (!settings) {
        if (problem.empty()) std::abort();
        return 0;
    }
    for (const auto& s : *settings)
        for (const auto& c : s.categories)
            if (c.empty()) std::abort();
    return 0;
}
