// LogLevel: the ordered severity levels of the logger core, and the message
// details every filter and destination receives.
//
// The order is the contract: a message passes a logger or destination when its
// level is at least that output level. `none` is the highest level and passes
// nothing: an output level of `none` silences, and a message at `none` is never
// written.
//
// Thread safety: plain values and pure functions; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "zdr/runtime/dictionary.h"

namespace zdr {

enum class LogLevel : std::uint8_t {
    verbose,
    debug,
    info,
    notice,
    warning,
    error,
    severe,
    alert,
    emergency,
    none,
};

/// "Verbose", "Debug", "Info", "Notice", "Warning", "Error", "Severe", "Alert",
/// "Emergency", "None": the text a formatted line shows for the level.
std::string_view logLevelDescription(LogLevel level);

/// The level whose name is `name`, case-insensitively ("debug", "Warning"...).
std::optional<LogLevel> logLevelNamed(std::string_view name);

/// One message as filters and destinations see it. The views point into the
/// caller's storage and are valid only during the call that receives them;
/// copy what you keep (BaseQueuedDestination does when it has a log queue).
struct LogDetails {
    LogLevel level = LogLevel::debug;
    /// True when functionName and fileName come from std::source_location:
    /// static text that never changes, so a destination may remember what it
    /// made of them by address.
    bool staticLocation = false;
    /// Wall-clock time of the message. Left at the epoch for filters that are
    /// asked before the message is built (FilterProtocol::decidesBeforeMessage).
    std::chrono::system_clock::time_point date{};
    /// The message text. Empty for filters asked before the message is built.
    std::string_view message;
    std::string_view functionName;
    /// The file as the caller gave it (usually a full path).
    std::string_view fileName;
    long lineNumber = 0;
    /// The caller's user info; null when it gave none.
    const Dictionary* userInfo = nullptr;
};

}  // namespace zdr
