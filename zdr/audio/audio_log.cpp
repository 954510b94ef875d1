#include "zdr/audio/audio_log.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace zdr::detail {

namespace {
struct ObserverSlot {
    std::mutex mutex;
    std::shared_ptr<const AudioLogObserver> observer;
};
ObserverSlot& slot() {
    static ObserverSlot* s = new ObserverSlot();  // lives until the process ends
    return *s;
}
std::shared_ptr<const AudioLogObserver> currentObserver() {
    std::lock_guard lock(slot().mutex);
    return slot().observer;
}
const char* categoryName(AudioLogCategory c) {
    switch (c) {
        case AudioLogCategory::app:
            return "app";
        case AudioLogCategory::audio:
            return "audio";
        case AudioLogCategory::audioProperties:
            return "audioProperties";
        case AudioLogCategory::debug:
            return "debug";
    }
    return "app";
}
// Read once: the environment is not touched again while threads log.
const std::string& enabledCategories() {
    static const std::string* categories = [] {
        const char* env = std::getenv("ZDR_LOG");
        return new std::string(env ? env : "");
    }();
    return *categories;
}
bool categoryOn(AudioLogCategory category) {
    return enabledCategories().find(categoryName(category)) != std::string::npos;
}
}  // namespace

void setAudioLogObserver(AudioLogObserver observer) {
    auto next = observer ? std::make_shared<const AudioLogObserver>(std::move(observer)) : nullptr;
    std::lock_guard lock(slot().mutex);
    slot().observer = std::move(next);
}

bool audioLogWanted(AudioLogCategory category, AudioLogLevel level) {
    (void)level;
    if (currentObserver()) return true;
    return categoryOn(category);
}

void audioLogWrite(AudioLogCategory category, AudioLogLevel level, std::string_view function,
                   const char* file, int line, std::string message) {
    if (auto observer = currentObserver()) {
        (*observer)(AudioLogRecord{category, level, std::string(function), message});
    }
    (void)file;
    (void)line;
    if (categoryOn(category)) {
        std::fprintf(stderr, "[%s] %.*s: %s\n", categoryName(category),
                     static_cast<int>(function.size()), function.data(), message.c_str());
    }
}

}  // namespace zdr::detail
