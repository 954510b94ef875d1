#include "zdr/audio/detail/audio_log.h"

#include <memory>
#include <mutex>

#include "zdr/logging/app_log.h"
#include "zdr/logging/logging.h"
#include "zdr/logging/shared2.h"

namespace zdr::detail {

namespace {
struct ObserverSlot {
    std::mutex mutex;
    std::shared_ptr<const AudioLogObserver> observer;
    std::atomic<bool> present{false};
};
ObserverSlot& slot() {
    static ObserverSlot* s = new ObserverSlot();  // lives until the process ends
    return *s;
}
std::shared_ptr<const AudioLogObserver> currentObserver() {
    if (!slot().present.load(std::memory_order_acquire)) return nullptr;
    std::lock_guard lock(slot().mutex);
    return slot().observer;
}

const std::shared_ptr<XCGLogger>& loggerFor(AudioLogCategory category) {
    switch (category) {
        case AudioLogCategory::audio:
            return Shared2::audio();
        case AudioLogCategory::audioProperties:
            return Shared2::audioProperties();
        case AudioLogCategory::debug: {
            // The "debug" category is not one of the library's own loggers.
            static const auto* logger =
                new std::shared_ptr<XCGLogger>(Logging::loggerWithID(kLoggingDebug));
            return *logger;
        }
        case AudioLogCategory::app:
            break;
    }
    return Shared2::app();
}

LogLevel levelFor(AudioLogLevel level) {
    switch (level) {
        case AudioLogLevel::error:
            return LogLevel::error;
        case AudioLogLevel::warning:
            return LogLevel::warning;
        case AudioLogLevel::info:
            return LogLevel::info;
        case AudioLogLevel::verbose:
            return LogLevel::verbose;
        case AudioLogLevel::debug:
            return LogLevel::debug;
    }
    return LogLevel::none;
}
}  // namespace

void setAudioLogObserver(AudioLogObserver observer) {
    auto next = observer ? std::make_shared<const AudioLogObserver>(std::move(observer)) : nullptr;
    std::lock_guard lock(slot().mutex);
    slot().present.store(next != nullptr, std::memory_order_release);
    slot().observer = std::move(next);
}

bool audioLogWanted(AudioLogCategory category, AudioLogLevel level) {
    if (slot().present.load(std::memory_order_acquire)) return true;
    return loggerFor(category)->shouldLog(levelFor(level));
}

void audioLogWrite(AudioLogCategory category, AudioLogLevel level, std::string_view function,
                   const char* file, int line, std::string message) {
    if (auto observer = currentObserver()) {
        (*observer)(AudioLogRecord{category, level, std::string(function), message});
    }
    const auto& logger = loggerFor(category);
    const LogLevel lv = levelFor(level);
    if (logger->shouldLog(lv)) logger->logln(message, lv, function, file, line);
}

}  // namespace zdr::detail
