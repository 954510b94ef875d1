// UserDefaults: the application's persistent settings, a string-keyed store of
// JSON values kept in one file.
//
// UserDefaults::standard() keeps its file at
// $XDG_CONFIG_HOME/<bundle identifier>/defaults.json, else under
// $HOME/.config/, else under the home folder that the password database gives
// for this user; the identifier is Bundle::main().bundleIdentifier(), else the
// executable's name. When none of these is an absolute path there is no
// private place for the settings: standard() then keeps them in memory only
// (logged once), and never falls back to a shared folder such as /tmp. Other
// instances take an explicit file path (an empty path: memory only).
//
// Values are looked up in what was stored, then in the registered defaults
// (registerDefaults(), memory only, never written). Typed getters never throw:
// a missing key or a value of another type answers false, 0, 0.0 or no value
// (numbers convert among bool, integer and double; strings never convert).
//
// Saving: setters change memory at once and schedule a save a moment later
// (coalesced); a store with unsaved changes is also saved when it is destroyed
// and when the process exits normally. synchronize() saves now and reloads
// what other processes saved. A save is atomic and durable (temporary file in
// the same folder, fsync, rename, fsync of the folder; mode 0600, folder 0700)
// and runs under an flock on "<file>.lock", re-reading the file under that lock
// and writing back only the keys this instance changed, so processes sharing
// the file do not lose each other's keys (the last writer of a key wins).
// Temporary files that a killed save left beside the file are removed when the
// file is next loaded. A failed save (full disk, unwritable folder) returns
// false, writes a message on standard error, keeps the values in memory for
// the next attempt and leaves the previous file untouched.
//
// Safety of the folder: every settings file is opened without following
// symbolic links, and the folder that holds it must belong to this user and be
// writable by no one else; otherwise nothing is read from it or written to it
// (logged), and the store answers its registered defaults.
//
// Bounds: settings are small. A file larger than kMaxFileSize bytes, or whose
// values nest deeper than kMaxNestingDepth arrays and objects (the top-level
// object counts as one), is corrupt. A corrupt file -- one that was read and is
// not a JSON object within these bounds, or anything at the path other than a
// regular file -- is moved aside to "<file>.corrupt-<UTC time>" with a message
// on standard error, and the store starts empty. A file that could not be read
// at all (no file descriptors left, an I/O error) is left alone: the store
// answers its registered defaults, saves nothing over the file, and reads it
// again a moment later. setObject() and registerDefaults() refuse values that
// nest too deeply, and a save that would exceed the size bound is refused.
//
// Thread safety: every member may be called from any thread. No callbacks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace zdr {

namespace detail {
class UserDefaultsStore;
}

class UserDefaults {
 public:
    /// Largest settings file that is read or written, in bytes.
    static constexpr std::size_t kMaxFileSize = 4 * 1024 * 1024;
    /// Deepest nesting of arrays and objects in a settings file, counting the
    /// top-level object; a stored value may nest one level less.
    static constexpr std::size_t kMaxNestingDepth = 64;

    /// The application's store (created on first use, never destroyed, so
    /// that work still running while the process exits can use it).
    static std::shared_ptr<UserDefaults> standard();
    /// Where standard() keeps its file (computed from the environment now);
    /// none when there is no private folder for it.
    static std::optional<std::filesystem::path> standardFilePath();

    /// A store kept in `file`; reads it now (a missing file is an empty store).
    /// An empty path makes a store kept in memory only.
    explicit UserDefaults(std::filesystem::path file);
    /// Saves unsaved changes.
    ~UserDefaults();
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    const std::filesystem::path& path() const;

    /// Adds the members of `defaults` (a JSON object) to the registered
    /// defaults; anything else, or a member that nests too deeply, is refused
    /// with a message.
    void registerDefaults(const nlohmann::json& defaults);

    std::optional<nlohmann::json> objectForKey(const std::string& key) const;
    bool boolForKey(const std::string& key) const;
    std::int64_t integerForKey(const std::string& key) const;
    double doubleForKey(const std::string& key) const;
    std::optional<std::string> stringForKey(const std::string& key) const;

    void setBool(bool value, const std::string& key);
    void setInteger(std::int64_t value, const std::string& key);
    /// Infinite and NaN values cannot be stored in JSON: refused with a message.
    void setDouble(double value, const std::string& key);
    void setString(std::string value, const std::string& key);
    /// A JSON null removes the key. A value nesting deeper than
    /// kMaxNestingDepth - 1 is refused with a message.
    void setObject(nlohmann::json value, const std::string& key);
    void removeObjectForKey(const std::string& key);

    /// Saves changes now and reloads keys saved by others. False (with a
    /// message on standard error) when the file could not be read or written,
    /// and always for a store kept in memory only.
    bool synchronize();

    /// Delay of the automatic save after a change; default 0.5 s.
    void setAutosaveDelay(double seconds);
    /// True while changes wait to be saved.
    bool hasUnsavedChanges() const;
    /// Registered defaults overlaid with the stored values.
    nlohmann::json dictionaryRepresentation() const;

 private:
    std::shared_ptr<detail::UserDefaultsStore> store_;
};

}  // namespace zdr
