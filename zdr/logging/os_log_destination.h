// OSLogDestination: writes each line of a category logger to the systemd
// journal, with one subsystem per application and one category per logger.
//
// Each entry carries MESSAGE (the formatted line, always with its date: the
// show-date option is pinned on and setting it has no effect),
// PRIORITY by level (verbose and debug 7, info 6, warning and error 3, all
// others 5), SYSLOG_IDENTIFIER and ZDR_SUBSYSTEM (the main bundle's identifier,
// else "com.tallpinecraft"), ZDR_CATEGORY (the destination's identifier) and
// CODE_FILE, CODE_LINE, CODE_FUNC. Bytes that are not valid UTF-8 are replaced
// by U+FFFD, and so are control characters (newlines included) in the
// subsystem and category fields. Read them with, for example:
//
//   journalctl ZDR_SUBSYSTEM=com.example.rec ZDR_CATEGORY=audio -o verbose
//
// The journal is reached over its native socket, "/run/systemd/journal/socket"
// unless ZDR_JOURNAL_SOCKET or setJournalSocketPath() names another. Writing
// never blocks: a full or vanished journal drops the line and says so once on
// standard error.
//
// Threads: any. Lines are written on the logging thread (or the log queue).
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include "zdr/logging/base_destination.h"

namespace zdr {

class OSLogDestination : public BaseQueuedDestination {
 public:
    explicit OSLogDestination(std::string identifier);
    /// Says "Deinit OSLogDestination for <identifier>" on standard output.
    ~OSLogDestination() override;

    /// Records the line's level, then lets the base class hand the line to
    /// write(): a subclass that overrides write() sees every line.
    void output(const LogDetails& logDetails, std::string_view message) override;
    /// Sends `message` to the journal. Called by output(), with that line's
    /// own level and code location, whichever thread logs; called directly,
    /// at the level of the last line that went through output() and without
    /// a code location.
    void write(std::string_view message) override;

    LogLevel nextLogLevel() const {
        return static_cast<LogLevel>(nextLogLevel_.load(std::memory_order_relaxed));
    }
    /// The bundle identifier as given (the journal fields carry it cleaned).
    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return identifier(); }
    /// Whether the process runs under Xcode's tools (recorded only).
    bool fromWithinXCode() const { return fromWithinXCode_; }

    /// The journal priority for a level.
    static int priorityFor(LogLevel level);

    /// The socket lines are sent to (process-wide).
    static std::string journalSocketPath();
    static void setJournalSocketPath(std::string path);
    /// True when a socket exists at journalSocketPath().
    static bool journalAvailable();

 private:
    void emit(LogLevel level, std::string_view file, long line, std::string_view function,
              std::string_view message) const;

    std::atomic<std::uint8_t> nextLogLevel_{static_cast<std::uint8_t>(LogLevel::none)};
    bool fromWithinXCode_ = false;
    std::string subsystem_;
    std::string subsystemField_;  // subsystem_ as the journal fields carry it
    std::string categoryField_;
};

}  // namespace zdr
