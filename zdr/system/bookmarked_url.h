// BookmarkedURL: a reference to a file or folder that survives renames, moves
// and restarts of the application. It keeps the file's URL (a path on this
// platform) next to bookmark data that finds the file again, and persists in
// two forms: the keyed serialisation of settings ({"url", "data"}) and the
// archived form ({"data"}).
//
//   BookmarkedURL folder("/home/me/Videos");          // makes the data
//   settings["recordings"] = folder.toJSON();
//   ...
//   auto again = BookmarkedURL::fromJSON(settings["recordings"]);
//   if (again.url()) use(*again.path());            // found, maybe moved
//
// Resolution, in order: the stored path, when the file there is the same file
// (device, inode, type and birth time agree); else the kernel file handle
// (open_by_handle_at, which needs CAP_DAC_READ_SEARCH, else skipped); else a
// bounded search for the same device and inode below the old folder and up to
// two folders above it (three levels deep, at most 20000 entries, never
// leaving the file system). A file found anywhere but its stored path
// resolves as stale; so does another file sitting at the stored path when the
// original is gone. Stale data is not refreshed. Data made on another machine
// (its machine ID differs) resolves by path alone, as stale. A stale result
// that collapses to "/" clears the URL and still reports success: callers
// test url(), not the result.
//
// The bookmark data, version 1 (all integers little-endian):
//
//   offset 0  4 bytes   magic "ZDRB"
//          4  u16       version (1)
//          6  u16       field count (at most 64)
//          8  fields    each: u16 tag, u32 length, `length` bytes of value
//
//   tag 1  path        absolute path bytes, no NUL, 1..4096 bytes (required)
//   tag 2  device      u64: major << 32 | minor
//   tag 3  inode       u64
//   tag 4  file type   u32: st_mode & S_IFMT
//   tag 5  size        u64 (at creation; informational)
//   tag 6  birth time  i64 seconds, u32 nanoseconds (statx btime, where the
//                      file system records one)
//   tag 7  file handle u32 handle type, i32 mount id, 1..128 handle bytes
//   tag 8  machine     the creating machine's /etc/machine-id text
//
// A record may hold unknown tags (skipped) but no tag twice, no trailing bytes
// and nothing past its end; the whole record is at most 64 KiB. Any other
// version, and anything truncated or malformed, fails to resolve with a
// logged error; nothing is thrown and nothing is read outside the data.
//
// Threads: an instance is used from one thread at a time (like any value);
// distinct instances may be used from any threads at once. Log lines go to the
// "bookmarks" category logger.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zdr {

class BookmarkedURL {
 public:
    using URL = std::filesystem::path;
    using Data = std::vector<std::uint8_t>;

    /// Archived instances can be decoded without trusting the archive.
    static constexpr bool supportsSecureCoding = true;

    /// An empty instance: no url, no data.
    BookmarkedURL() = default;
    /// Sets url, makes and stores the bookmark data for it, then resolves.
    explicit BookmarkedURL(const URL& url);
    /// Stores the data, leaves url empty, then resolves.
    explicit BookmarkedURL(Data data);

    const std::optional<URL>& url() const { return url_; }
    const std::optional<Data>& data() const { return data_; }
    /// The path of url, or none.
    std::optional<std::string> path() const;
    /// url as a "file://" URL (percent-encoded), or none.
    std::optional<std::string> urlString() const;

    /// The bookmark data for `forURL`; none, with an error logged ("Cannot
    /// create a bookmark for: <url>. Err: <error>"), when the file cannot be
    /// examined (it does not exist, is unreachable...).
    static std::optional<Data> createBookmarkData(const URL& forURL);

    /// Rebuilds url from the data. False, url unchanged, when there is no
    /// data or it cannot be resolved (both logged). True when resolved, also
    /// when a stale result at "/" cleared url.
    bool resolveBookmark();
    /// Whether the last successful resolution found the file somewhere other
    /// than the data says (moved, replaced, or data from another machine):
    /// a caller that wants fresh data makes a new bookmark for url().
    bool isStale() const { return stale_; }

    // ---- Keyed serialisation: {"url": "file:///...", "data": "<base64>"} ----

    /// Both keys, each when present.
    nlohmann::json toJSON() const;
    /// Reads whichever keys are present and well-formed ("url" as a file URL
    /// or an absolute path; "data" as base64), then resolves.
    static BookmarkedURL fromJSON(const nlohmann::json& json);

    // ---- Archiving: {"data": "<base64>"} ----

    /// The archive: the data under "data", or nothing when there is none.
    nlohmann::json encodeWithCoder() const;
    /// Reads "data" only if it is a byte buffer (base64 text); then behaves as
    /// BookmarkedURL(data). Anything else yields an instance without data,
    /// whose resolution fails (and logs so).
    static BookmarkedURL initWithCoder(const nlohmann::json& archive);
    /// encodeWithCoder() as text, and back (text that is not JSON yields an
    /// instance without data).
    std::string archivedData() const;
    static BookmarkedURL unarchive(std::string_view archive);

    /// Equal when both have no url, or both have the same url; the data plays
    /// no part.
    friend bool operator==(const BookmarkedURL& a, const BookmarkedURL& b) {
        return a.url_ == b.url_;
    }

 private:
    static BookmarkedURL withoutData();

    std::optional<URL> url_;
    std::optional<Data> data_;
    bool stale_ = false;
};

}  // namespace zdr

template <>
struct std::hash<zdr::BookmarkedURL> {
    std::size_t operator()(const zdr::BookmarkedURL& b) const noexcept {
        return b.url() ? std::filesystem::hash_value(*b.url()) : 0;
    }
};
