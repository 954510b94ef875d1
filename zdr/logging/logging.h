// Logging: the facade over the category loggers.
//
// Every message of the library goes through a named category logger (see
// Shared2 for the library's own). A category logger is made once per
// identifier by loggerWithID(), registered in the LoggingBridge cache, given
// one destination (the systemd journal when it runs, else standard error) and
// one LogFilter that consults the on/off table below.
//
// A category is silent until it is switched on: with no entry in the table,
// its filter excludes every message. Hosts switch categories by identifier:
//
//   Logging::shared()->loggingEnabled("audio", true);
//
// or from outside the code with the ZDR_LOG environment variable, read when
// the facade is first used (syntax in log_settings.h):
//
//   ZDR_LOG='audio,http=on;audioProperties=debug;dealloc=off' ./recorder
//
// Category loggers start at output level error, so switching a category on
// shows its errors; give a level to see more.
//
// Threads: every member may be called from any thread. Writes to the table are
// asynchronous: another thread that reads right after loggingEnabled() may
// still see the old value. The switching thread itself always sees its own
// switch, in isLoggingEnabled() and in the lines it logs next. Throttled lines
// are delivered on the main queue.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <source_location>
#include <string>
#include <string_view>

#include "zdr/logging/app_log.h"
#include "zdr/logging/filter_protocol.h"
#include "zdr/logging/log_level.h"
#include "zdr/logging/xcg_logger.h"
#include "zdr/runtime/publisher.h"
#include "zdr/timing/dispatch_lock.h"

namespace zdr {

/// The level for an integer level of the C-callable entry points: 1 error,
/// 2 warning, 3 info, 4 verbose, 5 debug; anything else none.
LogLevel logLevelFromInteger(long level);

/// One line of a throttled channel.
struct LogLine {
    std::string message;
    const char* function = "";
    const char* file = "";
    long line = 0;
};

namespace detail {
/// The lock-free mirror of the current facade's on/off table, one cell per
/// identifier (cells are made on first use and never freed).
struct CategorySwitch {
    std::atomic<bool> tableOn{false};  // the table's entry (absent reads false)
    /// The gate tested inline by every log call: tableOn and the master
    /// switch, or true while a switch of this category is on its way (the
    /// filter then asks the table itself).
    std::atomic<bool> pass{false};
    std::atomic<int> pending{0};  // switches submitted whose table write has not run
};
CategorySwitch& categorySwitch(const std::string& id);
}  // namespace detail

class Logging : public std::enable_shared_from_this<Logging> {
 public:
    // ---- The facade ----

    /// The facade, made on first use: that computes writeToFileNamed(), sets
    /// up the default logger (XCGLogger::defaultLogger()) at level debug and
    /// applies ZDR_LOG.
    static std::shared_ptr<Logging> shared();
    /// Replaces the facade (its table takes effect for every category).
    static void setShared(std::shared_ptr<Logging> facade);

    /// Master switch, initially true. While false every category is off.
    static bool enabled();
    static void setEnabled(bool on);

    /// Whether destinations of loggers set up from now on show the thread
    /// name (initially true).
    static bool showThreadNames();
    static void setShowThreadNames(bool on);

    /// A suggested log-file path, "<home>/Library/Logs/<app>_<yyyy-MM-dd
    /// HH-mm-ss>.log", computed when the facade is made; none when the
    /// application name is unknown. The library never writes this file.
    static std::optional<std::string> writeToFileNamed();
    static void setWriteToFileNamed(std::optional<std::string> path);
    /// The path above for `applicationName` at `now` (local time), with "~"
    /// replaced by `homeDirectory`.
    static std::string suggestedLogFilePath(const std::string& applicationName,
                                            std::chrono::system_clock::time_point now,
                                            const std::string& homeDirectory);

    /// The category logger for `id`, made, set up and cached on first use.
    /// includeDefaultDestinations is accepted and ignored: category loggers
    /// never get the console destination.
    static std::shared_ptr<XCGLogger> loggerWithID(const std::string& id,
                                                   bool includeDefaultDestinations = false);

    // ---- Throttled channels ----
    //
    // Named channels for lines that may come in bursts (a meter, a position):
    // senders send every line; a receiver gets at most one per interval, the
    // newest, on the main queue (so the host must drain the main queue).

    /// The channel `name`, made on first use.
    static std::shared_ptr<PassthroughSubject<LogLine>> publisher(const std::string& name);
    /// Sends "<name>:<message>" on the channel `name`, with the caller's place.
    static void sendLog(const std::string& name, const std::string& message,
                        const char* function = std::source_location::current().function_name(),
                        const char* file = std::source_location::current().file_name(),
                        long line = std::source_location::current().line());
    /// Subscribes `receiver` to the channel, throttled to the newest line per
    /// `time` seconds, delivered on the main queue. Keep the result.
    [[nodiscard]] static AnyCancellable receiveThrottled(
        const std::string& name, double time, std::function<void(const LogLine&)> receiver);
    /// Writes the channel's lines to `logger` at `atLevel`, at most one per
    /// second: `time` is accepted and deliberately ignored. The subscription
    /// lives as long as the facade.
    static void receiveThrottledFrom(const std::string& name, double time,
                                     std::shared_ptr<XCGLogger> logger, LogLevel atLevel);

    // ---- Instance operations (call them on shared()) ----

    Logging();
    ~Logging();
    Logging(const Logging&) = delete;
    Logging& operator=(const Logging&) = delete;

    /// Sets the logger's output level and adds one journal (or standard
    /// error) destination at that level, named after the logger. Calling it
    /// twice adds a second destination.
    void setupLogger(const std::shared_ptr<XCGLogger>& logger, LogLevel outputLevel);

    /// False while the master switch is off; else the table's entry for `id`
    /// (false when there is none).
    bool isLoggingEnabled(const std::string& forLog) const;

    /// Sets the table's entry, asynchronously.
    void loggingEnabled(const std::string& log, bool flag);
    void loggingEnabled(const std::shared_ptr<XCGLogger>& log, bool flag);

    /// Calls `body` for every cached logger with whether it is enabled. A
    /// body that throws is reported on standard error; the loop goes on.
    void iterateLoggers(
        const std::function<void(const std::shared_ptr<XCGLogger>&, bool)>& body) const;
    /// Switches every cached category off (entries are set to false).
    void disableAllLoggers();

    /// Output level that the settings text gave for `id`, if any; applied to
    /// the category's logger and its destinations when it is made.
    std::optional<LogLevel> configuredLevel(const std::string& id) const;
    void setConfiguredLevel(const std::string& id, LogLevel level);

    /// Excludes every message of a category that is switched off; looks at
    /// nothing else.
    class LogFilter : public FilterProtocol {
     public:
        explicit LogFilter(std::string id);
        const std::string& id() const { return id_; }
        bool shouldExclude(const LogDetails& logDetails, std::string_view message) const override;
        bool decidesBeforeMessage() const override { return true; }
        const std::atomic<bool>* passFlag() const override { return &switch_->pass; }
        /// "Log filter for: " followed by the identifier.
        std::string debugDescription() const override;

     private:
        std::string id_;
        const detail::CategorySwitch* switch_;
    };

 private:
    void syncSwitchesFromTable();

    DispatchLock stateLock_{"Logging"};
    std::map<std::string, bool> loggingEnabled_;  // only inside stateLock_
    std::mutex subscriptionsMutex_;
    std::set<AnyCancellable> subscriptions_;  // kept for the facade's life
    mutable std::mutex levelsMutex_;
    std::map<std::string, LogLevel> configuredLevels_;
};

}  // namespace zdr
