#include "zdr/logging/base_destination.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "zdr/logging/detail/internal_log.h"

namespace zdr {

namespace detail {

std::string_view lastPathComponent(std::string_view path) {
    const void* slash = path.empty() ? nullptr : ::memrchr(path.data(), '/', path.size());
    if (slash == nullptr) return path;
    auto after = static_cast<std::size_t>(static_cast<const char*>(slash) - path.data()) + 1;
    return path.substr(after);
}

namespace {

// What a line needs that changes at most once a second, per thread: the local
// date down to the second (converting to local time is the dearest step of a
// line) and whether this is the main thread (DispatchQueue::isMainThread()
// asks the kernel for the process id until the host first drains the main
// queue; its answer changes only when another thread starts draining it).
struct SecondCache {
    long long second = LLONG_MIN;
    char date[32] = {};  // "yyyy-MM-dd HH:mm:ss." and room for "mmm"
    std::size_t dateLength = 0;
    bool isMain = false;
};
thread_local SecondCache tlsSecond;

struct SplitTime {
    long long seconds;
    int millis;
};

SplitTime splitTime(std::chrono::system_clock::time_point date) {
    long long ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
    long long secs = ns / 1'000'000'000;
    long long rest = ns % 1'000'000'000;
    if (rest < 0) {  // dates before the epoch round towards the earlier second
        rest += 1'000'000'000;
        secs -= 1;
    }
    return {secs, static_cast<int>(rest / 1'000'000)};
}

SecondCache& secondCache(long long seconds) {
    SecondCache& cache = tlsSecond;
    if (cache.second != seconds) {
        std::time_t t = static_cast<std::time_t>(seconds);
        std::tm tm{};
        localtime_r(&t, &tm);
        int n = std::snprintf(cache.date, sizeof cache.date, "%04d-%02d-%02d %02d:%02d:%02d.",
                              tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                              tm.tm_sec);
        cache.dateLength = n > 0 && static_cast<std::size_t>(n) + 3 < sizeof cache.date
                               ? static_cast<std::size_t>(n)
                               : 0;
        cache.isMain = DispatchQueue::isMainThread();
        cache.second = seconds;
    }
    return cache;
}

void appendDate(SecondCache& cache, int millis, std::string& out) {
    cache.date[cache.dateLength] = static_cast<char>('0' + millis / 100);
    cache.date[cache.dateLength + 1] = static_cast<char>('0' + millis / 10 % 10);
    cache.date[cache.dateLength + 2] = static_cast<char>('0' + millis % 10);
    out.append(cache.date, cache.dateLength + 3);
}

std::string_view threadName(bool isMain) {
    if (isMain) return "main";
    thread_local std::string label;
    if (auto current = DispatchQueue::currentLabel(); current && !current->empty()) {
        label = std::move(*current);
        return label;
    }
    // The thread's own name is read once: asking the kernel on every line
    // would cost more than the rest of the line.
    thread_local std::string ownName = [] {
        char buffer[32] = {};
        if (pthread_getname_np(pthread_self(), buffer, sizeof buffer) == 0 && buffer[0] != '\0') {
            return std::string(buffer);
        }
        char hex[32];
        auto tid = static_cast<unsigned long>(::syscall(SYS_gettid));
        int n = std::snprintf(hex, sizeof hex, "0x%lx", tid);
        return std::string(hex, n > 0 ? static_cast<std::size_t>(n) : 0);
    }();
    return ownName;
}

}  // namespace

void appendLocalDate(std::chrono::system_clock::time_point date, std::string& out) {
    SplitTime t = splitTime(date);
    appendDate(secondCache(t.seconds), t.millis, out);
}

std::string_view currentThreadName() {
    SplitTime t = splitTime(std::chrono::system_clock::now());
    return threadName(secondCache(t.seconds).isMain);
}

}  // namespace detail

BaseDestination::BaseDestination(std::string identifier) : identifier_(std::move(identifier)) {}

BaseDestination::~BaseDestination() = default;

std::string BaseDestination::ownerIdentifier() const {
    std::lock_guard lock(ownerMutex_);
    return ownerIdentifier_;
}

void BaseDestination::setOwnerIdentifier(std::string identifier) {
    std::lock_guard lock(ownerMutex_);
    ownerIdentifier_ = std::move(identifier);
}

namespace detail {
namespace {

// What a line shows between the date and the message, "[Info] [main]
// [file.cpp:42] function ", remembered per thread for a few call sites: a
// site that logs in a loop then costs three copies a line. Only static
// locations are remembered, by address: their text never changes.
struct SiteEntry {
    const char* file = nullptr;
    std::size_t fileLength = 0;
    const char* function = nullptr;
    std::size_t functionLength = 0;
    long line = -1;
    unsigned flags = 0;
    LogLevel level = LogLevel::none;
    std::string thread;  // the thread name the middle was made with
    std::string middle;
};
constexpr std::size_t kSiteSlots = 8;
thread_local SiteEntry tlsSites[kSiteSlots];
thread_local std::string tlsScratchMiddle;

}  // namespace
}  // namespace detail

void BaseDestination::appendMiddle(const LogDetails& details, unsigned flags,
                                   std::string_view thread, std::string& out) const {
    auto bracketed = [&out](std::string_view piece) {
        out.push_back('[');
        out.append(piece);
        out.append("] ", 2);
    };
    if ((flags & kLevel) != 0) bracketed(logLevelDescription(details.level));
    if ((flags & kLogIdentifier) != 0) bracketed(ownerIdentifier());
    if ((flags & kThreadName) != 0) bracketed(thread);
    const bool showLine = (flags & kLineNumber) != 0;
    char number[24];
    auto [end, ec] = std::to_chars(number, number + sizeof number, details.lineNumber);
    std::string_view lineText(number,
                              ec == std::errc() ? static_cast<std::size_t>(end - number) : 0);
    if ((flags & kFileName) != 0) {
        out.push_back('[');
        out.append(detail::lastPathComponent(details.fileName));
        if (showLine) {
            out.push_back(':');
            out.append(lineText);
        }
        out.append("] ", 2);
    } else if (showLine) {
        bracketed(lineText);
    }
    if ((flags & kFunctionName) != 0) {
        out.append(details.functionName);
        out.push_back(' ');
    }
}

void BaseDestination::formatLine(const LogDetails& details, std::string& out) const {
    const unsigned flags = flags_.load(std::memory_order_relaxed);
    const detail::SplitTime time = detail::splitTime(details.date);
    detail::SecondCache& cache = detail::secondCache(time.seconds);
    const std::string_view thread =
        (flags & kThreadName) != 0 ? detail::threadName(cache.isMain) : std::string_view();

    // The owner's identifier may change at any time, so a line that shows it
    // is never taken from the remembered sites.
    std::string* middle = &detail::tlsScratchMiddle;
    if (details.staticLocation && (flags & kLogIdentifier) == 0) {
        const auto slot = (static_cast<std::size_t>(details.lineNumber) ^
                           (reinterpret_cast<std::uintptr_t>(details.fileName.data()) >> 4)) %
                          detail::kSiteSlots;
        detail::SiteEntry& site = detail::tlsSites[slot];
        const unsigned shown = flags & ~unsigned{kDate};
        if (site.file != details.fileName.data() || site.fileLength != details.fileName.size() ||
            site.function != details.functionName.data() ||
            site.functionLength != details.functionName.size() || site.line != details.lineNumber ||
            site.flags != shown || site.level != details.level || site.thread != thread) {
            site.middle.clear();
            appendMiddle(details, flags, thread, site.middle);
            site.file = details.fileName.data();
            site.fileLength = details.fileName.size();
            site.function = details.functionName.data();
            site.functionLength = details.functionName.size();
            site.line = details.lineNumber;
            site.flags = shown;
            site.level = details.level;
            site.thread.assign(thread);
        }
        middle = &site.middle;
    } else {
        middle->clear();
        appendMiddle(details, flags, thread, *middle);
    }

    // Sized once and filled with plain copies.
    const bool showDate = (flags & kDate) != 0 && cache.dateLength > 0;
    const std::size_t dateLength = showDate ? cache.dateLength + 3 + 1 : 0;
    const std::size_t start = out.size();
    out.resize(start + dateLength + middle->size() + 2 + details.message.size());
    char* p = out.data() + start;
    if (showDate) {
        std::memcpy(p, cache.date, cache.dateLength);
        p += cache.dateLength;
        const int millis = time.millis;
        *p++ = static_cast<char>('0' + millis / 100);
        *p++ = static_cast<char>('0' + millis / 10 % 10);
        *p++ = static_cast<char>('0' + millis % 10);
        *p++ = ' ';
    }
    std::memcpy(p, middle->data(), middle->size());
    p += middle->size();
    *p++ = '>';
    *p++ = ' ';
    if (!details.message.empty()) std::memcpy(p, details.message.data(), details.message.size());
}

void BaseDestination::process(const LogDetails& logDetails) {
    // One reusable buffer per thread keeps the common path free of
    // allocations; a destination that logs from its own output (it should
    // not, but a subclass might) gets a fresh buffer instead of a clobbered one.
    thread_local std::string buffer;
    thread_local int depth = 0;
    if (depth > 0) {
        std::string nested;
        formatLine(logDetails, nested);
        output(logDetails, nested);
        return;
    }
    ++depth;
    struct Leave {
        ~Leave() { --depth; }
    } leave;
    buffer.clear();
    formatLine(logDetails, buffer);
    output(logDetails, buffer);
    if (buffer.capacity() > 64 * 1024) buffer = std::string();  // do not hoard after a huge line
}

std::optional<DispatchQueue> BaseQueuedDestination::logQueue() const {
    std::lock_guard lock(queueMutex_);
    return logQueue_;
}

void BaseQueuedDestination::setLogQueue(std::optional<DispatchQueue> queue) {
    std::lock_guard lock(queueMutex_);
    hasLogQueue_.store(queue.has_value(), std::memory_order_relaxed);
    logQueue_ = std::move(queue);
}

namespace {
// The line that write() is handling on this thread, and for which destination.
struct WritingLine {
    const BaseQueuedDestination* destination = nullptr;
    const LogDetails* details = nullptr;
};
thread_local WritingLine tlsWriting;

// Marks `details` as the line being written for the scope's life; nests.
struct WritingScope {
    WritingScope(const BaseQueuedDestination* destination, const LogDetails* details)
        : saved(tlsWriting) {
        tlsWriting = {destination, details};
    }
    ~WritingScope() { tlsWriting = saved; }
    WritingScope(const WritingScope&) = delete;
    WritingScope& operator=(const WritingScope&) = delete;
    WritingLine saved;
};
}  // namespace

const LogDetails* BaseQueuedDestination::currentLogDetails() const {
    return tlsWriting.destination == this ? tlsWriting.details : nullptr;
}

void BaseQueuedDestination::output(const LogDetails& logDetails, std::string_view message) {
    if (!hasLogQueue_.load(std::memory_order_relaxed)) {
        WritingScope scope(this, &logDetails);
        write(message);
        return;
    }
    std::optional<DispatchQueue> queue = logQueue();
    if (!queue) {
        WritingScope scope(this, &logDetails);
        write(message);
        return;
    }
    // A queued line keeps its destination alive until it is written. A
    // destination that no shared_ptr owns cannot be kept: it writes at once.
    std::shared_ptr<BaseDestination> self = weak_from_this().lock();
    if (!self) {
        WritingScope scope(this, &logDetails);
        write(message);
        return;
    }
    // The details point into the caller's storage: the queued line keeps
    // copies of its texts (the user info is not kept).
    queue->async([self = std::move(self), this, line = std::string(message),
                  text = std::string(logDetails.message),
                  function = std::string(logDetails.functionName),
                  file = std::string(logDetails.fileName), level = logDetails.level,
                  date = logDetails.date, lineNumber = logDetails.lineNumber] {
        const LogDetails details{level, false, date, text, function, file, lineNumber, nullptr};
        WritingScope scope(this, &details);
        try {
            write(line);
        } catch (const std::exception& e) {
            detail::internalLog(std::string("Log destination ") + identifier() +
                                " failed to write: " + e.what());
        } catch (...) {
            detail::internalLog(std::string("Log destination ") + identifier() +
                                " failed to write");
        }
    });
}

}  // namespace zdr
