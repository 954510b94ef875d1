// LoggingBridge: the process-wide cache of category loggers, keyed by logger
// identifier, and the face of the logging layer for callers that name loggers
// by string and give levels as integers (the C entry points of app_log.h).
//
// Every category logger that Logging::loggerWithID() makes is registered here.
// Entries are never removed. A lookup that creates may hand back a bridge
// object other than the one a later lookup returns; both hold the same
// logger: rely on the identity of loggers, not of bridges.
//
// Threads: everything may be called from any thread. The cache is guarded by
// a DispatchLock: look-ups read side by side, registrations are barriers.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zdr/logging/log_level.h"
#include "zdr/logging/xcg_logger.h"

namespace zdr {

class LoggingBridge {
 public:
    LoggingBridge(std::string name, std::shared_ptr<XCGLogger> logger);

    std::string name() const;
    void setName(std::string name);
    const std::shared_ptr<XCGLogger>& logger() const { return logger_; }

    /// The cached identifiers, in no particular order.
    static std::vector<std::string> loggerKeys();

    /// The cached bridge for `id`; when there is none, null, or with `create`
    /// a new one for Logging::loggerWithID(id) (cached asynchronously).
    static std::shared_ptr<LoggingBridge> cachedLoggerForID(const std::string& id, bool create);

    /// Caches a bridge for `logger` under `id` and waits for it.
    static void setCacheLoggerSync(const std::string& id, std::shared_ptr<XCGLogger> logger);

    /// If the logger has a console destination (found by its well-known
    /// identifier), shows everything on it and sets its output level.
    static void setupBridgedLoggerDestination(const std::shared_ptr<XCGLogger>& logger,
                                              LogLevel level);

    /// Sets the output level of the loggers named kLoggingAudio,
    /// kLoggingAudioProperties, kLoggingDebug, kLoggingAppAudioCapture and
    /// kLoggingDeallocDebugging to info (or error), making them if needed.
    /// Their destinations keep their levels.
    static void setupKnownLoggers(bool setToInfo);

    /// The bridge of the "audio" logger. Stops the program with "Bad! Cannot
    /// instantiate logger: audio" if it cannot be had.
    static std::shared_ptr<LoggingBridge> audio();

    /// Whether a message at integer `level` passes the logger's output level
    /// (makes the logger if needed). Ignores the category switch, so it may
    /// answer true for a category that is off: use it only to skip building
    /// expensive messages.
    static bool isLoggingEnabled(long level, const std::string& loggerName);

    /// Logs `msg` at integer `level` to the named logger (made if needed).
    static void __old_log(long level, const std::string& loggerName, const std::string& msg,
                          const std::string& file, long line, const std::string& function);

 private:
    mutable std::mutex nameMutex_;
    std::string name_;
    const std::shared_ptr<XCGLogger> logger_;
};

}  // namespace zdr
