// The bookmark record's encoder and decoder, and base64 for its text forms.
// (base64 is written here because none of the libraries this one links
// offers it; it is a few lines.)
#include <algorithm>
#include <cstring>

#include "zdr/system/bookmark_record_internal.h"

namespace zdr::detail {

namespace {

constexpr std::uint8_t kMagic[4] = {'Z', 'D', 'R', 'B'};

void put16(std::vector<std::uint8_t>& out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v));
    out.push_back(static_cast<std::uint8_t>(v >> 8));
}
void put32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void put64(std::vector<std::uint8_t>& out, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

std::uint64_t get(std::span<const std::uint8_t> bytes, std::size_t at, int width) {
    std::uint64_t v = 0;
    for (int i = 0; i < width; ++i) v |= static_cast<std::uint64_t>(bytes[at + i]) << (8 * i);
    return v;
}

struct Field {
    BookmarkTag tag;
    std::vector<std::uint8_t> value;
};

void putField(std::vector<std::uint8_t>& out, BookmarkTag tag,
              const std::vector<std::uint8_t>& value) {
    put16(out, static_cast<std::uint16_t>(tag));
    put32(out, static_cast<std::uint32_t>(value.size()));
    out.insert(out.end(), value.begin(), value.end());
}

std::vector<std::uint8_t> u64Value(std::uint64_t v) {
    std::vector<std::uint8_t> out;
    put64(out, v);
    return out;
}

std::vector<std::uint8_t> textValue(const std::string& s) {
    return std::vector<std::uint8_t>(s.begin(), s.end());
}

Error malformed(const std::string& what) {
    return bookmarkError(BookmarkErrorCode::malformed, "The bookmark data is malformed: " + what);
}

}  // namespace

Error bookmarkError(BookmarkErrorCode code, std::string description) {
    return Error(kBookmarkErrorDomain, static_cast<long>(code),
                 {{kNSLocalizedDescriptionKey, std::move(description)}});
}

std::vector<std::uint8_t> encodeBookmark(const BookmarkRecord& record) {
    std::vector<std::uint8_t> fields;
    std::uint16_t count = 0;
    auto add = [&](BookmarkTag tag, const std::vector<std::uint8_t>& value) {
        putField(fields, tag, value);
        ++count;
    };
    add(BookmarkTag::path, textValue(record.path));
    if (record.device) add(BookmarkTag::device, u64Value(*record.device));
    if (record.inode) add(BookmarkTag::inode, u64Value(*record.inode));
    if (record.fileType) {
        std::vector<std::uint8_t> v;
        put32(v, *record.fileType);
        add(BookmarkTag::fileType, v);
    }
    if (record.size) add(BookmarkTag::size, u64Value(*record.size));
    if (record.birthTime) {
        std::vector<std::uint8_t> v;
        put64(v, static_cast<std::uint64_t>(record.birthTime->seconds));
        put32(v, record.birthTime->nanoseconds);
        add(BookmarkTag::birthTime, v);
    }
    if (record.fileHandle) {
        std::vector<std::uint8_t> v;
        put32(v, record.fileHandle->handleType);
        put32(v, static_cast<std::uint32_t>(record.fileHandle->mountID));
        v.insert(v.end(), record.fileHandle->bytes.begin(), record.fileHandle->bytes.end());
        add(BookmarkTag::fileHandle, v);
    }
    if (record.machineID) add(BookmarkTag::machineID, textValue(*record.machineID));

    std::vector<std::uint8_t> out(std::begin(kMagic), std::end(kMagic));
    put16(out, kBookmarkVersion);
    put16(out, count);
    out.insert(out.end(), fields.begin(), fields.end());
    return out;
}

std::optional<BookmarkRecord> decodeBookmark(std::span<const std::uint8_t> data, Error* error) {
    auto fail = [&](Error e) -> std::optional<BookmarkRecord> {
        if (error != nullptr) *error = std::move(e);
        return std::nullopt;
    };
    if (data.empty()) return fail(malformed("it is empty"));
    if (data.size() > kBookmarkMaxSize) return fail(malformed("it is too large"));
    if (data.size() < 8) return fail(malformed("it is truncated"));
    if (std::memcmp(data.data(), kMagic, sizeof kMagic) != 0) {
        return fail(malformed("it is not a bookmark record"));
    }
    const auto version = static_cast<std::uint16_t>(get(data, 4, 2));
    if (version != kBookmarkVersion) {
        return fail(bookmarkError(BookmarkErrorCode::unsupportedVersion,
                                  "The bookmark data has version " + std::to_string(version) +
                                      ", which this version of the library cannot read"));
    }
    const auto count = static_cast<std::size_t>(get(data, 6, 2));
    if (count > kBookmarkMaxFields) return fail(malformed("it has too many fields"));

    BookmarkRecord record;
    bool havePath = false;
    // Tags seen so far: a bit for the small ones, a short list for the rest
    // (a record has at most kBookmarkMaxFields fields).
    std::uint64_t seenSmall = 0;
    std::vector<std::uint16_t> seenLarge;
    std::size_t at = 8;
    for (std::size_t i = 0; i < count; ++i) {
        if (data.size() - at < 6) return fail(malformed("it is truncated"));
        const auto tag = static_cast<std::uint16_t>(get(data, at, 2));
        const auto length = static_cast<std::size_t>(get(data, at + 2, 4));
        at += 6;
        if (length > data.size() - at) return fail(malformed("it is truncated"));
        const auto value = data.subspan(at, length);
        at += length;
        bool repeated = false;
        if (tag < 64) {
            repeated = (seenSmall & (std::uint64_t{1} << tag)) != 0;
            seenSmall |= std::uint64_t{1} << tag;
        } else {
            repeated = std::find(seenLarge.begin(), seenLarge.end(), tag) != seenLarge.end();
            seenLarge.push_back(tag);
        }
        if (repeated) return fail(malformed("a field appears twice"));
        auto needLength = [&](std::size_t n) { return length == n; };
        switch (static_cast<BookmarkTag>(tag)) {
            case BookmarkTag::path: {
                if (length == 0 || length > kBookmarkMaxPath || value[0] != '/') {
                    return fail(malformed("its path is not an absolute path"));
                }
                if (std::memchr(value.data(), 0, value.size()) != nullptr) {
                    return fail(malformed("its path holds a NUL byte"));
                }
                record.path.assign(value.begin(), value.end());
                havePath = true;
                break;
            }
            case BookmarkTag::device:
                if (!needLength(8)) return fail(malformed("bad device field"));
                record.device = get(value, 0, 8);
                break;
            case BookmarkTag::inode:
                if (!needLength(8)) return fail(malformed("bad inode field"));
                record.inode = get(value, 0, 8);
                break;
            case BookmarkTag::fileType:
                if (!needLength(4)) return fail(malformed("bad file type field"));
                record.fileType = static_cast<std::uint32_t>(get(value, 0, 4));
                break;
            case BookmarkTag::size:
                if (!needLength(8)) return fail(malformed("bad size field"));
                record.size = get(value, 0, 8);
                break;
            case BookmarkTag::birthTime: {
                if (!needLength(12)) return fail(malformed("bad birth time field"));
                BirthTime t;
                t.seconds = static_cast<std::int64_t>(get(value, 0, 8));
                t.nanoseconds = static_cast<std::uint32_t>(get(value, 8, 4));
                if (t.nanoseconds >= 1000000000u) return fail(malformed("bad birth time field"));
                record.birthTime = t;
                break;
            }
            case BookmarkTag::fileHandle: {
                if (length < 8 || length - 8 > kBookmarkMaxHandle || length == 8) {
                    return fail(malformed("bad file handle field"));
                }
                FileHandle h;
                h.handleType = static_cast<std::uint32_t>(get(value, 0, 4));
                h.mountID = static_cast<std::int32_t>(static_cast<std::uint32_t>(get(value, 4, 4)));
                h.bytes.assign(value.begin() + 8, value.end());
                record.fileHandle = std::move(h);
                break;
            }
            case BookmarkTag::machineID:
                if (length == 0 || length > 64) return fail(malformed("bad machine field"));
                record.machineID = std::string(value.begin(), value.end());
                break;
            default:
                // A field this version does not know: skipped, so that a
                // later writer can add optional fields within version 1.
                break;
        }
    }
    if (at != data.size()) return fail(malformed("it has trailing bytes"));
    if (!havePath) return fail(malformed("it has no path"));
    return record;
}

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (std::size_t rest = bytes.size() - i; rest > 0) {
        std::uint32_t v = bytes[i] << 16;
        if (rest == 2) v |= bytes[i + 1] << 8;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    auto value = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') return c - 'A';
        if (c >= 'a' && c <= 'z') return c - 'a' + 26;
        if (c >= '0' && c <= '9') return c - '0' + 52;
        if (c == '+') return 62;
        if (c == '/') return 63;
        return -1;
    };
    if (text.size() % 4 != 0) return std::nullopt;
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int v[4];
        int padding = 0;
        for (int k = 0; k < 4; ++k) {
            char c = text[i + k];
            if (c == '=' && last && k >= 2) {
                ++padding;
                v[k] = 0;
                continue;
            }
            if (padding > 0) return std::nullopt;  // data after padding
            v[k] = value(c);
            if (v[k] < 0) return std::nullopt;
        }
        std::uint32_t n = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
        out.push_back(static_cast<std::uint8_t>(n >> 16));
        if (padding < 2) out.push_back(static_cast<std::uint8_t>(n >> 8));
        if (padding < 1) out.push_back(static_cast<std::uint8_t>(n));
    }
    return out;
}

}  // namespace zdr::detail
