// Fuzzes the reading of a settings file: any text either is refused or gives
// an object within the bounds that survives being written and read back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "zdr/runtime/user_defaults.h"
#include "zdr/runtime/user_defaults_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    nlohmann::json parsed;
    std::string why;
    if (!zdr::detail::parseDefaultsText(text, parsed, why)) {
        if (why.empty()) std::abort();  // every refusal says why
        return 0;
    }
    if (!parsed.is_object()) std::abort();
    if (zdr::detail::jsonNestingDepth(parsed) > zdr::UserDefaults::kMaxNestingDepth) std::abort();
    // What a save writes (the recursive dump that deep files used to overflow).
    const std::string saved =
        parsed.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    nlohmann::json again;
    if (saved.size() <= zdr::UserDefaults::kMaxFileSize &&
        (!zdr::detail::parseDefaultsText(saved, again, why) || again != parsed))
        std::abort();
    return 0;
}
