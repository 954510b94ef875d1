#include "zdr/system/bookmarked_url.h"

#include "zdr/logging/shared2.h"
#include "zdr/system/bookmark_record_internal.h"

namespace zdr {

namespace {

std::string fileURLString(const std::filesystem::path& path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out = "file://";
    for (unsigned char c : path.native()) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '/' || c == '-' || c == '.' || c == '_' ||
                           c == '~';
        if (plain) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

// A "file://" URL (host empty or "localhost") or an absolute path; none for
// anything else.
std::optional<std::filesystem::path> pathFromURLString(std::string_view text) {
    if (!text.empty() && text[0] == '/') return std::filesystem::path(std::string(text));
    constexpr std::string_view scheme = "file://";
    if (text.substr(0, scheme.size()) != scheme) return std::nullopt;
    text.remove_prefix(scheme.size());
    if (text.substr(0, 9) == "localhost") text.remove_prefix(9);
    if (text.empty() || text[0] != '/') return std::nullopt;
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::string path;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            if (i + 2 >= text.size()) return std::nullopt;
            int hi = hex(text[i + 1]);
            int lo = hex(text[i + 2]);
            if (hi < 0 || lo < 0) return std::nullopt;
            char c = static_cast<char>(hi * 16 + lo);
            if (c == '\0') return std::nullopt;
            path += c;
            i += 2;
        } else {
            path += text[i];
        }
    }
    return std::filesystem::path(path);
}

std::optional<BookmarkedURL::Data> dataFromJSON(const nlohmann::json& value) {
    if (!value.is_string()) return std::nullopt;
    return detail::base64Decode(value.get_ref<const std::string&>());
}

}  // namespace

BookmarkedURL::BookmarkedURL(const URL& url) : url_(url) {
    data_ = createBookmarkData(url);
    resolveBookmark();
}

BookmarkedURL::BookmarkedURL(Data data) : data_(std::move(data)) { resolveBookmark(); }

BookmarkedURL BookmarkedURL::withoutData() {
    BookmarkedURL result;
    result.resolveBookmark();
    return result;
}

std::optional<std::string> BookmarkedURL::path() const {
    if (!url_) return std::nullopt;
    return url_->string();
}

std::optional<std::string> BookmarkedURL::urlString() const {
    if (!url_) return std::nullopt;
    return fileURLString(*url_);
}

std::optional<BookmarkedURL::Data> BookmarkedURL::createBookmarkData(const URL& forURL) {
    Error error;
    auto record = detail::makeBookmarkRecord(forURL.string(), &error);
    if (!record) {
        Shared2::bookmarks()->error("Cannot create a bookmark for: {}. Err: {}",
                                    fileURLString(forURL), error.localizedDescription());
        return std::nullopt;
    }
    return detail::encodeBookmark(*record);
}

bool BookmarkedURL::resolveBookmark() {
    if (!data_) {
        Shared2::bookmarks()->warning("Cannot resolve bookmark: there is no data");
        return false;
    }
    Error error;
    std::optional<detail::Resolution> resolution;
    if (auto record = detail::decodeBookmark(*data_, &error)) {
        resolution = detail::resolveBookmarkRecord(*record, &error);
    }
    if (!resolution) {
        Shared2::bookmarks()->error("Cannot resolve the bookmark from data: {}",
                                    error.localizedDescription());
        return false;
    }
    url_ = URL(resolution->path);
    stale_ = resolution->stale;
    if (resolution->stale && resolution->path == "/") {
        // A stale bookmark that collapses to the volume root is lost; the
        // result stays true on purpose (callers test url()).
        url_.reset();
        return true;
    }
    Shared2::bookmarks()->debug("Successfully resolved data -> {}", fileURLString(*url_));
    return true;
}

nlohmann::json BookmarkedURL::toJSON() const {
    nlohmann::json json = nlohmann::json::object();
    if (url_) json["url"] = fileURLString(*url_);
    if (data_) json["data"] = detail::base64Encode(*data_);
    return json;
}

BookmarkedURL BookmarkedURL::fromJSON(const nlohmann::json& json) {
    BookmarkedURL result;
    if (json.is_object()) {
        if (auto it = json.find("url"); it != json.end() && it->is_string()) {
            result.url_ = pathFromURLString(it->get_ref<const std::string&>());
        }
        if (auto it = json.find("data"); it != json.end()) result.data_ = dataFromJSON(*it);
    }
    result.resolveBookmark();
    return result;
}

nlohmann::json BookmarkedURL::encodeWithCoder() const {
    nlohmann::json archive = nlohmann::json::object();
    if (data_) archive["data"] = detail::base64Encode(*data_);
    return archive;
}

BookmarkedURL BookmarkedURL::initWithCoder(const nlohmann::json& archive) {
    if (archive.is_object()) {
        if (auto it = archive.find("data"); it != archive.end()) {
            if (auto data = dataFromJSON(*it)) return BookmarkedURL(std::move(*data));
        }
    }
    return withoutData();
}

std::string BookmarkedURL::archivedData() const { return encodeWithCoder().dump(); }

BookmarkedURL BookmarkedURL::unarchive(std::string_view archive) {
    auto json = nlohmann::json::parse(archive, nullptr, /*allow_exceptions=*/false);
    if (json.is_discarded()) return withoutData();
    return initWithCoder(json);
}

}  // namespace zdr
