#include "zdr/audio/channel_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace zdr::detail {
namespace {

std::mutex& observerMutex() {
    static std::mutex m;
    return m;
}
ChannelLogObserver& observerSlot() {
    static ChannelLogObserver observer;
    return observer;
}

const char* levelName(ChannelLogLevel level) {
    switch (level) {
        case ChannelLogLevel::error:
            return "Error";
        case ChannelLogLevel::warning:
            return "Warning";
        case ChannelLogLevel::info:
            return "Info";
        case ChannelLogLevel::verbose:
            return "Verbose";
        case ChannelLogLevel::debug:
            return "Debug";
    }
    return "";
}

}  // namespace

void setChannelLogObserver(ChannelLogObserver observer) {
    std::lock_guard lock(observerMutex());
    observerSlot() = std::move(observer);
}

void channelLog(ChannelLogLevel level, const char* function, const char* format, ...) {
    char stackBuffer[512];
    std::va_list args;
    va_start(args, format);
    std::va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, args);
    va_end(args);
    std::string message;
    if (needed >= static_cast<int>(sizeof stackBuffer)) {
        message.resize(static_cast<std::size_t>(needed) + 1);
        std::vsnprintf(message.data(), message.size(), format, copy);
        message.resize(static_cast<std::size_t>(needed));
    } else if (needed > 0) {
        message.assign(stackBuffer, static_cast<std::size_t>(needed));
    }
    va_end(copy);

    ChannelLogObserver observer;
    {
        std::lock_guard lock(observerMutex());
        observer = observerSlot();
    }
    if (observer) {
        observer(ChannelLogRecord{level, function, message});
        return;
    }
    // Errors and warnings are never dropped silently, even before the host
    // has configured any logging.
    if (level <= ChannelLogLevel::warning) {
        std::fprintf(stderr, "[%s] %s: %s\n", levelName(level), function, message.c_str());
    }
}

}  // namespace zdr::detail
