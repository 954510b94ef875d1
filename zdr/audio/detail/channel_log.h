// Internal: how the channel, volume and default-device code writes its log
// lines: printf-style messages at the facade's levels, with the calling
// function, file and line, to the application logger ("app"), which is silent
// until the host switches it on. Tests may install an observer that sees
// every line whatever the switches say.
//
// Thread safety: any thread.
#pragma once

#include <functional>
#include <string>

namespace zdr::detail {

enum class ChannelLogLevel { error = 1, warning, info, verbose, debug };

struct ChannelLogRecord {
    ChannelLogLevel level;
    std::string function;
    std::string message;
};
using ChannelLogObserver = std::function<void(const ChannelLogRecord&)>;

/// Replaces the observer (an empty function removes it).
void setChannelLogObserver(ChannelLogObserver observer);

void channelLog(ChannelLogLevel level, const char* function, const char* file, int line,
                const char* format, ...) __attribute__((format(printf, 5, 6)));

}  // namespace zdr::detail

#define ZDR_CHANNEL_LOG(level, ...)                                                                \
    ::zdr::detail::channelLog(::zdr::detail::ChannelLogLevel::level, __func__, __FILE__, __LINE__, \
                              __VA_ARGS__)
