// Internal: how the audio layer writes its log lines. Each line goes to one of
// the category loggers the audio code uses (Shared2::app(), Shared2::audio(),
// Shared2::audioProperties() and the "debug" logger) with the calling
// function's name. The message is formatted only when the category would
// write it (categories are silent until the host switches them on).
//
// Tests may install an observer that sees every line whatever the category
// switches say (setAudioLogObserver), to check what was logged and at which
// level.
//
// Thread safety: any thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace zdr::detail {

enum class AudioLogCategory { app, audio, audioProperties, debug };
enum class AudioLogLevel { error = 1, warning, info, verbose, debug };

struct AudioLogRecord {
    AudioLogCategory category;
    AudioLogLevel level;
    std::string function;
    std::string message;
};
using AudioLogObserver = std::function<void(const AudioLogRecord&)>;

/// Replaces the observer (an empty function removes it).
void setAudioLogObserver(AudioLogObserver observer);

bool audioLogWanted(AudioLogCategory category, AudioLogLevel level);
void audioLogWrite(AudioLogCategory category, AudioLogLevel level, std::string_view function,
                   const char* file, int line, std::string message);

}  // namespace zdr::detail

/// ZDR_AUDIO_LOG_AT(category, level, function, "format {}", args...): a line
/// carrying an explicit function name.
#define ZDR_AUDIO_LOG_AT(category, level, function, ...)                                          \
    do {                                                                                          \
        if (::zdr::detail::audioLogWanted(::zdr::detail::AudioLogCategory::category,              \
                                          ::zdr::detail::AudioLogLevel::level)) {                 \
            ::zdr::detail::audioLogWrite(::zdr::detail::AudioLogCategory::category,               \
                                         ::zdr::detail::AudioLogLevel::level, function, __FILE__, \
                                         __LINE__, ::fmt::format(__VA_ARGS__));                   \
        }                                                                                         \
    } while (0)

/// ZDR_AUDIO_LOG(category, level, "format {}", args...)
#define ZDR_AUDIO_LOG(category, level, ...) ZDR_AUDIO_LOG_AT(category, level, __func__, __VA_ARGS__)
