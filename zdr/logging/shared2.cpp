#include "zdr/logging/shared2.h"

#include <mutex>
#include <vector>

namespace zdr::detail {

const std::array<std::string_view, kCategoryCount> kCategoryIdentifiers = {
    "app",          "audio",   "appAudio", "audioDaemon", "audioSwitching", "audioProperties",
    "audioCapture", "dealloc", "general",  "geometry",    "bookmarks",      "analytics",
    "http",         "timing",
};

std::array<std::atomic<const std::shared_ptr<XCGLogger>*>, kCategoryCount> gCategorySlots{};

namespace {
// A slot points at a holder that is never freed, so the reference a getter
// handed out stays valid after a setter has put another logger in the slot.
std::mutex& slotMutex() {
    static std::mutex m;
    return m;
}
std::vector<std::unique_ptr<const std::shared_ptr<XCGLogger>>>& holders() {
    static auto* h = new std::vector<std::unique_ptr<const std::shared_ptr<XCGLogger>>>();
    return *h;
}
}  // namespace

const std::shared_ptr<XCGLogger>& makeCategoryLogger(Category category) {
    auto index = static_cast<std::size_t>(category);
    // Made outside the mutex: loggerWithID takes the facade's and the cache's
    // locks, and two threads racing here both get the cached logger anyway.
    auto logger = Logging::loggerWithID(std::string(kCategoryIdentifiers[index]));
    std::lock_guard lock(slotMutex());
    if (const auto* slot = gCategorySlots[index].load(std::memory_order_acquire)) return *slot;
    holders().push_back(std::make_unique<const std::shared_ptr<XCGLogger>>(std::move(logger)));
    const auto* holder = holders().back().get();
    gCategorySlots[index].store(holder, std::memory_order_release);
    return *holder;
}

void setCategoryLogger(Category category, std::shared_ptr<XCGLogger> logger) {
    if (!logger) return;  // a getter never answers null
    auto index = static_cast<std::size_t>(category);
    std::lock_guard lock(slotMutex());
    holders().push_back(std::make_unique<const std::shared_ptr<XCGLogger>>(std::move(logger)));
    gCategorySlots[index].store(holders().back().get(), std::memory_order_release);
}

}  // namespace zdr::detail

namespace zdr {

void Shared2::accessAllLoggers() {
    for (std::size_t i = 0; i < detail::kCategoryCount; ++i) {
        (void)detail::categoryLogger(static_cast<detail::Category>(i));
    }
}

}  // namespace zdr
