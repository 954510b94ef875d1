#include "zdr/runtime/user_defaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

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

namespace zdr {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

void report(const std::string& message) {
    std::fprintf(stderr, "UserDefaults: %s\n", message.c_str());
    std::fflush(stderr);
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

enum class ReadStatus { ok, missing, bad };

/// Reads `file` as a JSON object. `bad` covers unreadable files as well as
/// text that is not a JSON object; `why` then says which.
ReadStatus readObject(const fs::path& file, json& out, std::string& why) {
    Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        // No file, or a path through a non-folder: nothing stored yet.
        if (errno == ENOENT || errno == ENOTDIR) return ReadStatus::missing;
        why = "cannot be read (" + errnoText(errno) + ")";
        return ReadStatus::bad;
    }
    std::string text;
    char buf[16384];
    for (;;) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            why = "cannot be read (" + errnoText(errno) + ")";
            return ReadStatus::bad;
        }
        if (n == 0) break;
        text.append(buf, static_cast<std::size_t>(n));
    }
    json parsed = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) {
        why = "is not valid JSON";
        return ReadStatus::bad;
    }
    if (!parsed.is_object()) {
        why = "does not hold a JSON object";
        return ReadStatus::bad;
    }
    out = std::move(parsed);
    return ReadStatus::ok;
}

/// Moves a bad file out of the way so that it is kept for inspection and never
/// overwritten. False when it could not be moved.
bool moveAside(const fs::path& file, const std::string& why) {
    const std::string base = file.string() + ".corrupt-" + utcStamp();
    std::string target = base;
    for (int i = 1; ::access(target.c_str(), F_OK) == 0 && i < 1000; ++i)
        target = base + "-" + std::to_string(i);
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

}  // namespace

namespace detail {

class UserDefaultsStore : public std::enable_shared_from_this<UserDefaultsStore> {
 public:
    explicit UserDefaultsStore(fs::path file)
        : file_(std::move(file)),
          dir_(file_.has_parent_path() ? file_.parent_path() : fs::path(".")),
          lockFile_(file_.string() + ".lock") {}

    const fs::path& path() const { return file_; }

    void load() {
        json disk = json::object();
        // Take the lock when the folder exists, so that moving a bad file aside
        // cannot race with another process; without a folder there is no file
        // to read, and saves replace the file by rename, so a lock-free read
        // never sees half a file anyway.
        Fd lock(openLock());
        std::string why;
        if (readObject(file_, disk, why) == ReadStatus::bad) {
            moveAside(file_, why);
            disk = json::object();
        }
        std::lock_guard guard(mutex_);
        values_ = std::move(disk);
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
        std::lock_guard guard(mutex_);
        for (const auto& [k, v] : defaults.items()) registered_[k] = v;
    }

    void set(const std::string& key, std::optional<json> value) {
        std::lock_guard guard(mutex_);
        if (value) {
            values_[key] = std::move(*value);
        } else {
            values_.erase(key);
        }
        changed_[key] = ++generation_;
        scheduleSaveLocked();
    }

    bool synchronize() {
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
        Fd lock(openLock());
        if (lock.get() < 0) {
            report("could not save " + file_.string() + ": cannot open the lock file " +
                   lockFile_.string() + ": " + errnoText(errno));
            return false;
        }

        json merged = json::object();
        std::string why;
        if (readObject(file_, merged, why) == ReadStatus::bad) {
            if (!moveAside(file_, why)) return false;
            merged = json::object();
        }
        for (const auto& [key, gen] : changes) {
            if (auto it = changedValues.find(key); it != changedValues.end()) {
                merged[key] = *it;
            } else {
                merged.erase(key);
            }
        }
        if (!changes.empty() && !writeFile(merged)) return false;

        std::lock_guard guard(mutex_);
        for (const auto& [key, gen] : changes)
            if (auto it = changed_.find(key); it != changed_.end() && it->second == gen)
                changed_.erase(it);
        // What is on disk now, with the changes made meanwhile on top.
        for (const auto& [key, gen] : changed_) {
            if (auto it = values_.find(key); it != values_.end()) {
                merged[key] = *it;
            } else {
                merged.erase(key);
            }
        }
        values_ = std::move(merged);
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
    /// The inter-process lock, held while the returned descriptor is open;
    /// -1 (errno set) when the lock file cannot be opened.
    int openLock() const {
        int fd = ::open(lockFile_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
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

    bool writeFile(const json& contents) {
        // Invalid UTF-8 in a stored string is replaced rather than thrown on.
        const std::string text =
            contents.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
        std::string tmp = (dir_ / ("." + file_.filename().string() + ".tmp-XXXXXX")).string();
        Fd fd(::mkstemp(tmp.data()));
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
    const fs::path dir_;
    const fs::path lockFile_;

    mutable std::mutex mutex_;  // guards everything below
    json values_ = json::object();
    json registered_ = json::object();
    std::map<std::string, std::uint64_t> changed_;
    std::uint64_t generation_ = 0;
    bool saveScheduled_ = false;
    double autosaveDelay_ = 0.5;

    std::mutex syncMutex_;  // one save at a time per instance
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
    static std::shared_ptr<UserDefaults> instance =
        std::make_shared<UserDefaults>(standardFilePath());
    return instance;
}

fs::path UserDefaults::standardFilePath() {
    fs::path base;
    // Relative values are invalid for XDG variables and are ignored.
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/') {
        base = xdg;
    } else if (const char* home = std::getenv("HOME"); home && home[0] == '/') {
        base = fs::path(home) / ".config";
    } else {
        base = fs::temp_directory_path();
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
    detail::track(store_);
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
