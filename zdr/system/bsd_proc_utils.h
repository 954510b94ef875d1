// BSDProcUtils: the machine's running processes, and the bundle identifier of
// an application by name.
//
// The process table is /proc. Each entry is a Dictionary with the pid
// (pid_t under kProcessPIDKey), the parent pid (pid_t under
// kProcessParentPIDKey), the kernel's short command name (std::string under
// kProcessName: at most 15 bytes, truncated as the kernel truncates it) and,
// when one is found, the bundle identifier (std::string under
// kProcessBundleID).
//
// On Linux an application's bundle identifier is its desktop-file ID
// ("org.gnome.Nautilus" for nautilus), found through the installed .desktop
// files (see DesktopEntries). Answers are cached per name for 30 seconds, and
// a name that has no identifier is remembered for the life of the process, so
// listing every process stays cheap.
//
// Threads: every member may be called from any thread; the caches are guarded.
// The C-callable pid search is in zdr/system/process_pids.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zdr/runtime/clock.h"
#include "zdr/runtime/dictionary.h"
#include "zdr/system/process_pids.h"

namespace zdr {

inline constexpr const char* kProcessPIDKey = "pid";
inline constexpr const char* kProcessParentPIDKey = "ppid";
inline constexpr const char* kProcessName = "pname";
inline constexpr const char* kProcessBundleID = "bid";

/// One entry of the bundle-identifier cache.
class BSD_BundleInformation {
 public:
    BSD_BundleInformation(std::string bundleID, std::uint64_t time)
        : bundleID(std::move(bundleID)), time(time) {}
    std::string bundleID;
    /// When it was looked up: microseconds of the cache's clock (uptime).
    std::uint64_t time;
};

/// Where bundle identifiers come from: the desktop workspace's part in the
/// look-up. The default finds .desktop files; tests and hosts may install
/// their own.
class ApplicationLocator {
 public:
    virtual ~ApplicationLocator() = default;
    /// The full path of the application called `name`, or none.
    virtual std::optional<std::string> fullPathForApplication(const std::string& name) = 0;
    /// The bundle identifier of the application at `path`, or none.
    virtual std::optional<std::string> bundleIdentifierAtPath(const std::string& path) = 0;
};

class BSDProcUtils {
 public:
    /// Every process of the machine, in the table's order (ascending pid). An
    /// empty list when the table cannot be read.
    static std::vector<Dictionary> getBSDProcessList();

    /// The bundle identifier of the application called `name`, or none (also
    /// for an empty name). Cached as described above.
    static std::optional<std::string> bundleIdentifierForApplicationName(const std::string& name);

    /// Whether the cache holds an entry for `name` that is at most 30 seconds
    /// old; if so and `target` is given, the entry is handed out through it.
    static bool _getEntryFromCache(const std::string& name,
                                   std::shared_ptr<BSD_BundleInformation>* target);

    /// How long a found identifier is trusted, in milliseconds (an entry is
    /// fresh while its age is strictly less than 30001 ms).
    static constexpr std::uint64_t kBundleCacheMilliseconds = 30000;

    /// Replaces the locator (null restores the .desktop-file one). Does not
    /// empty the caches.
    static void setApplicationLocator(std::shared_ptr<ApplicationLocator> locator);
    /// Replaces the clock the cache ages by (null restores the system clock).
    static void setClock(std::shared_ptr<Clock> clock);
    /// Empties both caches. For tests: the caches are otherwise never emptied.
    static void _test_resetCaches();

    /// getBSDProcessList over a /proc-shaped folder.
    static std::vector<Dictionary> getBSDProcessList(const std::string& procRoot);
};

namespace detail {
/// getAllPIDsForProcessName over a /proc-shaped folder.
int getAllPIDsForProcessNameIn(const char* procRoot, const char* name, std::int32_t* pids,
                               unsigned int capacity, unsigned int* count, int* error);
}  // namespace detail

}  // namespace zdr
