// XCGLogger: the logger core. A logger has an identifier, an output level, an
// ordered list of filters and a list of destinations. A message is written to
// every destination when its level is at least the logger's output level and
// the destination's, and no filter excludes it. The message itself (a closure
// or a format with arguments) is built only after those checks have passed.
//
//   auto log = XCGLogger::make("audio", false);
//   log->add(std::make_shared<ConsoleDestination>());
//   log->info("Device {} has {} channels", uid, count);     // fmt syntax
//   log->debug([&] { return describe(device); });            // lazy message
//   log->logln("plain text", LogLevel::warning);             // runtime text
//   log->log(level, "{} frames dropped", n);                  // level as a value
//
// Every call captures the caller's function, file and line. Format strings are
// checked at compile time; pass runtime text through logln() or as "{}".
//
// Cost: a call below the output level, or on a logger whose category filter
// is off, is one or two relaxed atomic loads inline at the call site; no
// argument is formatted and no time is read.
//
// Threads: every member may be called from any thread, also while other
// threads log. Destinations write on the logging thread unless they have a log
// queue. Logging from inside a message closure works (it is written first).
// Exceptions thrown while a message is built or written are reported on
// standard error and never reach the caller.
#pragma once

#include <atomic>
#include <concepts>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <source_location>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/core.h>

#include "zdr/logging/base_destination.h"
#include "zdr/logging/filter_protocol.h"
#include "zdr/logging/log_level.h"
#include "zdr/runtime/dictionary.h"

namespace zdr {

/// A format string checked against its arguments at compile time, and the
/// place it was written.
template <class... Args>
struct BasicLogFormat {
    template <class S>
    requires std::convertible_to<const S&, std::string_view>
    consteval BasicLogFormat(const S& s, std::source_location loc = std::source_location::current())
        : format(s), location(loc) {}

    fmt::format_string<Args...> format;
    std::source_location location;
};
template <class... Args>
using LogFormat = BasicLogFormat<std::type_identity_t<Args>...>;

/// A closure yielding the message: text (std::string, std::string_view, const
/// char*), or std::optional<std::string> where nullopt means "write nothing".
template <class F>
concept LogMessageClosure = std::invocable<F&> &&
    (std::convertible_to<std::invoke_result_t<F&>, std::string_view> ||
     std::same_as<std::remove_cvref_t<std::invoke_result_t<F&>>, std::optional<std::string>>);

namespace detail {
struct LoggerConfig;
}

class XCGLogger {
 public:
    using Level = LogLevel;

    /// Identifier of the console destination that make() adds by default.
    static constexpr const char* baseConsoleDestinationIdentifier =
        "com.tallpinecraft.zdr.logdestination.console";
    /// Identifier of the process-wide default logger.
    static constexpr const char* defaultInstanceIdentifier =
        "com.tallpinecraft.zdr.defaultInstance";

    /// A new logger at output level debug. With includeDefaultDestinations it
    /// starts with a ConsoleDestination (standard output); else with none.
    static std::shared_ptr<XCGLogger> make(std::string identifier = "",
                                           bool includeDefaultDestinations = true);
    /// The process-wide default logger (made on first use, with the console
    /// destination).
    static const std::shared_ptr<XCGLogger>& defaultLogger();

    ~XCGLogger();
    XCGLogger(const XCGLogger&) = delete;
    XCGLogger& operator=(const XCGLogger&) = delete;

    const std::string& identifier() const { return identifier_; }

    Level outputLevel() const {
        return static_cast<Level>(outputLevel_.load(std::memory_order_relaxed));
    }
    void setOutputLevel(Level level) {
        outputLevel_.store(static_cast<std::uint8_t>(level), std::memory_order_relaxed);
    }
    /// True when `level` passes the logger's output level (filters and
    /// destinations are not asked).
    bool isEnabledFor(Level level) const {
        return level != Level::none &&
               static_cast<std::uint8_t>(level) >= outputLevel_.load(std::memory_order_relaxed);
    }
    /// The inline test every log call makes first: the output level, and the
    /// pass flag of a filter that offers one (FilterProtocol::passFlag).
    bool shouldLog(Level level) const {
        if (static_cast<std::uint8_t>(level) < outputLevel_.load(std::memory_order_relaxed) ||
            level == Level::none) {
            return false;
        }
        const std::atomic<bool>* gate = passFlag_.load(std::memory_order_acquire);
        return gate == nullptr || gate->load(std::memory_order_relaxed);
    }

    // ---- Filters and destinations ----

    std::vector<std::shared_ptr<FilterProtocol>> filters() const;
    /// Replaces the filter list (null entries are ignored).
    void setFilters(std::vector<std::shared_ptr<FilterProtocol>> filters);

    /// Adds a destination; false (and nothing added) when it is null or
    /// already there. Two destinations may share an identifier; then
    /// destination(withIdentifier:) finds the first.
    bool add(std::shared_ptr<BaseDestination> destination);
    /// The destination with that identifier, or null.
    std::shared_ptr<BaseDestination> destination(std::string_view withIdentifier) const;
    bool remove(const std::shared_ptr<BaseDestination>& destination);
    bool removeDestination(std::string_view withIdentifier);
    std::vector<std::shared_ptr<BaseDestination>> destinations() const;

    // ---- Logging ----

    /// Writes `message` as it stands (no formatting).
    void logln(std::string_view message, Level level = Level::debug,
               const std::source_location& location = std::source_location::current()) {
        if (shouldLog(level)) {
            logText(level, location.function_name(), location.file_name(), location.line(), nullptr,
                    message, true);
        }
    }
    /// Writes `message` with an explicit source position and user info (for
    /// bridges from other languages).
    void logln(std::string_view message, Level level, std::string_view functionName,
               std::string_view fileName, long lineNumber, const Dictionary& userInfo = {}) {
        if (shouldLog(level)) {
            logText(level, functionName, fileName, lineNumber, &userInfo, message);
        }
    }
    /// Writes what `closure` yields; the closure runs only if the message
    /// passes the levels and filters.
    template <LogMessageClosure F>
    void logln(Level level, F&& closure,
               const std::source_location& location = std::source_location::current()) {
        if (shouldLog(level)) {
            logClosure(level, location.function_name(), location.file_name(), location.line(),
                       nullptr, closure, true);
        }
    }
    template <LogMessageClosure F>
    void logln(Level level, std::string_view functionName, std::string_view fileName,
               long lineNumber, const Dictionary& userInfo, F&& closure) {
        if (shouldLog(level)) {
            logClosure(level, functionName, fileName, lineNumber, &userInfo, closure);
        }
    }
    /// Formats (fmt syntax) only if the message passes. (Not an overload of
    /// logln: a format with arguments would outbid its explicit forms.)
    template <class... Args>
    void log(Level level, LogFormat<Args...> format, Args&&... args) {
        if (shouldLog(level)) {
            logFormat(level, format.location, fmt::string_view(format.format),
                      fmt::make_format_args(args...));
        }
    }

#define ZDR_XCGLOGGER_LEVEL_FUNCTIONS(name)                                             \
    template <class... Args>                                                            \
    void name(LogFormat<Args...> format, Args&&... args) {                              \
        if (shouldLog(Level::name)) {                                                   \
            logFormat(Level::name, format.location, fmt::string_view(format.format),    \
                      fmt::make_format_args(args...));                                  \
        }                                                                               \
    }                                                                                   \
    template <LogMessageClosure F>                                                      \
    void name(F&& closure,                                                              \
              const std::source_location& location = std::source_location::current()) { \
        if (shouldLog(Level::name)) {                                                   \
            logClosure(Level::name, location.function_name(), location.file_name(),     \
                       location.line(), nullptr, closure, true);                        \
        }                                                                               \
    }
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(verbose)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(debug)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(info)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(notice)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(warning)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(error)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(severe)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(alert)
    ZDR_XCGLOGGER_LEVEL_FUNCTIONS(emergency)
#undef ZDR_XCGLOGGER_LEVEL_FUNCTIONS

    /// Builds the message with `build` (appending to the string it is given)
    /// and writes it, if it passes. The common path of every log call; also
    /// for bridges that format their own way.
    /// `staticLocation`: the function and file names are static text (from
    /// std::source_location); see LogDetails::staticLocation.
    using MessageBuilder = void (*)(void* context, std::string& out);
    void logBuilt(Level level, std::string_view functionName, std::string_view fileName,
                  long lineNumber, const Dictionary* userInfo, void* context, MessageBuilder build,
                  bool staticLocation = false);

    explicit XCGLogger(std::string identifier);

 private:
    void logText(Level level, std::string_view functionName, std::string_view fileName,
                 long lineNumber, const Dictionary* userInfo, std::string_view message,
                 bool staticLocation = false);
    // The arguments come by reference: passed by value they would go through
    // the stack, and reading them back at once stalls on store forwarding.
    void logFormat(Level level, const std::source_location& location, fmt::string_view format,
                   const fmt::format_args& args);

    template <class F>
    void logClosure(Level level, std::string_view functionName, std::string_view fileName,
                    long lineNumber, const Dictionary* userInfo, F& closure,
                    bool staticLocation = false) {
        logBuilt(
            level, functionName, fileName, lineNumber, userInfo, &closure,
            [](void* context, std::string& out) {
                auto&& result = (*static_cast<F*>(context))();
                using R = std::remove_cvref_t<decltype(result)>;
                if constexpr (std::same_as<R, std::optional<std::string>>) {
                    if (!result) throw NoMessage{};
                    out.append(*result);
                } else {
                    out.append(std::string_view(result));
                }
            },
            staticLocation);
    }

 public:
    /// Thrown by a MessageBuilder to say "nothing to write" (not an error).
    struct NoMessage {};

 private:
    void publish(std::unique_ptr<detail::LoggerConfig> config);

    const std::string identifier_;
    std::atomic<std::uint8_t> outputLevel_{static_cast<std::uint8_t>(Level::debug)};
    std::atomic<const std::atomic<bool>*> passFlag_{nullptr};
    std::atomic<const detail::LoggerConfig*> config_{nullptr};
    // Writers copy the current configuration, change the copy and publish it.
    // Old copies stay alive until the logger dies, so a thread that is still
    // reading one while a writer publishes a new one never sees freed memory.
    mutable std::mutex configMutex_;
    std::vector<std::unique_ptr<detail::LoggerConfig>> configs_;
};

}  // namespace zdr
