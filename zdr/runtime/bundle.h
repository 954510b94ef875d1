// Bundle: the main application's identity (identifier, name, display name,
// versions, build date). The host sets the values at start with setInfo(), or
// through the environment variables ZDR_BUNDLE_IDENTIFIER, ZDR_BUNDLE_NAME,
// ZDR_BUNDLE_DISPLAY_NAME, ZDR_BUNDLE_SHORT_VERSION and ZDR_BUNDLE_VERSION,
// which are read when Bundle::main() is first used. The build date is the
// executable's modification time.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace zdr {

inline constexpr const char* kCFBundleIdentifierKey = "CFBundleIdentifier";
inline constexpr const char* kCFBundleNameKey = "CFBundleName";
inline constexpr const char* kCFBundleDisplayNameKey = "CFBundleDisplayName";
inline constexpr const char* kCFBundleShortVersionStringKey = "CFBundleShortVersionString";
inline constexpr const char* kCFBundleVersionKey = "CFBundleVersion";

class Bundle {
 public:
    static Bundle& main();

    std::optional<std::string> bundleIdentifier() const;
    std::optional<std::string> name() const;
    std::optional<std::string> displayName() const;
    std::optional<std::string> shortVersion() const;
    std::optional<std::string> version() const;
    /// Modification time of the running executable, if it can be read.
    std::optional<std::chrono::system_clock::time_point> buildDate() const;
    /// Path of the running executable.
    std::string executablePath() const;

    std::optional<std::string> objectForInfoDictionaryKey(const std::string& key) const;
    void setInfo(const std::string& key, std::optional<std::string> value);

    /// Creates an empty bundle (for tests and secondary bundles).
    Bundle() = default;

 private:
    void loadEnvironment();
    mutable std::mutex mutex_;
    std::map<std::string, std::string> info_;
};

}  // namespace zdr
