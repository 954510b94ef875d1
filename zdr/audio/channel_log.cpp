#include "zdr/audio/detail/channel_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "zdr/logging/app_log.h"

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

}  // namespace

void setChannelLogObserver(ChannelLogObserver observer) {
    std::lock_guard lock(observerMutex());
    observerSlot() = std::move(observer);
}

void channelLog(ChannelLogLevel level, const char* function, const char* file, int line,
                const char* format, ...) {
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
    if (observer) observer(ChannelLogRecord{level, function, message});
    // These lines name no category of their own, so they go to the
    // application logger, silent until the host switches "app" on.
    __AppLog(static_cast<long>(level), "%s", function, file, line, message.c_str());
}

}  // namespace zdr::detail
