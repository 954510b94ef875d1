#include "zdr/logging/base_destination.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <ctime>
#include <utility>

#include "zdr/logging/internal_log.h"

namespace zdr {

namespace detail {

std::string_view lastPathComponent(std::string_view path) {
    auto slash = path.find_last_of('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

namespace {

void appendTwo(std::string& out, int value) {
    out.push_back(static_cast<char>('0' + value / 10 % 10));
    out.push_back(static_cast<char>('0' + value % 10));
}

}  // namespace

void appendLocalDate(std::chrono::system_clock::time_point date, std::string& out) {
    using namespace std::chrono;
    auto since = date.time_since_epoch();
    auto secs = duration_cast<seconds>(since);
    auto millis = duration_cast<milliseconds>(since - secs).count();
    if (millis < 0) {  // dates before the epoch round towards the earlier second
        millis += 1000;
        secs -= seconds(1);
    }
    // Converting to local time is by far the dearest step of a line, and the
    // seconds part changes at most once a second: keep it per thread.
    struct Cache {
        long long second = -1;
        char text[20] = {};
    };
    thread_local Cache cache;
    if (cache.second != secs.count()) {
        std::time_t t = static_cast<std::time_t>(secs.count());
        std::tm tm{};
        localtime_r(&t, &tm);
        std::string s;
        s.reserve(19);
        auto year = std::to_string(tm.tm_year + 1900);
        s.append(year);
        s.push_back('-');
        appendTwo(s, tm.tm_mon + 1);
        s.push_back('-');
        appendTwo(s, tm.tm_mday);
        s.push_back(' ');
        appendTwo(s, tm.tm_hour);
        s.push_back(':');
        appendTwo(s, tm.tm_min);
        s.push_back(':');
        appendTwo(s, tm.tm_sec);
        if (s.size() >= sizeof(cache.text)) s.resize(sizeof(cache.text) - 1);
        s.copy(cache.text, s.size());
        cache.text[s.size()] = '\0';
        cache.second = secs.count();
    }
    out.append(cache.text);
    out.push_back('.');
    out.push_back(static_cast<char>('0' + millis / 100));
    appendTwo(out, static_cast<int>(millis % 100));
}

std::string_view currentThreadName() {
    if (DispatchQueue::isMainThread()) return "main";
    thread_local std::string name;
    if (auto label = DispatchQueue::currentLabel(); label && !label->empty()) {
        name = std::move(*label);
        return name;
    }
    // The thread's own name is read once: asking the kernel on every line
    // would cost more than the rest of the line.
    thread_local std::string threadName = [] {
        char buffer[32] = {};
        if (pthread_getname_np(pthread_self(), buffer, sizeof buffer) == 0 && buffer[0] != '\0') {
            return std::string(buffer);
        }
        char hex[32];
        auto tid = static_cast<unsigned long>(::syscall(SYS_gettid));
        int n = std::snprintf(hex, sizeof hex, "0x%lx", tid);
        return std::string(hex, n > 0 ? static_cast<std::size_t>(n) : 0);
    }();
    return threadName;
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

void BaseDestination::formatLine(const LogDetails& details, std::string& out) const {
    if (showDate()) {
        detail::appendLocalDate(details.date, out);
        out.push_back(' ');
    }
    if (showLevel()) {
        out.push_back('[');
        out.append(logLevelDescription(details.level));
        out.append("] ");
    }
    if (showLogIdentifier()) {
        out.push_back('[');
        out.append(ownerIdentifier());
        out.append("] ");
    }
    if (showThreadName()) {
        out.push_back('[');
        out.append(detail::currentThreadName());
        out.append("] ");
    }
    bool showLine = showLineNumber();
    char number[24];
    auto [end, ec] = std::to_chars(number, number + sizeof number, details.lineNumber);
    std::string_view lineText(number,
                              ec == std::errc() ? static_cast<std::size_t>(end - number) : 0);
    if (showFileName()) {
        out.push_back('[');
        out.append(detail::lastPathComponent(details.fileName));
        if (showLine) {
            out.push_back(':');
            out.append(lineText);
        }
        out.append("] ");
    } else if (showLine) {
        out.push_back('[');
        out.append(lineText);
        out.append("] ");
    }
    if (showFunctionName()) {
        out.append(details.functionName);
        out.push_back(' ');
    }
    out.append("> ");
    out.append(details.message);
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

void BaseQueuedDestination::output(const LogDetails&, std::string_view message) {
    if (!hasLogQueue_.load(std::memory_order_relaxed)) {
        write(message);
        return;
    }
    std::optional<DispatchQueue> queue = logQueue();
    if (!queue) {
        write(message);
        return;
    }
    // A queued line keeps its destination alive until it is written. A
    // destination that no shared_ptr owns cannot be kept: it writes at once.
    std::shared_ptr<BaseDestination> self = weak_from_this().lock();
    if (!self) {
        write(message);
        return;
    }
    queue->async([self = std::move(self), this, line = std::string(message)] {
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
