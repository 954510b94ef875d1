#include "zdr/runtime/bundle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace zdr {

Bundle& Bundle::main() {
    static Bundle* bundle = [] {
        auto* b = new Bundle();  // leaked: used from static destructors too
        b->loadEnvironment();
        return b;
    }();
    return *bundle;
}

void Bundle::loadEnvironment() {
    static const std::pair<const char*, const char*> vars[] = {
        {"ZDR_BUNDLE_IDENTIFIER", kCFBundleIdentifierKey},
        {"ZDR_BUNDLE_NAME", kCFBundleNameKey},
        {"ZDR_BUNDLE_DISPLAY_NAME", kCFBundleDisplayNameKey},
        {"ZDR_BUNDLE_SHORT_VERSION", kCFBundleShortVersionStringKey},
        {"ZDR_BUNDLE_VERSION", kCFBundleVersionKey},
    };
    std::lock_guard lock(mutex_);
    for (auto [var, key] : vars) {
        if (const char* v = std::getenv(var); v && *v) info_[key] = v;
    }
}

std::optional<std::string> Bundle::objectForInfoDictionaryKey(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = info_.find(key);
    if (it == info_.end()) return std::nullopt;
    return it->second;
}

void Bundle::setInfo(const std::string& key, std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    if (value) {
        info_[key] = std::move(*value);
    } else {
        info_.erase(key);
    }
}

std::optional<std::string> Bundle::bundleIdentifier() const {
    return objectForInfoDictionaryKey(kCFBundleIdentifierKey);
}
std::optional<std::string> Bundle::name() const {
    return objectForInfoDictionaryKey(kCFBundleNameKey);
}
std::optional<std::string> Bundle::displayName() const {
    return objectForInfoDictionaryKey(kCFBundleDisplayNameKey);
}
std::optional<std::string> Bundle::shortVersion() const {
    return objectForInfoDictionaryKey(kCFBundleShortVersionStringKey);
}
std::optional<std::string> Bundle::version() const {
    return objectForInfoDictionaryKey(kCFBundleVersionKey);
}

std::string Bundle::executablePath() const {
    std::error_code ec;
    auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : p.string();
}

std::optional<std::chrono::system_clock::time_point> Bundle::buildDate() const {
    struct stat st {};
    if (::stat("/proc/self/exe", &st) != 0) return std::nullopt;
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(st.st_mtim.tv_sec) +
            std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
}

}  // namespace zdr
