#include "zdr/logging/log_settings.h"

#include <algorithm>
#include <set>

#include "zdr/logging/logging.h"
#include "zdr/logging/logging_bridge.h"
#include "zdr/logging/shared2.h"

namespace zdr {

namespace {

std::string_view trim(std::string_view s) {
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return s;
}

std::vector<std::string_view> split(std::string_view s, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        auto end = s.find(separator, start);
        parts.push_back(s.substr(start, end == std::string_view::npos ? end : end - start));
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
    return parts;
}

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

}  // namespace

std::optional<std::vector<LogSetting>> parseLogSettings(std::string_view text,
                                                        std::string* problem) {
    auto fail = [&](std::string message) -> std::optional<std::vector<LogSetting>> {
        if (problem != nullptr) *problem = std::move(message);
        return std::nullopt;
    };
    std::vector<LogSetting> settings;
    for (std::string_view group : split(text, ';')) {
        group = trim(group);
        if (group.empty()) continue;  // "a;;b" and a trailing ';' are fine
        LogSetting setting;
        std::string_view names = group;
        if (auto equals = group.find('='); equals != std::string_view::npos) {
            names = group.substr(0, equals);
            std::string value = lower(trim(group.substr(equals + 1)));
            if (value == "on" || value == "true" || value == "yes" || value == "1") {
                setting.on = true;
            } else if (value == "off" || value == "false" || value == "no" || value == "0") {
                setting.on = false;
            } else if (auto level = logLevelNamed(value)) {
                setting.on = true;
                setting.level = level;
            } else {
                return fail("unknown value \"" + std::string(trim(group.substr(equals + 1))) +
                            "\" in \"" + std::string(group) +
                            "\" (use on, off or a level such as debug)");
            }
        }
        for (std::string_view name : split(names, ',')) {
            name = trim(name);
            if (name.empty()) {
                return fail("missing category name in \"" + std::string(group) + "\"");
            }
            if (name.find('=') != std::string_view::npos) {
                return fail("more than one '=' in \"" + std::string(group) + "\"");
            }
            setting.categories.emplace_back(name);
        }
        settings.push_back(std::move(setting));
    }
    return settings;
}

bool applyLogSettings(std::string_view text, std::string* problem) {
    return applyLogSettings(*Logging::shared(), text, problem);
}

bool applyLogSettings(Logging& facade, std::string_view text, std::string* problem) {
    auto settings = parseLogSettings(text, problem);
    if (!settings) return false;
    for (const auto& setting : *settings) {
        std::vector<std::string> names;
        for (const auto& name : setting.categories) {
            if (name != "*") {
                names.push_back(name);
                continue;
            }
            std::set<std::string> all;
            for (auto id : detail::kCategoryIdentifiers) all.emplace(id);
            for (auto& id : LoggingBridge::loggerKeys()) all.insert(std::move(id));
            names.insert(names.end(), all.begin(), all.end());
        }
        for (const auto& name : names) {
            facade.loggingEnabled(name, setting.on);
            if (!setting.level) continue;
            facade.setConfiguredLevel(name, *setting.level);
            if (auto bridge = LoggingBridge::cachedLoggerForID(name, false)) {
                bridge->logger()->setOutputLevel(*setting.level);
                for (const auto& d : bridge->logger()->destinations()) {
                    d->setOutputLevel(*setting.level);
                }
            }
        }
    }
    return true;
}

}  // namespace zdr
