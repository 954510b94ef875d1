#include "zdr/logging/log_level.h"

#include <array>
#include <cctype>

namespace zdr {

namespace {
constexpr std::array<std::string_view, 10> kNames = {
    "Verbose", "Debug",  "Info",  "Notice",    "Warning",
    "Error",   "Severe", "Alert", "Emergency", "None",
};
}  // namespace

std::string_view logLevelDescription(LogLevel level) {
    auto index = static_cast<std::size_t>(level);
    return index < kNames.size() ? kNames[index] : std::string_view("None");
}

std::optional<LogLevel> logLevelNamed(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        std::string_view candidate = kNames[i];
        if (candidate.size() != name.size()) continue;
        bool same = true;
        for (std::size_t j = 0; j < name.size() && same; ++j) {
            same = std::tolower(static_cast<unsigned char>(name[j])) ==
                   std::tolower(static_cast<unsigned char>(candidate[j]));
        }
        if (same) return static_cast<LogLevel>(i);
    }
    return std::nullopt;
}

}  // namespace zdr
