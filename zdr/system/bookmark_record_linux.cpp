// Making a bookmark record for a file, and finding the file again, with the
// Linux file system's own identities: device and inode, birth time (statx),
// and a kernel file handle (name_to_handle_at / open_by_handle_at).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>

#include "zdr/system/bookmark_record_internal.h"

namespace zdr::detail {

namespace {

std::string errnoText(int code) {
    char buffer[256];
    // The GNU strerror_r returns its text, which may not be the buffer.
    return ::strerror_r(code, buffer, sizeof buffer);
}

std::uint64_t deviceNumber(dev_t device) {
    return (static_cast<std::uint64_t>(major(device)) << 32) | minor(device);
}

struct Identity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t fileType = 0;
    std::uint32_t links = 0;
    std::optional<BirthTime> birthTime;
    std::uint64_t size = 0;
};

std::optional<Identity> identityAt(int dirfd, const char* path, int flags) {
    struct statx sx {};
    if (::statx(dirfd, path, flags, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) {
        return std::nullopt;
    }
    Identity id;
    id.device = (static_cast<std::uint64_t>(sx.stx_dev_major) << 32) | sx.stx_dev_minor;
    id.inode = sx.stx_ino;
    id.fileType = sx.stx_mode & S_IFMT;
    id.links = sx.stx_nlink;
    id.size = sx.stx_size;
    if ((sx.stx_mask & STATX_BTIME) != 0) {
        id.birthTime = BirthTime{sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec};
    }
    return id;
}

// Whether the file found is the one the record was made for. Device, inode
// and type must agree; when both sides know the birth time it must agree
// too, which tells a reused inode from the same file.
bool sameFile(const BookmarkRecord& record, const Identity& found) {
    if (record.device && *record.device != found.device) return false;
    if (record.inode && *record.inode != found.inode) return false;
    if (record.fileType && *record.fileType != found.fileType) return false;
    if (record.birthTime && found.birthTime && *record.birthTime != *found.birthTime) return false;
    return true;
}

struct FdCloser {
    int fd = -1;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

// The nearest folder at or above `path` that exists.
std::string nearestExistingFolder(std::string path) {
    namespace fs = std::filesystem;
    fs::path p(path);
    while (true) {
        struct stat st {};
        if (::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return p.string();
        if (!p.has_relative_path()) return "/";
        p = p.parent_path();
    }
}

std::optional<std::string> resolveThroughHandle(const BookmarkRecord& record) {
    const FileHandle& h = *record.fileHandle;
    // Any open folder on the same file system serves as the mount reference.
    std::string anchor =
        nearestExistingFolder(std::filesystem::path(record.path).parent_path().string());
    FdCloser mount{::open(anchor.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (mount.fd < 0) return std::nullopt;

    std::vector<std::uint8_t> storage(sizeof(file_handle) + h.bytes.size());
    auto* handle = reinterpret_cast<file_handle*>(storage.data());
    handle->handle_bytes = static_cast<unsigned>(h.bytes.size());
    handle->handle_type = static_cast<int>(h.handleType);
    std::memcpy(handle->f_handle, h.bytes.data(), h.bytes.size());
    // Needs CAP_DAC_READ_SEARCH; without it (EPERM) the search below runs.
    FdCloser file{::open_by_handle_at(mount.fd, handle, O_PATH | O_CLOEXEC)};
    if (file.fd < 0) return std::nullopt;

    auto id = identityAt(file.fd, "", AT_EMPTY_PATH);
    if (!id || id->links == 0 || !sameFile(record, *id)) return std::nullopt;
    std::string link = "/proc/self/fd/" + std::to_string(file.fd);
    std::string target(4096, '\0');
    ssize_t n = ::readlink(link.c_str(), target.data(), target.size());
    if (n <= 0 || static_cast<std::size_t>(n) >= target.size()) return std::nullopt;
    target.resize(static_cast<std::size_t>(n));
    if (target.empty() || target[0] != '/') return std::nullopt;
    // The name the kernel gives must lead to the same file from here (a file
    // outside this process's root, or one renamed meanwhile, does not).
    auto there = identityAt(AT_FDCWD, target.c_str(), 0);
    if (!there || !sameFile(record, *there)) return std::nullopt;
    return target;
}

// Breadth-first search for the record's device and inode below `root`, at
// most `depth` levels deep, skipping the subtree `skip` (already searched)
// and other file systems.
std::optional<std::string> searchBelow(const BookmarkRecord& record, const std::string& root,
                                       const std::string& skip, int depth, std::size_t& budget) {
    struct Pending {
        std::string path;
        int level;
    };
    std::deque<Pending> queue{{root, 0}};
    while (!queue.empty() && budget > 0) {
        Pending folder = std::move(queue.front());
        queue.pop_front();
        FdCloser dirfd{::open(folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        if (dirfd.fd < 0) continue;
        // A rename never leaves its file system: mounted folders (/proc, a
        // network share) are not searched.
        struct stat folderStat {};
        if (::fstat(dirfd.fd, &folderStat) != 0 ||
            deviceNumber(folderStat.st_dev) != *record.device) {
            continue;
        }
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::fdopendir(::dup(dirfd.fd)), &::closedir);
        if (!dir) continue;
        const std::string prefix = folder.path == "/" ? "/" : folder.path + "/";
        while (const dirent* entry = ::readdir(dir.get())) {
            const char* name = entry->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
                continue;
            }
            if (budget == 0) break;
            --budget;
            // The entry's inode number saves a stat for every other file.
            if (entry->d_ino == *record.inode) {
                auto id = identityAt(dirfd.fd, name, AT_SYMLINK_NOFOLLOW);
                if (id && sameFile(record, *id) && id->links > 0) return prefix + name;
            }
            bool isFolder = entry->d_type == DT_DIR;
            if (entry->d_type == DT_UNKNOWN) {
                struct stat st {};
                isFolder =
                    ::fstatat(dirfd.fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
            }
            if (isFolder && folder.level < depth) {
                std::string child = prefix + name;
                if (child != skip) queue.push_back({std::move(child), folder.level + 1});
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> resolveBySearch(const BookmarkRecord& record,
                                           const ResolveOptions& options) {
    std::filesystem::path start =
        nearestExistingFolder(std::filesystem::path(record.path).parent_path().string());
    std::size_t budget = options.searchLimit;
    std::string searched;
    for (int level = 0; level <= options.searchUpLevels && budget > 0; ++level) {
        if (record.device) {
            if (auto found =
                    searchBelow(record, start.string(), searched, options.searchDepth, budget)) {
                return found;
            }
        }
        if (!start.has_relative_path()) break;
        searched = start.string();
        start = start.parent_path();
    }
    return std::nullopt;
}

}  // namespace

const std::optional<std::string>& localMachineID() {
    // Read once: the machine does not change under a running process, and
    // resolution should cost little more than a stat.
    static const std::optional<std::string> id = []() -> std::optional<std::string> {
        for (const char* file : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
            std::ifstream in(file);
            std::string text;
            if (in >> text && !text.empty() && text.size() <= 64) return text;
        }
        return std::nullopt;
    }();
    return id;
}

std::optional<BookmarkRecord> makeBookmarkRecord(const std::string& path, Error* error) {
    auto fail = [&](std::string text) -> std::optional<BookmarkRecord> {
        if (error != nullptr) *error = bookmarkError(BookmarkErrorCode::cannotCreate, text);
        return std::nullopt;
    };
    if (path.empty()) return fail("The path is empty");
    if (path.find('\0') != std::string::npos) return fail("The path holds a NUL byte");
    std::error_code ec;
    std::filesystem::path absolute = std::filesystem::absolute(path, ec);
    if (ec) return fail(ec.message());
    std::string normal = absolute.lexically_normal().string();
    if (normal.size() > 1 && normal.back() == '/') normal.pop_back();
    if (normal.size() > kBookmarkMaxPath) return fail("The path is too long");

    auto id = identityAt(AT_FDCWD, normal.c_str(), 0);
    if (!id) return fail(errnoText(errno) + " (" + normal + ")");

    BookmarkRecord record;
    record.path = normal;
    record.device = id->device;
    record.inode = id->inode;
    record.fileType = id->fileType;
    record.size = id->size;
    record.birthTime = id->birthTime;
    record.machineID = localMachineID();

    std::vector<std::uint8_t> storage(sizeof(file_handle) + kBookmarkMaxHandle);
    auto* handle = reinterpret_cast<file_handle*>(storage.data());
    handle->handle_bytes = kBookmarkMaxHandle;
    int mountID = 0;
    // Not every file system makes handles (EOPNOTSUPP); then device, inode
    // and path are what the record holds.
    if (::name_to_handle_at(AT_FDCWD, normal.c_str(), handle, &mountID, AT_SYMLINK_FOLLOW) == 0 &&
        handle->handle_bytes > 0 && handle->handle_bytes <= kBookmarkMaxHandle) {
        FileHandle h;
        h.handleType = static_cast<std::uint32_t>(handle->handle_type);
        h.mountID = mountID;
        h.bytes.assign(handle->f_handle, handle->f_handle + handle->handle_bytes);
        record.fileHandle = std::move(h);
    }
    return record;
}

std::optional<Resolution> resolveBookmarkRecord(const BookmarkRecord& record, Error* error,
                                                const ResolveOptions& options) {
    const auto& local = localMachineID();
    const bool sameMachine = !(record.machineID && local && *record.machineID != *local);
    const bool knowsIdentity = record.device.has_value() && record.inode.has_value();

    std::optional<std::string> pathHit;
    if (auto id = identityAt(AT_FDCWD, record.path.c_str(), 0)) {
        if (!sameMachine) {
            // Device and inode mean nothing here: the path is all there is,
            // and the data no longer describes what it finds.
            return Resolution{record.path, knowsIdentity};
        }
        if (!knowsIdentity || sameFile(record, *id)) return Resolution{record.path, false};
        pathHit = record.path;
    }
    if (sameMachine && knowsIdentity) {
        if (options.useFileHandle && record.fileHandle) {
            if (auto found = resolveThroughHandle(record)) {
                return Resolution{*found, *found != record.path};
            }
        }
        if (auto found = resolveBySearch(record, options)) {
            return Resolution{*found, *found != record.path};
        }
    }
    if (pathHit) return Resolution{*pathHit, true};
    if (error != nullptr) {
        *error = bookmarkError(BookmarkErrorCode::notFound,
                               "The file could not be found (it was at " + record.path + ")");
    }
    return std::nullopt;
}

}  // namespace zdr::detail
