#include "zdr/runtime/user_defaults.h"
#include "zdr/runtime/layer_log.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <vector>

#include "zdr/runtime/bundle.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/user_defaults_internal.h"

namespace zdr {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

void report(const std::string& message) {
    detail::layerLog("general", 1, "UserDefaults: " + message, "UserDefaults", __FILE__, __LINE__);
}

std::string errnoText(int err) { return std::strerror(err); }

/// Closes a descriptor on every path out of a function.
class Fd {
 public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

 private:
    int fd_;
};

std::string utcStamp() {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y%m%dT%H%M%SZ", &tm);
    return buf;
}

/// Creates the missing folders of `dir`, each 0700.
bool makeFolders(const fs::path& dir, std::string& error) {
    fs::path partial;
    for (const auto& part : dir) {
        partial /= part;
        if (partial.empty() || partial == partial.root_path()) continue;
        if (::mkdir(partial.c_str(), 0700) == 0 || errno == EEXIST) continue;
        error = "cannot create the folder " + partial.string() + ": " + errnoText(errno);
        return false;
    }
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        error = dir.string() + " is not a folder";
        return false;
    }
    return true;
}

bool writeAll(int fd, const std::string& data) {
    const char* p = data.data();
    std::size_t left = data.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

enum class ReadStatus { ok, missing, corrupt, unreadable };

/// Reads `file` as a settings file. `corrupt` means it was read and is not a
/// JSON object within the bounds, or the path holds something other than a
/// regular file: it is safe to move aside. `unreadable` means the read could
/// not happen (no descriptors left, an I/O error): the file may well be good
/// and must be left alone. `why` says which.
ReadStatus readObject(const fs::path& file, json& out, std::string& why) {
    // O_NOFOLLOW: a link planted at the path is never read through.
    // O_NONBLOCK: a FIFO planted there cannot block the open.
    Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (fd.get() < 0) {
        // No file, or a path through a non-folder: nothing stored yet.
        if (errno == ENOENT || errno == ENOTDIR) return ReadStatus::missing;
        if (errno == ELOOP) {
            why = "is a symbolic link, which is never followed";
            return ReadStatus::corrupt;
        }
        why = "cannot be opened (" + errnoText(errno) + ")";
        return ReadStatus::unreadable;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        why = "cannot be examined (" + errnoText(errno) + ")";
        return ReadStatus::unreadable;
    }
    if (!S_ISREG(st.st_mode)) {
        why = "is not a regular file";
        return ReadStatus::corrupt;
    }
    const std::size_t limit = UserDefaults::kMaxFileSize;
    if (static_cast<std::uint64_t>(st.st_size) > limit) {
        why = "is larger than the limit of " + std::to_string(limit) + " bytes";
        return ReadStatus::corrupt;
    }
    std::string text;
    char buf[16384];
    // Read one byte past the limit, in case the file grew since fstat.
    while (text.size() <= limit) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            why = "cannot be read (" + errnoText(errno) + ")";
            return ReadStatus::unreadable;
        }
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
    }
    if (!detail::parseDefaultsText(text, out, why)) return ReadStatus::corrupt;
    return ReadStatus::ok;
}

enum class FolderStatus { ok, missing, refused };

/// Whether `dir` may hold this user's settings: a folder of this user's that
/// no one else can write to, so that no one else can plant or swap files in it.
FolderStatus checkFolder(const fs::path& dir, std::string& why) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return FolderStatus::missing;
        why = "cannot be examined (" + errnoText(errno) + ")";
        return FolderStatus::refused;
    }
    if (!S_ISDIR(st.st_mode)) {
        why = "is not a folder";
        return FolderStatus::refused;
    }
    if (st.st_uid != ::geteuid()) {
        why = "belongs to another user (uid " + std::to_string(st.st_uid) + ")";
        return FolderStatus::refused;
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        why = std::string("can be written by other users (mode ") + mode + ")";
        return FolderStatus::refused;
    }
    return FolderStatus::ok;
}

/// Moves a bad file out of the way so that it is kept for inspection and never
/// overwritten. False when it could not be moved.
bool moveAside(const fs::path& file, const std::string& why) {
    const std::string base = file.string() + ".corrupt-" + utcStamp();
    std::string target = base;
    for (int i = 1; ::access(target.c_str(), F_OK) == 0 && i < 1000; ++i)
        target = base + "-" + std::to_string(i);
    // rename() moves a symbolic link itself, never its target.
    if (::rename(file.c_str(), target.c_str()) != 0) {
        report(file.string() + " " + why + " and could not be moved aside (" + errnoText(errno) +
               "); it is left untouched and nothing is saved over it");
        return false;
    }
    report(file.string() + " " + why + "; moved it aside to " + target +
           " and started with no stored values");
    return true;
}

std::string sanitizeIdentifier(std::string id) {
    for (char& c : id)
        if (c == '/' || c == '\0') c = '_';
    if (id.empty() || id == "." || id == "..") id = "zdr";
    return id;
}

DispatchQueue& autosaveQueue() {
    // Never destroyed: saves may still be pending while the process exits.
    static auto* queue = new DispatchQueue("com.zdr.userdefaults.autosave");
    return *queue;
}

/// This user's home folder from the password database, when it names one.
std::optional<fs::path> passwordDatabaseHome() {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(size > 0 ? static_cast<std::size_t>(size) : 16384);
    struct passwd pw {};
    struct passwd* found = nullptr;
    while (::getpwuid_r(::geteuid(), &pw, buf.data(), buf.size(), &found) == ERANGE &&
           buf.size() < (1u << 20))
        buf.resize(buf.size() * 2);
    if (found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/')
        return std::nullopt;
    return fs::path(found->pw_dir);
}

constexpr double kFirstRetryDelay = 0.5;
constexpr double kLastRetryDelay = 60.0;

}  // namespace

namespace detail {

bool parseDefaultsText(std::string_view text, json& out, std::string& why) {
    const std::size_t maxDepth = UserDefaults::kMaxNestingDepth;
    if (text.size() > UserDefaults::kMaxFileSize) {
        why =
            "is larger than the limit of " + std::to_string(UserDefaults::kMaxFileSize) + " bytes";
        return false;
    }
    // The parser itself is iterative; what would recurse is everything done
    // with a deep value afterwards (copy, compare, dump), so the depth is
    // bounded here and nothing beyond it is ever built.
    bool tooDeep = false;
    json::parser_callback_t bound = [&](int depth, json::parse_event_t event, json&) {
        if ((event == json::parse_event_t::object_start ||
             event == json::parse_event_t::array_start) &&
            static_cast<std::size_t>(depth) >= maxDepth)
            tooDeep = true;
        return !tooDeep;
    };
    json parsed = json::parse(text.begin(), text.end(), bound, /*allow_exceptions=*/false);
    if (tooDeep) {
        why = "nests deeper than " + std::to_string(maxDepth) + " levels";
        return false;
    }
    if (parsed.is_discarded()) {
        why = "is not valid JSON";
        return false;
    }
    if (!parsed.is_object()) {
        why = "does not hold a JSON object";
        return false;
    }
    out = std::move(parsed);
    return true;
}

std::size_t jsonNestingDepth(const json& value) {
    std::size_t deepest = 0;
    std::vector<std::pair<const json*, std::size_t>> pending{{&value, 0}};
    while (!pending.empty()) {
        auto [v, depth] = pending.back();
        pending.pop_back();
        if (!v->is_structured()) continue;
        deepest = std::max(deepest, depth + 1);
        for (const auto& child : *v)
            if (child.is_structured()) pending.emplace_back(&child, depth + 1);
    }
    return deepest;
}

class UserDefaultsStore : public std::enable_shared_from_this<UserDefaultsStore> {
 public:
    explicit UserDefaultsStore(fs::path file)
        : file_(std::move(file)),
          persistent_(!file_.empty()),
          dir_(file_.has_parent_path() ? file_.parent_path() : fs::path(".")),
          lockFile_(file_.string() + ".lock"),
          tmpPrefix_("." + file_.filename().string() + ".tmp-") {}

    const fs::path& path() const { return file_; }
    bool persistent() const { return persistent_; }

    /// Reads the stored values. When the file cannot be read now, the store
    /// answers its registered defaults and tries again a moment later.
    void load() {
        if (!persistent_) return;
        std::string why;
        switch (checkFolder(dir_, why)) {
            case FolderStatus::missing:
                // Nothing stored yet.
                adopt(json::object());
                return;
            case FolderStatus::refused:
                problem("will not read " + file_.string() + ": its folder " + dir_.string() + " " +
                        why);
                scheduleRetry();
                return;
            case FolderStatus::ok:
                break;
        }
        // Moving a bad file aside and removing temporaries both need the lock,
        // so that neither can race another process's save.
        Fd lock(openLock());
        if (lock.get() < 0) {
            problem("cannot read " + file_.string() + ": cannot open the lock file " +
                    lockFile_.string() + " (" + errnoText(errno) +
                    "); answering the registered defaults until it can");
            scheduleRetry();
            return;
        }
        removeStaleTemporaries();
        json disk = json::object();
        switch (readObject(file_, disk, why)) {
            case ReadStatus::ok:
                break;
            case ReadStatus::missing:
                disk = json::object();
                break;
            case ReadStatus::corrupt:
                moveAside(file_, why);
                disk = json::object();
                break;
            case ReadStatus::unreadable:
                problem(file_.string() + " " + why +
                        "; left as it is, answering the registered defaults until it can be read");
                scheduleRetry();
                return;
        }
        adopt(std::move(disk));
    }

    std::optional<json> lookup(const std::string& key) const {
        std::lock_guard guard(mutex_);
        if (auto it = values_.find(key); it != values_.end()) return *it;
        if (auto it = registered_.find(key); it != registered_.end()) return *it;
        return std::nullopt;
    }

    void registerDefaults(const json& defaults) {
        if (!defaults.is_object()) {
            report("registerDefaults needs a JSON object; ignored " +
                   std::string(defaults.type_name()));
            return;
        }
        for (const auto& [k, v] : defaults.items()) {
            if (jsonNestingDepth(v) >= UserDefaults::kMaxNestingDepth) {
                report("registerDefaults refused \"" + k + "\": its value nests deeper than " +
                       std::to_string(UserDefaults::kMaxNestingDepth - 1) + " levels");
                continue;
            }
            std::lock_guard guard(mutex_);
            registered_[k] = v;
        }
    }

    void set(const std::string& key, std::optional<json> value) {
        std::lock_guard guard(mutex_);
        if (value) {
            values_[key] = std::move(*value);
        } else {
            values_.erase(key);
        }
        if (!persistent_) return;  // nothing to save
        changed_[key] = ++generation_;
        scheduleSaveLocked();
    }

    bool synchronize() {
        if (!persistent_) {
            if (!memoryOnlyReported_.exchange(true))
                report(
                    "these settings are kept in memory only: there is no private folder "
                    "to save them in");
            return false;
        }
        std::lock_guard syncGuard(syncMutex_);
        // The keys this instance changed, with the generation at which they
        // were taken: a key changed again during the save stays dirty.
        std::map<std::string, std::uint64_t> changes;
        json changedValues = json::object();
        {
            std::lock_guard guard(mutex_);
            changes = changed_;
            for (const auto& [key, gen] : changes)
                if (auto it = values_.find(key); it != values_.end()) changedValues[key] = *it;
        }

        std::string error;
        if (!makeFolders(dir_, error)) {
            report("could not save " + file_.string() + ": " + error);
            return false;
        }
        if (checkFolder(dir_, error) != FolderStatus::ok) {
            report("will not save " + file_.string() + ": its folder " + dir_.string() + " " +
                   error);
            return false;
        }
        Fd lock(openLock());
        if (lock.get() < 0) {
            report("could not save " + file_.string() + ": cannot open the lock file " +
                   lockFile_.string() + ": " + errnoText(errno));
            scheduleRetry();
            return false;
        }

        json merged = json::object();
        std::string why;
        switch (readObject(file_, merged, why)) {
            case ReadStatus::ok:
                break;
            case ReadStatus::missing:
                merged = json::object();
                break;
            case ReadStatus::corrupt:
                if (!moveAside(file_, why)) return false;
                merged = json::object();
                break;
            case ReadStatus::unreadable:
                // Writing now would drop every key this instance never read.
                report("could not save " + file_.string() + ": it " + why +
                       "; nothing was written and the changes are kept for the next attempt");
                scheduleRetry();
                return false;
        }
        for (const auto& [key, gen] : changes) {
            if (auto it = changedValues.find(key); it != changedValues.end()) {
                merged[key] = *it;
            } else {
                merged.erase(key);
            }
        }
        if (!changes.empty() && !writeFile(merged)) return false;

        {
            std::lock_guard guard(mutex_);
            for (const auto& [key, gen] : changes)
                if (auto it = changed_.find(key); it != changed_.end() && it->second == gen)
                    changed_.erase(it);
        }
        adopt(std::move(merged));
        return true;
    }

    bool dirty() const {
        std::lock_guard guard(mutex_);
        return !changed_.empty();
    }

    void setAutosaveDelay(double seconds) {
        std::lock_guard guard(mutex_);
        autosaveDelay_ = seconds;
    }

    json dictionaryRepresentation() const {
        std::lock_guard guard(mutex_);
        json all = registered_;
        for (const auto& [k, v] : values_.items()) all[k] = v;
        return all;
    }

 private:
    /// Takes `disk` as the stored values, with the changes not yet saved on top.
    void adopt(json disk) {
        std::lock_guard guard(mutex_);
        for (const auto& [key, gen] : changed_) {
            if (auto it = values_.find(key); it != values_.end()) {
                disk[key] = *it;
            } else {
                disk.erase(key);
            }
        }
        values_ = std::move(disk);
        loaded_ = true;
        lastProblem_.clear();
        retryDelay_ = kFirstRetryDelay;
    }

    /// Reports a reason for not reading the file, once for as long as it lasts.
    void problem(const std::string& message) {
        {
            std::lock_guard guard(mutex_);
            if (message == lastProblem_) return;
            lastProblem_ = message;
        }
        report(message);
    }

    /// Tries the file again later, waiting longer after each failure.
    void scheduleRetry() {
        double delay;
        {
            std::lock_guard guard(mutex_);
            if (retryScheduled_) return;
            retryScheduled_ = true;
            delay = retryDelay_;
            retryDelay_ = std::min(retryDelay_ * 2, kLastRetryDelay);
        }
        std::weak_ptr<UserDefaultsStore> weak = weak_from_this();
        autosaveQueue().asyncAfter(dispatchTimeAfter(delay), [weak] {
            auto self = weak.lock();
            if (!self) return;
            bool loaded;
            {
                std::lock_guard guard(self->mutex_);
                self->retryScheduled_ = false;
                loaded = self->loaded_;
            }
            if (!loaded) self->load();
            if (self->dirty()) self->synchronize();
        });
    }

    /// The inter-process lock, held while the returned descriptor is open;
    /// -1 (errno set) when the lock file cannot be opened.
    int openLock() const {
        int fd = ::open(lockFile_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0) return -1;
        while (::flock(fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                int err = errno;
                ::close(fd);
                errno = err;
                return -1;
            }
        }
        return fd;
    }

    /// Removes the temporary files of saves that were killed before their
    /// rename. Called with the lock held: every save runs under it, so no
    /// temporary of a save still in progress can be there.
    void removeStaleTemporaries() const {
        std::error_code ec;
        for (fs::directory_iterator it(dir_, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string name = it->path().filename().string();
            if (name.size() > tmpPrefix_.size() &&
                name.compare(0, tmpPrefix_.size(), tmpPrefix_) == 0)
                ::unlink(it->path().c_str());
        }
    }

    bool writeFile(const json& contents) {
        // Invalid UTF-8 in a stored string is replaced rather than thrown on.
        const std::string text =
            contents.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
        if (text.size() > UserDefaults::kMaxFileSize) {
            report("will not save " + file_.string() + ": it would take " +
                   std::to_string(text.size()) + " bytes, more than the limit of " +
                   std::to_string(UserDefaults::kMaxFileSize) + "; the previous file is unchanged");
            return false;
        }
        std::string tmp = (dir_ / (tmpPrefix_ + "XXXXXX")).string();
        // mkstemp creates with O_EXCL, so it never opens through a link either.
        Fd fd(::mkostemp(tmp.data(), O_CLOEXEC));
        auto fail = [&](const char* step) {
            int err = errno;
            if (fd.get() >= 0) fd.reset();
            ::unlink(tmp.c_str());
            report("could not save " + file_.string() + ": " + step + " failed: " + errnoText(err) +
                   "; the previous file is unchanged");
            return false;
        };
        if (fd.get() < 0) {
            int err = errno;
            report("could not save " + file_.string() + ": cannot create a temporary file in " +
                   dir_.string() + ": " + errnoText(err));
            return false;
        }
        if (::fchmod(fd.get(), 0600) != 0) return fail("fchmod");
        if (!writeAll(fd.get(), text)) return fail("write");
        if (::fsync(fd.get()) != 0) return fail("fsync");
        if (::close(fd.release()) != 0) return fail("close");
        if (::rename(tmp.c_str(), file_.c_str()) != 0) return fail("rename");
        // The rename is durable only once the folder itself is on disk.
        Fd dirFd(::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (dirFd.get() >= 0 && ::fsync(dirFd.get()) != 0 && errno != EINVAL) {
            report("saved " + file_.string() +
                   " but could not flush its folder: " + errnoText(errno));
        }
        return true;
    }

    void scheduleSaveLocked() {
        if (saveScheduled_) return;
        saveScheduled_ = true;
        std::weak_ptr<UserDefaultsStore> weak = weak_from_this();
        autosaveQueue().asyncAfter(dispatchTimeAfter(autosaveDelay_), [weak] {
            auto self = weak.lock();
            if (!self) return;
            {
                std::lock_guard guard(self->mutex_);
                self->saveScheduled_ = false;
            }
            if (self->dirty()) self->synchronize();
        });
    }

    const fs::path file_;
    const bool persistent_;
    const fs::path dir_;
    const fs::path lockFile_;
    const std::string tmpPrefix_;

    mutable std::mutex mutex_;  // guards everything below
    json values_ = json::object();
    json registered_ = json::object();
    std::map<std::string, std::uint64_t> changed_;
    std::uint64_t generation_ = 0;
    bool saveScheduled_ = false;
    double autosaveDelay_ = 0.5;
    bool loaded_ = false;
    bool retryScheduled_ = false;
    double retryDelay_ = kFirstRetryDelay;
    std::string lastProblem_;

    std::mutex syncMutex_;  // one save at a time per instance
    std::atomic<bool> memoryOnlyReported_{false};
};

namespace {

struct LiveStores {
    std::mutex mutex;
    std::vector<std::weak_ptr<UserDefaultsStore>> stores;
};

LiveStores& liveStores() {
    // Never destroyed, so that the exit handler can always reach it.
    static auto* live = new LiveStores;
    return *live;
}

void saveAllAtExit() {
    std::vector<std::shared_ptr<UserDefaultsStore>> stores;
    {
        std::lock_guard guard(liveStores().mutex);
        for (auto& w : liveStores().stores)
            if (auto s = w.lock()) stores.push_back(std::move(s));
    }
    for (auto& s : stores)
        if (s->dirty()) s->synchronize();
}

void track(const std::shared_ptr<UserDefaultsStore>& store) {
    static std::once_flag once;
    std::call_once(once, [] {
        liveStores();
        std::atexit(saveAllAtExit);
    });
    std::lock_guard guard(liveStores().mutex);
    auto& v = liveStores().stores;
    std::erase_if(v, [](const auto& w) { return w.expired(); });
    v.push_back(store);
}

}  // namespace
}  // namespace detail

// ---------------------------------------------------------------------------

std::shared_ptr<UserDefaults> UserDefaults::standard() {
    // Never destroyed, like the library's other process-wide objects: pool
    // work may still read and set defaults while the process exits, after
    // static destructors have run.
    static auto* instance = new std::shared_ptr<UserDefaults>([] {
        auto file = standardFilePath();
        if (!file)
            report(
                "neither XDG_CONFIG_HOME, HOME nor the password database gives a home "
                "folder; settings are kept in memory only and not saved");
        return std::make_shared<UserDefaults>(file.value_or(fs::path()));
    }());
    return *instance;
}

std::optional<fs::path> UserDefaults::standardFilePath() {
    fs::path base;
    // Relative values are invalid for XDG variables and are ignored. There is
    // deliberately no shared fallback such as /tmp: another user could own it.
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/') {
        base = xdg;
    } else if (const char* home = std::getenv("HOME"); home && home[0] == '/') {
        base = fs::path(home) / ".config";
    } else if (auto pwHome = passwordDatabaseHome()) {
        base = *pwHome / ".config";
    } else {
        return std::nullopt;
    }
    std::string id;
    if (auto bundleId = Bundle::main().bundleIdentifier(); bundleId && !bundleId->empty()) {
        id = *bundleId;
    } else {
        id = fs::path(Bundle::main().executablePath()).filename().string();
    }
    return base / sanitizeIdentifier(id) / "defaults.json";
}

UserDefaults::UserDefaults(fs::path file)
    : store_(std::make_shared<detail::UserDefaultsStore>(std::move(file))) {
    store_->load();
    if (store_->persistent()) detail::track(store_);
}

UserDefaults::~UserDefaults() {
    if (store_->dirty()) store_->synchronize();
}

const fs::path& UserDefaults::path() const { return store_->path(); }

void UserDefaults::registerDefaults(const json& defaults) { store_->registerDefaults(defaults); }

std::optional<json> UserDefaults::objectForKey(const std::string& key) const {
    return store_->lookup(key);
}

bool UserDefaults::boolForKey(const std::string& key) const {
    auto v = store_->lookup(key);
    if (!v) return false;
    if (v->is_boolean()) return v->get<bool>();
    if (v->is_number_integer()) return v->get<std::int64_t>() != 0;
    if (v->is_number_unsigned()) return v->get<std::uint64_t>() != 0;
    if (v->is_number_float()) return v->get<double>() != 0.0;
    return false;
}

std::int64_t UserDefaults::integerForKey(const std::string& key) const {
    auto v = store_->lookup(key);
    if (!v) return 0;
    if (v->is_boolean()) return v->get<bool>() ? 1 : 0;
    if (v->is_number_unsigned()) {
        auto u = v->get<std::uint64_t>();
        return u <= static_cast<std::uint64_t>(INT64_MAX) ? static_cast<std::int64_t>(u) : 0;
    }
    if (v->is_number_integer()) return v->get<std::int64_t>();
    if (v->is_number_float()) {
        // Out of range conversion would be undefined: such a value is treated
        // like a value of the wrong type.
        double d = std::trunc(v->get<double>());
        if (std::isfinite(d) && d >= -9.2e18 && d <= 9.2e18) return static_cast<std::int64_t>(d);
    }
    return 0;
}

double UserDefaults::doubleForKey(const std::string& key) const {
    auto v = store_->lookup(key);
    if (!v) return 0.0;
    if (v->is_boolean()) return v->get<bool>() ? 1.0 : 0.0;
    if (v->is_number()) return v->get<double>();
    return 0.0;
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
    auto v = store_->lookup(key);
    if (!v || !v->is_string()) return std::nullopt;
    return v->get<std::string>();
}

void UserDefaults::setBool(bool value, const std::string& key) { store_->set(key, json(value)); }

void UserDefaults::setInteger(std::int64_t value, const std::string& key) {
    store_->set(key, json(value));
}

void UserDefaults::setDouble(double value, const std::string& key) {
    if (!std::isfinite(value)) {
        report("setDouble refused a non-finite value for \"" + key + "\"; the key is unchanged");
        return;
    }
    store_->set(key, json(value));
}

void UserDefaults::setString(std::string value, const std::string& key) {
    store_->set(key, json(std::move(value)));
}

void UserDefaults::setObject(json value, const std::string& key) {
    if (detail::jsonNestingDepth(value) >= kMaxNestingDepth) {
        report("setObject refused a value for \"" + key + "\" that nests deeper than " +
               std::to_string(kMaxNestingDepth - 1) + " levels; the key is unchanged");
        return;
    }
    if (value.is_null() || value.is_discarded()) {
        store_->set(key, std::nullopt);
    } else {
        store_->set(key, std::move(value));
    }
}

void UserDefaults::removeObjectForKey(const std::string& key) { store_->set(key, std::nullopt); }

bool UserDefaults::synchronize() { return store_->synchronize(); }

void UserDefaults::setAutosaveDelay(double seconds) { store_->setAutosaveDelay(seconds); }

bool UserDefaults::hasUnsavedChanges() const { return store_->dirty(); }

json UserDefaults::dictionaryRepresentation() const { return store_->dictionaryRepresentation(); }

}  // namespace zdr
