#include "zdr/system/bsd_proc_utils.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>
#include <unordered_set>

#include "zdr/logging/shared2.h"
#include "zdr/system/desktop_entries.h"
#include "zdr/system/process_table_internal.h"

namespace zdr {

namespace {

struct BundleCache {
    std::mutex mutex;
    std::unordered_map<std::string, std::shared_ptr<BSD_BundleInformation>> cachedBundleIDs;
    std::unordered_set<std::string> knownNilAppPaths;
    std::shared_ptr<ApplicationLocator> locator;
    std::shared_ptr<Clock> clock;
};

// Made on first use and kept to the end of the process: a process list taken
// on a pool thread during exit must not find it destroyed.
BundleCache& cache() {
    static BundleCache* instance = new BundleCache();
    return *instance;
}

std::uint64_t nowMicroseconds(const std::shared_ptr<Clock>& clock) {
    const auto uptime = clock ? clock->uptime() : Clock::system()->uptime();
    return static_cast<std::uint64_t>(uptime.count() / 1000);
}

bool isFresh(const BSD_BundleInformation& info, std::uint64_t now) {
    // A stamp from "the future" (a clock that was replaced) counts as fresh
    // rather than wrapping around to an enormous age.
    const std::uint64_t age = now >= info.time ? now - info.time : 0;
    return age < (BSDProcUtils::kBundleCacheMilliseconds + 1) * 1000;
}

}  // namespace

bool BSDProcUtils::_getEntryFromCache(const std::string& name,
                                      std::shared_ptr<BSD_BundleInformation>* target) {
    auto& c = cache();
    std::lock_guard lock(c.mutex);
    auto it = c.cachedBundleIDs.find(name);
    if (it == c.cachedBundleIDs.end() || !isFresh(*it->second, nowMicroseconds(c.clock))) {
        return false;
    }
    if (target) *target = it->second;
    return true;
}

std::optional<std::string> BSDProcUtils::bundleIdentifierForApplicationName(
    const std::string& name) {
    if (name.empty()) return std::nullopt;
    auto& c = cache();
    std::shared_ptr<ApplicationLocator> locator;
    std::shared_ptr<Clock> clock;
    {
        std::lock_guard lock(c.mutex);
        if (c.knownNilAppPaths.count(name)) return std::nullopt;
        auto it = c.cachedBundleIDs.find(name);
        if (it != c.cachedBundleIDs.end() && isFresh(*it->second, nowMicroseconds(c.clock))) {
            return it->second->bundleID;
        }
        locator = c.locator;
        clock = c.clock;
    }
    if (!locator) locator = DesktopEntries::shared();
    // The locator reads files: never under the cache lock. Two first callers
    // may both look the name up; they store the same answer.
    std::optional<std::string> identifier;
    if (auto path = locator->fullPathForApplication(name)) {
        identifier = locator->bundleIdentifierAtPath(*path);
    }
    std::lock_guard lock(c.mutex);
    if (!identifier || identifier->empty()) {
        c.knownNilAppPaths.insert(name);
        return std::nullopt;
    }
    c.cachedBundleIDs[name] =
        std::make_shared<BSD_BundleInformation>(*identifier, nowMicroseconds(clock));
    return identifier;
}

std::vector<Dictionary> BSDProcUtils::getBSDProcessList() {
    return getBSDProcessList(detail::kProcessTableRoot);
}

std::vector<Dictionary> BSDProcUtils::getBSDProcessList(const std::string& procRoot) {
    std::vector<detail::ProcessRecord> records;
    try {
        records.reserve(512);
        if (const int rc = detail::readProcessTable(procRoot, true, records); rc != 0) {
            Shared2::general()->error("Could not read the process table at {}: {} ({})", procRoot,
                                      std::strerror(rc), rc);
            return {};
        }
    } catch (const std::bad_alloc&) {
        return {};
    }
    std::vector<Dictionary> processes;
    processes.reserve(records.size());
    for (const auto& record : records) {
        Dictionary entry;
        entry.emplace(kProcessPIDKey, record.pid);
        entry.emplace(kProcessParentPIDKey, record.parentPID);
        std::string name(record.name);
        if (auto identifier = bundleIdentifierForApplicationName(name)) {
            entry.emplace(kProcessBundleID, std::move(*identifier));
        }
        entry.emplace(kProcessName, std::move(name));
        processes.push_back(std::move(entry));
    }
    return processes;
}

void BSDProcUtils::setApplicationLocator(std::shared_ptr<ApplicationLocator> locator) {
    auto& c = cache();
    std::lock_guard lock(c.mutex);
    c.locator = std::move(locator);
}

void BSDProcUtils::setClock(std::shared_ptr<Clock> clock) {
    auto& c = cache();
    std::lock_guard lock(c.mutex);
    c.clock = std::move(clock);
}

void BSDProcUtils::_test_resetCaches() {
    auto& c = cache();
    std::lock_guard lock(c.mutex);
    c.cachedBundleIDs.clear();
    c.knownNilAppPaths.clear();
}

namespace detail {

int getAllPIDsForProcessNameIn(const char* procRoot, const char* name, std::int32_t* pids,
                               unsigned int capacity, unsigned int* count, int* error) {
    if (!name || !pids || !count || capacity == 0) return kZDRGetPIDsBadArgument;
    *count = 0;
    if (error) *error = 0;
    std::vector<ProcessRecord> records;
    try {
        records.reserve(512);
        if (const int rc = readProcessTable(procRoot, false, records); rc != 0) {
            if (error) *error = rc;
            return kZDRGetPIDsTableUnreadable;
        }
    } catch (const std::bad_alloc&) {
        if (error) *error = ENOMEM;
        return kZDRGetPIDsNoMemory;
    }
    for (const auto& record : records) {
        if (record.pid < 1 || std::strncmp(record.name, name, kCommandNameSize) != 0) continue;
        if (*count >= capacity) return kZDRGetPIDsArrayFull;
        pids[(*count)++] = record.pid;
    }
    return *count > 0 ? kZDRGetPIDsFound : kZDRGetPIDsNoneFound;
}

}  // namespace detail

}  // namespace zdr

extern "C" int getAllPIDsForProcessName(const char* name, int32_t* pids, unsigned int capacity,
                                        unsigned int* count, int* error) {
    return zdr::detail::getAllPIDsForProcessNameIn(zdr::detail::kProcessTableRoot, name, pids,
                                                   capacity, count, error);
}
