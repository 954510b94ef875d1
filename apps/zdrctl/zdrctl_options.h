// Command-line parsing for zdrctl: the command, its options and the global
// options, with the usage text and the exit codes scripts can rely on.
//
// Thread safety: plain functions and values.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zdr::zdrctl {

enum ExitCode : int {
    kExitOK = 0,
    kExitFailure = 1,       // the command ran and failed (demo lost a device object...)
    kExitUsage = 2,         // bad command line
    kExitHardwareFile = 3,  // --hardware file missing, unreadable, malformed or inconsistent
    kExitBackend = 4,       // the requested backend is unknown or unavailable
};

/// The longest `watch --seconds` accepted: a week. Longer watches run until
/// interrupted; the bound keeps the wait a valid poll timeout.
inline constexpr double kMaxWatchSeconds = 7 * 24 * 3600.0;

enum class Command { devices, watch, demo, volume, mute, defaultDevice, help };

struct Options {
    Command command = Command::help;
    bool json = false;                         // devices --json
    bool channels = false;                     // devices --channels
    std::vector<std::string> arguments;        // volume, mute, default: DEVICE and value
    std::optional<double> seconds;             // watch --seconds N
    std::optional<std::string> backend;        // --backend NAME
    std::optional<std::string> hardware;       // --hardware FILE.json
    std::optional<std::string> logCategories;  // --log CATEGORIES
};

struct ParseResult {
    std::optional<Options> options;  // none: `error` says why
    std::string error;
};

ParseResult parseArguments(const std::vector<std::string>& args);
std::string usageText();

}  // namespace zdr::zdrctl
