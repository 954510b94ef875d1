// Shared2: the library's own category loggers, one per concern. Each is made
// on first use with Logging::loggerWithID() and is silent until the host
// switches its identifier on (Logging::shared()->loggingEnabled(id, true)).
//
//   Shared2::audio()->info("Default output is now {}", uid);
//   Shared2::http()->error("Request failed: {}", status);
//
// | Logger            | Identifier        |
// |-------------------|-------------------|
// | app               | "app"             |
// | audio             | "audio"           |
// | appAudio          | "appAudio"        |
// | audioDaemon       | "audioDaemon"     |
// | audioSwitching    | "audioSwitching"  |
// | audioProperties   | "audioProperties" |
// | audioCapture      | "audioCapture"    |
// | deallocing        | "dealloc"   (sic) |
// | general           | "general"         |
// | geometry          | "geometry"        |
// | bookmarks         | "bookmarks"       |
// | analytics         | "analytics"       |
// | http              | "http"            |
// | timing            | "timing"          |
//
// Threads: any. The getters are one atomic load once the logger exists; the
// reference they return stays valid for the life of the process, even if a
// setter replaces the logger later (setters are meant for start-up).
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string_view>

#include "zdr/logging/logging.h"
#include "zdr/logging/xcg_logger.h"

namespace zdr {

namespace detail {
enum class Category : std::size_t {
    app,
    audio,
    appAudio,
    audioDaemon,
    audioSwitching,
    audioProperties,
    audioCapture,
    deallocing,
    general,
    geometry,
    bookmarks,
    analytics,
    http,
    timing,
    count,
};
inline constexpr std::size_t kCategoryCount = static_cast<std::size_t>(Category::count);

/// The identifiers, in the table's order.
extern const std::array<std::string_view, kCategoryCount> kCategoryIdentifiers;

extern std::array<std::atomic<const std::shared_ptr<XCGLogger>*>, kCategoryCount> gCategorySlots;
const std::shared_ptr<XCGLogger>& makeCategoryLogger(Category category);
void setCategoryLogger(Category category, std::shared_ptr<XCGLogger> logger);

inline const std::shared_ptr<XCGLogger>& categoryLogger(Category category) {
    const auto* slot =
        gCategorySlots[static_cast<std::size_t>(category)].load(std::memory_order_acquire);
    return slot != nullptr ? *slot : makeCategoryLogger(category);
}
}  // namespace detail

struct Shared2 {
#define ZDR_SHARED2_CATEGORY(name, Setter)                                    \
    static const std::shared_ptr<XCGLogger>& name() {                         \
        return detail::categoryLogger(detail::Category::name);                \
    }                                                                         \
    static void Setter(std::shared_ptr<XCGLogger> logger) {                   \
        detail::setCategoryLogger(detail::Category::name, std::move(logger)); \
    }
    ZDR_SHARED2_CATEGORY(app, setApp)
    ZDR_SHARED2_CATEGORY(audio, setAudio)
    ZDR_SHARED2_CATEGORY(appAudio, setAppAudio)
    ZDR_SHARED2_CATEGORY(audioDaemon, setAudioDaemon)
    ZDR_SHARED2_CATEGORY(audioSwitching, setAudioSwitching)
    ZDR_SHARED2_CATEGORY(audioProperties, setAudioProperties)
    ZDR_SHARED2_CATEGORY(audioCapture, setAudioCapture)
    ZDR_SHARED2_CATEGORY(deallocing, setDeallocing)
    ZDR_SHARED2_CATEGORY(general, setGeneral)
    ZDR_SHARED2_CATEGORY(geometry, setGeometry)
    ZDR_SHARED2_CATEGORY(bookmarks, setBookmarks)
    ZDR_SHARED2_CATEGORY(analytics, setAnalytics)
    ZDR_SHARED2_CATEGORY(http, setHttp)
    ZDR_SHARED2_CATEGORY(timing, setTiming)
#undef ZDR_SHARED2_CATEGORY

    /// Makes every category logger above, in table order, so that all of them
    /// are in the cache (for Logging::iterateLoggers, a settings screen...).
    static void accessAllLoggers();
};

}  // namespace zdr
