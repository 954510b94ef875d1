// BaseDestination and BaseQueuedDestination: the output ends of a logger.
//
// A logger hands every message that passed its level check and filters to
// each destination whose own output level lets it through. BaseDestination
// formats the line as its show options say, in this order:
//
//   2024-03-05 14:07:09.123 [Info] [audio] [main] [device.cpp:42] refresh() > text
//   date                    level  log id  thread file:line      function    message
//
// and hands it to output(). BaseQueuedDestination::output() calls write() with
// the finished line, on the logging thread or, when a log queue is set, on that
// queue. Subclasses override write() (and output() when they need the details).
//
// Threads: all members may be called from any thread, also while other threads
// log through the destination. process(), output() and write() run on the
// logging thread (write() on the log queue when one is set) and must not log.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "zdr/logging/log_level.h"
#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

class BaseDestination : public std::enable_shared_from_this<BaseDestination> {
 public:
    explicit BaseDestination(std::string identifier = "");
    virtual ~BaseDestination();

    BaseDestination(const BaseDestination&) = delete;
    BaseDestination& operator=(const BaseDestination&) = delete;

    const std::string& identifier() const { return identifier_; }

    /// Identifier of the logger this destination was added to ("" before);
    /// shown when showLogIdentifier is on.
    std::string ownerIdentifier() const;
    void setOwnerIdentifier(std::string identifier);

    LogLevel outputLevel() const {
        return static_cast<LogLevel>(outputLevel_.load(std::memory_order_relaxed));
    }
    void setOutputLevel(LogLevel level) {
        outputLevel_.store(static_cast<std::uint8_t>(level), std::memory_order_relaxed);
    }
    /// True when a message at `level` passes this destination's output level.
    bool isEnabledFor(LogLevel level) const {
        return level != LogLevel::none &&
               static_cast<std::uint8_t>(level) >= outputLevel_.load(std::memory_order_relaxed);
    }

    // Show options. A subclass may pin an option to a fixed value (see
    // pinOption); setting a pinned option then has no effect.
    bool showLogIdentifier() const { return flag(kLogIdentifier); }
    void setShowLogIdentifier(bool on) { setFlag(kLogIdentifier, on); }
    bool showFunctionName() const { return flag(kFunctionName); }
    void setShowFunctionName(bool on) { setFlag(kFunctionName, on); }
    bool showThreadName() const { return flag(kThreadName); }
    void setShowThreadName(bool on) { setFlag(kThreadName, on); }
    bool showLevel() const { return flag(kLevel); }
    void setShowLevel(bool on) { setFlag(kLevel, on); }
    bool showFileName() const { return flag(kFileName); }
    void setShowFileName(bool on) { setFlag(kFileName, on); }
    bool showLineNumber() const { return flag(kLineNumber); }
    void setShowLineNumber(bool on) { setFlag(kLineNumber, on); }
    bool showDate() const { return flag(kDate); }
    void setShowDate(bool on) { setFlag(kDate, on); }

    /// Formats the line for `logDetails` and calls output(). The logger calls
    /// this only for messages that passed isEnabledFor().
    virtual void process(const LogDetails& logDetails);

    /// Receives the details and the formatted line.
    virtual void output(const LogDetails& logDetails, std::string_view message) = 0;

    /// Appends the line that process() would format for `logDetails` to `out`.
    void formatLine(const LogDetails& logDetails, std::string& out) const;

 protected:
    enum Option : unsigned {
        kLogIdentifier = 1u << 0,
        kFunctionName = 1u << 1,
        kThreadName = 1u << 2,
        kLevel = 1u << 3,
        kFileName = 1u << 4,
        kLineNumber = 1u << 5,
        kDate = 1u << 6,
    };
    /// Appends "[level] [log id] [thread] [file:line] function " as `flags`
    /// say: the part of a line between the date and the message.
    void appendMiddle(const LogDetails& logDetails, unsigned flags, std::string_view thread,
                      std::string& out) const;
    /// Fixes `option` at `value` for good (call it from the constructor).
    void pinOption(Option option, bool value) {
        pinned_ |= option;
        setFlagUnpinned(option, value);
    }

 private:
    bool flag(unsigned bit) const { return (flags_.load(std::memory_order_relaxed) & bit) != 0; }
    void setFlag(unsigned bit, bool on) {
        if ((pinned_ & bit) == 0) setFlagUnpinned(bit, on);
    }
    void setFlagUnpinned(unsigned bit, bool on) {
        if (on) {
            flags_.fetch_or(bit, std::memory_order_relaxed);
        } else {
            flags_.fetch_and(~bit, std::memory_order_relaxed);
        }
    }

    const std::string identifier_;
    std::atomic<std::uint8_t> outputLevel_{static_cast<std::uint8_t>(LogLevel::debug)};
    std::atomic<unsigned> flags_{kFunctionName | kLevel | kFileName | kLineNumber | kDate};
    unsigned pinned_ = 0;  // written only while constructing
    mutable std::mutex ownerMutex_;
    std::string ownerIdentifier_;
};

class BaseQueuedDestination : public BaseDestination {
 public:
    using BaseDestination::BaseDestination;

    /// The queue write() runs on; none (the default) writes on the logging
    /// thread, before the log call returns.
    std::optional<DispatchQueue> logQueue() const;
    void setLogQueue(std::optional<DispatchQueue> queue);

    /// Calls write(message), on the log queue when one is set (with copies).
    void output(const LogDetails& logDetails, std::string_view message) override;

    /// Receives one formatted line, without a trailing newline.
    virtual void write(std::string_view message) = 0;

 protected:
    bool hasLogQueue() const { return hasLogQueue_.load(std::memory_order_relaxed); }

    /// Inside write(), when output() called it for a line of this
    /// destination: that line's details (on the log queue, a copy without
    /// user info). Null when write() was called some other way. Each call
    /// sees its own line, however many threads log at once.
    const LogDetails* currentLogDetails() const;

 private:
    std::atomic<bool> hasLogQueue_{false};
    mutable std::mutex queueMutex_;
    std::optional<DispatchQueue> logQueue_;
};

namespace detail {
/// The name a formatted line shows for the calling thread: "main" on the main
/// thread, else the label of the queue whose work runs here, else the thread's
/// own name, else its kernel thread id in hex.
std::string_view currentThreadName();
/// The file name without its folders.
std::string_view lastPathComponent(std::string_view path);
/// Appends "yyyy-MM-dd HH:mm:ss.SSS" in local time.
void appendLocalDate(std::chrono::system_clock::time_point date, std::string& out);
}  // namespace detail

}  // namespace zdr
