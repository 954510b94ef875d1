// Switching categories from outside the code: the on/off table (and output
// levels) as text, from the ZDR_LOG environment variable (read when the
// Logging facade is first used) or from a tool's command line (zdrctl --log).
//
// Syntax: groups separated by ';'. A group is a comma-separated list of
// logger identifiers, optionally followed by '=' and a value:
//
//   on, true, yes, 1       switch the categories on
//   off, false, no, 0      switch them off
//   a level name           switch them on and show that level and above
//                          (verbose, debug, info, notice, warning, error,
//                          severe, alert, emergency, none)
//
// A group without '=' switches its categories on. Spaces around names and
// values are ignored; names are case-sensitive ("dealloc" is the deallocation
// category). The name '*' stands for the library's own categories (see
// Shared2) and every logger made so far. Examples:
//
//   ZDR_LOG=audio                          audio on (its errors)
//   ZDR_LOG='audio,http=on;dealloc=off'
//   ZDR_LOG='audioProperties=debug;*=error'
//
// Names of loggers that do not exist yet are remembered: the setting applies
// when the logger is first made. Groups apply from left to right, so a later
// group wins.
//
// Threads: any. Switching is asynchronous, as Logging::loggingEnabled() is.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zdr/logging/log_level.h"

namespace zdr {

class Logging;

struct LogSetting {
    std::vector<std::string> categories;
    bool on = true;
    std::optional<LogLevel> level;
};

/// The settings in `text`, or none (and a description in `problem`) when the
/// text does not follow the syntax.
std::optional<std::vector<LogSetting>> parseLogSettings(std::string_view text,
                                                        std::string* problem = nullptr);

/// Parses `text` and applies it to `facade` (Logging::shared() by default).
/// On a syntax error nothing is applied and the result is false.
bool applyLogSettings(std::string_view text, std::string* problem = nullptr);
bool applyLogSettings(Logging& facade, std::string_view text, std::string* problem = nullptr);

}  // namespace zdr
