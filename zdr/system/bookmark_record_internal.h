// Internal: the bookmark record (what BookmarkedURL stores as its data), its
// encoder and decoder, and the Linux facility that makes one for a file and
// finds the file again. The wire format is documented in bookmarked_url.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "zdr/runtime/error.h"

namespace zdr::detail {

inline constexpr std::uint16_t kBookmarkVersion = 1;
inline constexpr std::size_t kBookmarkMaxSize = 64 * 1024;
inline constexpr std::size_t kBookmarkMaxFields = 64;
inline constexpr std::size_t kBookmarkMaxPath = 4096;
inline constexpr std::size_t kBookmarkMaxHandle = 128;

enum class BookmarkTag : std::uint16_t {
    path = 1,
    device = 2,
    inode = 3,
    fileType = 4,
    size = 5,
    birthTime = 6,
    fileHandle = 7,
    machineID = 8,
};

/// Error domain and codes of bookmark creation and resolution.
inline constexpr const char* kBookmarkErrorDomain = "ZDRBookmark";
enum class BookmarkErrorCode : long {
    cannotCreate = 1,
    malformed = 2,
    unsupportedVersion = 3,
    notFound = 4,
};

struct BirthTime {
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;
    bool operator==(const BirthTime&) const = default;
};

struct FileHandle {
    std::uint32_t handleType = 0;
    std::int32_t mountID = 0;
    std::vector<std::uint8_t> bytes;
    bool operator==(const FileHandle&) const = default;
};

struct BookmarkRecord {
    std::string path;  // absolute
    std::optional<std::uint64_t> device;
    std::optional<std::uint64_t> inode;
    std::optional<std::uint32_t> fileType;  // st_mode & S_IFMT
    std::optional<std::uint64_t> size;
    std::optional<BirthTime> birthTime;
    std::optional<FileHandle> fileHandle;
    std::optional<std::string> machineID;
    bool operator==(const BookmarkRecord&) const = default;
};

std::vector<std::uint8_t> encodeBookmark(const BookmarkRecord& record);
/// None, with `error` filled, for data that is not a whole, valid record of
/// a version this build reads. Never reads outside `data`.
std::optional<BookmarkRecord> decodeBookmark(std::span<const std::uint8_t> data, Error* error);

/// Makes the record for the file at `path` (made absolute against the working
/// folder); none with `error` when the file cannot be examined.
std::optional<BookmarkRecord> makeBookmarkRecord(const std::string& path, Error* error);

struct ResolveOptions {
    bool useFileHandle = true;
    /// How deep below each searched folder the search looks.
    int searchDepth = 3;
    /// How many folders above the old one the search climbs.
    int searchUpLevels = 2;
    /// Directory entries examined at most, over the whole search.
    std::size_t searchLimit = 20000;
};

struct Resolution {
    std::string path;
    bool stale = false;
};

/// Finds the file the record describes: at its path when the file there is
/// the same file; else through its kernel file handle; else by a bounded
/// search for its device and inode around the old location (found elsewhere:
/// stale). When the original is gone but another file sits at the old path,
/// that file, stale.
std::optional<Resolution> resolveBookmarkRecord(const BookmarkRecord& record, Error* error,
                                                const ResolveOptions& options = {});

/// The machine's identifier (/etc/machine-id), or none.
const std::optional<std::string>& localMachineID();

std::string base64Encode(std::span<const std::uint8_t> bytes);
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

Error bookmarkError(BookmarkErrorCode code, std::string description);

}  // namespace zdr::detail
