#include "zdr/system/bookmarked_url.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unordered_set>

#include "zdr/logging/shared2.h"
#include "zdr/system/bookmark_record_internal.h"
#include "zdr/system/system_test_support.h"

namespace zdr {
namespace {

namespace fs = std::filesystem;
using detail::BookmarkRecord;

class Bookmarks : public ::testing::Test {
 protected:
    void SetUp() override {
        char pattern[] = "/tmp/zdr-bookmarks-XXXXXX";
        root_ = ::mkdtemp(pattern);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    std::string make(const std::string& relative, const std::string& content = "x") {
        fs::path p = fs::path(root_) / relative;
        fs::create_directories(p.parent_path());
        std::ofstream(p) << content;
        return p.string();
    }
    std::string folder(const std::string& relative) {
        fs::path p = fs::path(root_) / relative;
        fs::create_directories(p);
        return p.string();
    }
    static BookmarkRecord recordFor(const BookmarkedURL& b) {
        EXPECT_TRUE(b.data().has_value());
        auto r = detail::decodeBookmark(*b.data(), nullptr);
        EXPECT_TRUE(r.has_value());
        return r.value_or(BookmarkRecord{});
    }

    std::string root_;
};

// ---- The record ----

TEST_F(Bookmarks, RecordHoldsPathIdentityAndHandle) {
    auto file = make("a/clip.mov", "12345");
    Error error;
    auto record = detail::makeBookmarkRecord(file, &error);
    ASSERT_TRUE(record) << error.localizedDescription();
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(record->path, file);
    EXPECT_EQ(record->inode, st.st_ino);
    EXPECT_EQ(record->size, 5u);
    EXPECT_EQ(record->fileType, static_cast<std::uint32_t>(S_IFREG));
    // Relative paths are made absolute and normal.
    const fs::path previous = fs::current_path();
    fs::current_path(root_);
    auto relative = detail::makeBookmarkRecord("./a/../a/clip.mov", &error);
    fs::current_path(previous);
    ASSERT_TRUE(relative);
    EXPECT_EQ(relative->path, file);
    EXPECT_EQ(detail::decodeBookmark(detail::encodeBookmark(*record), nullptr), record);
}

TEST(BookmarkRecord, DecoderRejectsEveryTruncationAndOtherVersions) {
    BookmarkRecord record;
    record.path = "/tmp/some file.mov";
    record.device = 0x800000001ULL;
    record.inode = 1234;
    record.birthTime = detail::BirthTime{1700000000, 5};
    record.fileHandle = detail::FileHandle{1, 29, {1, 2, 3, 4, 5, 6, 7, 8}};
    record.machineID = "0123456789abcdef";
    const auto bytes = detail::encodeBookmark(record);
    ASSERT_EQ(detail::decodeBookmark(bytes, nullptr), record);

    for (std::size_t n = 0; n < bytes.size(); ++n) {
        Error error;
        EXPECT_EQ(detail::decodeBookmark(std::span(bytes.data(), n), &error), std::nullopt) << n;
        EXPECT_EQ(error.code, static_cast<long>(detail::BookmarkErrorCode::malformed)) << n;
    }
    auto withTrailing = bytes;
    withTrailing.push_back(0);
    EXPECT_EQ(detail::decodeBookmark(withTrailing, nullptr), std::nullopt);

    auto version2 = bytes;
    version2[4] = 2;
    Error error;
    EXPECT_EQ(detail::decodeBookmark(version2, &error), std::nullopt);
    EXPECT_EQ(error.code, static_cast<long>(detail::BookmarkErrorCode::unsupportedVersion));
    EXPECT_NE(error.localizedDescription().find("version 2"), std::string::npos);

    auto badMagic = bytes;
    badMagic[0] = 'X';
    EXPECT_EQ(detail::decodeBookmark(badMagic, nullptr), std::nullopt);
}

TEST(BookmarkRecord, DecoderRejectsHostileFieldsAndSkipsUnknownOnes) {
    auto header = [](std::uint16_t count) {
        return std::vector<std::uint8_t>{'Z', 'D', 'R', 'B', 1, 0, static_cast<std::uint8_t>(count),
                                         0};
    };
    auto field = [](std::vector<std::uint8_t>& out, std::uint16_t tag, std::string value,
                    std::uint32_t length) {
        out.push_back(static_cast<std::uint8_t>(tag));
        out.push_back(0);
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
        out.insert(out.end(), value.begin(), value.end());
    };
    // A length far past the end.
    auto huge = header(1);
    field(huge, 1, "/a", 0xFFFFFFF0u);
    EXPECT_EQ(detail::decodeBookmark(huge, nullptr), std::nullopt);
    // A relative path, a path with NUL, the same field twice, no path.
    auto relative = header(1);
    field(relative, 1, "a/b", 3);
    EXPECT_EQ(detail::decodeBookmark(relative, nullptr), std::nullopt);
    auto nul = header(1);
    field(nul, 1, std::string("/a\0b", 4), 4);
    EXPECT_EQ(detail::decodeBookmark(nul, nullptr), std::nullopt);
    auto twice = header(2);
    field(twice, 1, "/a", 2);
    field(twice, 1, "/b", 2);
    EXPECT_EQ(detail::decodeBookmark(twice, nullptr), std::nullopt);
    auto noPath = header(0);
    EXPECT_EQ(detail::decodeBookmark(noPath, nullptr), std::nullopt);
    // A wrong-sized inode.
    auto shortInode = header(2);
    field(shortInode, 1, "/a", 2);
    field(shortInode, 3, "123", 3);
    EXPECT_EQ(detail::decodeBookmark(shortInode, nullptr), std::nullopt);
    // An unknown field is skipped.
    auto unknown = header(2);
    field(unknown, 1, "/a", 2);
    field(unknown, 999, "future", 6);
    auto decoded = detail::decodeBookmark(unknown, nullptr);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->path, "/a");
}

TEST(BookmarkRecord, MutatedRecordsDecodeOrFailCleanly) {
    // A bounded, seeded fuzz of the decoder that runs with every test run
    // (and under the sanitizers); the libFuzzer target goes further.
    BookmarkRecord record;
    record.path = "/home/me/Videos/clip.mov";
    record.device = 2049;
    record.inode = 777;
    record.fileType = 0100000;
    record.size = 12;
    record.birthTime = detail::BirthTime{1700000000, 999};
    record.fileHandle = detail::FileHandle{1, 2, std::vector<std::uint8_t>(8, 7)};
    record.machineID = "abc";
    const auto valid = detail::encodeBookmark(record);
    std::mt19937 random(1234);
    int decoded = 0;
    for (int round = 0; round < 20000; ++round) {
        auto bytes = valid;
        const int edits = 1 + static_cast<int>(random() % 4);
        for (int e = 0; e < edits; ++e) {
            switch (random() % 4) {
                case 0:
                    bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
                    break;
                case 1:
                    bytes.resize(random() % (bytes.size() + 1));
                    break;
                case 2:
                    bytes.insert(bytes.begin() + static_cast<long>(random() % (bytes.size() + 1)),
                                 static_cast<std::uint8_t>(random()));
                    break;
                default:
                    if (!bytes.empty())
                        bytes.erase(bytes.begin() + static_cast<long>(random() % bytes.size()));
                    break;
            }
            if (bytes.empty()) break;
        }
        Error error;
        auto result = detail::decodeBookmark(bytes, &error);
        if (!result) {
            ASSERT_FALSE(error.localizedDescription().empty());
            continue;
        }
        ++decoded;
        ASSERT_EQ(detail::decodeBookmark(detail::encodeBookmark(*result), nullptr), result);
        ASSERT_EQ(result->path.front(), '/');
    }
    // Some single-byte changes inside values still decode; most edits do not.
    EXPECT_GT(decoded, 0);
    EXPECT_LT(decoded, 20000);
}

TEST(BookmarkRecord, Base64RoundTripsAndRejectsGarbage) {
    for (std::size_t n = 0; n < 10; ++n) {
        std::vector<std::uint8_t> bytes;
        for (std::size_t i = 0; i < n; ++i)
            bytes.push_back(static_cast<std::uint8_t>(i * 37 + 200));
        EXPECT_EQ(detail::base64Decode(detail::base64Encode(bytes)), bytes) << n;
    }
    EXPECT_EQ(detail::base64Encode(std::vector<std::uint8_t>{'M', 'a'}), "TWE=");
    EXPECT_EQ(detail::base64Decode("TWE"), std::nullopt);
    EXPECT_EQ(detail::base64Decode("T=E="), std::nullopt);
    EXPECT_EQ(detail::base64Decode("TW!="), std::nullopt);
}

// ---- Resolution ----

TEST_F(Bookmarks, UnmovedFileResolvesFreshAtItsPath) {
    auto file = make("clip.mov");
    BookmarkedURL b{fs::path(file)};
    ASSERT_TRUE(b.data());
    EXPECT_EQ(b.path(), file);
    EXPECT_FALSE(b.isStale());
    EXPECT_TRUE(BookmarkedURL(*b.data()).url() == fs::path(file));
}

TEST_F(Bookmarks, SurvivesRenameInTheSameFolderAsStale) {
    auto file = make("clip.mov");
    BookmarkedURL original{fs::path(file)};
    fs::rename(file, root_ + "/renamed.mov");
    testing::LogCapture log(Shared2::bookmarks());
    BookmarkedURL again(*original.data());
    EXPECT_EQ(again.path(), root_ + "/renamed.mov");
    EXPECT_TRUE(again.isStale());
    EXPECT_EQ(again.data(), original.data());  // stale data is not refreshed
    auto debug = log.messages(LogLevel::debug);
    ASSERT_EQ(debug.size(), 1u);
    EXPECT_EQ(debug[0], "Successfully resolved data -> file://" + root_ + "/renamed.mov");
}

TEST_F(Bookmarks, SurvivesMoveToAnotherFolderByHandleAndBySearch) {
    auto file = make("takes/monday/clip.mov");
    folder("archive/2024");
    BookmarkedURL original{fs::path(file)};
    const auto record = recordFor(original);
    fs::rename(file, root_ + "/archive/2024/clip one.mov");
    fs::remove(root_ + "/takes/monday");

    // By handle where the process may open one, else by search.
    BookmarkedURL again(*original.data());
    EXPECT_EQ(again.path(), root_ + "/archive/2024/clip one.mov");
    EXPECT_TRUE(again.isStale());

    // By the bounded search alone: from the nearest existing folder up.
    detail::ResolveOptions searchOnly;
    searchOnly.useFileHandle = false;
    auto found = detail::resolveBookmarkRecord(record, nullptr, searchOnly);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->path, root_ + "/archive/2024/clip one.mov");
    EXPECT_TRUE(found->stale);

    // A search with no budget left finds nothing.
    searchOnly.searchLimit = 0;
    EXPECT_EQ(detail::resolveBookmarkRecord(record, nullptr, searchOnly), std::nullopt);
}

TEST_F(Bookmarks, FileHandleFindsAFileBeyondTheSearch) {
    if (::geteuid() != 0) GTEST_SKIP() << "open_by_handle_at needs CAP_DAC_READ_SEARCH";
    auto file = make("takes/monday/clip.mov");
    BookmarkedURL original{fs::path(file)};
    ASSERT_TRUE(recordFor(original).fileHandle.has_value());
    const std::string far = folder("a/b/c/d/e/f") + "/clip.mov";
    fs::rename(file, far);
    detail::ResolveOptions searchOnly;
    searchOnly.useFileHandle = false;
    EXPECT_EQ(detail::resolveBookmarkRecord(recordFor(original), nullptr, searchOnly),
              std::nullopt);
    BookmarkedURL again(*original.data());
    EXPECT_EQ(again.path(), far);
    EXPECT_TRUE(again.isStale());
}

TEST_F(Bookmarks, FindsAMovedFolder) {
    auto dir = folder("Recordings");
    BookmarkedURL original{fs::path(dir)};
    fs::rename(dir, root_ + "/Recordings (old)");
    BookmarkedURL again(*original.data());
    EXPECT_EQ(again.path(), root_ + "/Recordings (old)");
    EXPECT_TRUE(again.isStale());
}

TEST_F(Bookmarks, PrefersTheMovedOriginalOverANewFileAtTheOldPath) {
    auto file = make("clip.mov", "original");
    BookmarkedURL original{fs::path(file)};
    fs::rename(file, root_ + "/kept.mov");
    make("clip.mov", "impostor");
    BookmarkedURL again(*original.data());
    EXPECT_EQ(again.path(), root_ + "/kept.mov");
    EXPECT_TRUE(again.isStale());
}

TEST_F(Bookmarks, ReplacedFileResolvesToTheOldPathAsStale) {
    // Saved by writing a new file and renaming it over the old one.
    auto file = make("doc.txt", "one");
    BookmarkedURL original{fs::path(file)};
    make("doc.txt.tmp", "two");
    fs::rename(root_ + "/doc.txt.tmp", file);
    BookmarkedURL again(*original.data());
    EXPECT_EQ(again.path(), file);
    EXPECT_TRUE(again.isStale());
}

TEST_F(Bookmarks, DeletedFileFailsWithTheErrorLoggedAndUrlKept) {
    auto file = make("gone.mov");
    BookmarkedURL b{fs::path(file)};
    fs::remove(file);
    testing::LogCapture log(Shared2::bookmarks());
    EXPECT_FALSE(b.resolveBookmark());
    EXPECT_EQ(b.path(), file);
    auto errors = log.messages(LogLevel::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("Cannot resolve the bookmark from data: ", 0), 0u) << errors[0];
}

TEST_F(Bookmarks, StaleResultAtTheRootClearsTheUrlButSucceeds) {
    BookmarkRecord record;
    record.path = "/";
    struct stat st {};
    ASSERT_EQ(::stat("/", &st), 0);
    record.device = 0xFFFFFFFFFFull;  // not the root's: the data no longer describes it
    record.inode = st.st_ino + 1;
    testing::LogCapture log(Shared2::bookmarks());
    BookmarkedURL b(detail::encodeBookmark(record));
    EXPECT_EQ(b.url(), std::nullopt);
    EXPECT_TRUE(b.resolveBookmark());
    EXPECT_EQ(b.url(), std::nullopt);
    EXPECT_TRUE(log.lines().empty());
    // Fresh data for "/" keeps it.
    EXPECT_EQ(BookmarkedURL(fs::path("/")).path(), "/");
}

TEST_F(Bookmarks, DataFromAnotherMachineResolvesByPathAsStale) {
    auto file = make("clip.mov");
    auto record = recordFor(BookmarkedURL(fs::path(file)));
    record.machineID = "ffffffffffffffffffffffffffffffff";
    record.inode = *record.inode + 1;
    BookmarkedURL b(detail::encodeBookmark(record));
    EXPECT_EQ(b.path(), file);
    EXPECT_TRUE(b.isStale());
    fs::remove(file);
    EXPECT_FALSE(BookmarkedURL(detail::encodeBookmark(record)).url());
}

TEST_F(Bookmarks, ANameThatCannotBeBookmarkedKeepsTheUrlWithoutData) {
    testing::LogCapture log(Shared2::bookmarks());
    const fs::path missing = root_ + "/no such file.mov";
    BookmarkedURL b{missing};
    EXPECT_EQ(b.url(), missing);
    EXPECT_EQ(b.data(), std::nullopt);
    EXPECT_FALSE(b.resolveBookmark());
    auto errors = log.messages(LogLevel::error);
    ASSERT_GE(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("Cannot create a bookmark for: file://" + root_ +
                                  "/no%20such%20file.mov. Err: No such file or directory",
                              0),
              0u)
        << errors[0];
    auto warnings = log.messages(LogLevel::warning);
    ASSERT_EQ(warnings.size(), 2u);  // one from the constructor, one from the call
    EXPECT_EQ(warnings[0], "Cannot resolve bookmark: there is no data");
}

TEST_F(Bookmarks, GarbageDataFailsWithoutCrashing) {
    testing::LogCapture log(Shared2::bookmarks());
    BookmarkedURL b(BookmarkedURL::Data{'Z', 'D', 'R', 'B', 9, 0, 0, 0});
    EXPECT_EQ(b.url(), std::nullopt);
    EXPECT_FALSE(b.resolveBookmark());
    auto errors = log.messages(LogLevel::error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[0].find("version 9"), std::string::npos) << errors[0];
}

// ---- Identity and persistence ----

TEST_F(Bookmarks, EqualityAndHashFollowTheUrlNotTheData) {
    auto file = make("clip.mov", "a");
    BookmarkedURL first{fs::path(file)};
    std::ofstream(file, std::ios::app) << "more";
    BookmarkedURL second{fs::path(file)};
    ASSERT_NE(first.data(), second.data());
    EXPECT_EQ(first, second);
    EXPECT_EQ(std::hash<BookmarkedURL>{}(first), std::hash<BookmarkedURL>{}(second));
    EXPECT_EQ(BookmarkedURL(), BookmarkedURL());
    EXPECT_NE(first, BookmarkedURL());
    EXPECT_NE(first, BookmarkedURL(fs::path(make("other.mov"))));
    std::unordered_set<BookmarkedURL> set{first, second, BookmarkedURL()};
    EXPECT_EQ(set.size(), 2u);
}

TEST_F(Bookmarks, ArchivedBookmarkRoundTripsAndFollowsAMove) {
    auto file = make("clip.mov");
    BookmarkedURL b{fs::path(file)};
    const std::string archive = b.archivedData();
    auto json = nlohmann::json::parse(archive);
    EXPECT_EQ(json.size(), 1u);
    EXPECT_TRUE(json.contains("data"));

    BookmarkedURL restored = BookmarkedURL::unarchive(archive);
    EXPECT_EQ(restored.data(), b.data());
    EXPECT_EQ(restored, b);

    fs::rename(file, root_ + "/moved.mov");
    EXPECT_EQ(BookmarkedURL::unarchive(archive).path(), root_ + "/moved.mov");
    EXPECT_TRUE(BookmarkedURL::supportsSecureCoding);
}

TEST_F(Bookmarks, WrongArchivesYieldAnInstanceWithoutData) {
    for (const char* archive : {R"({"data": 5})", R"({"data": "not base64!"})", "{}", "[1]",
                                "not json", R"({"data": [1, 2]})"}) {
        testing::LogCapture log(Shared2::bookmarks());
        BookmarkedURL b = BookmarkedURL::unarchive(archive);
        EXPECT_EQ(b.data(), std::nullopt) << archive;
        EXPECT_EQ(b.url(), std::nullopt) << archive;
        EXPECT_EQ(log.messages(LogLevel::warning),
                  std::vector<std::string>{"Cannot resolve bookmark: there is no data"})
            << archive;
    }
    EXPECT_TRUE(BookmarkedURL().encodeWithCoder().empty());
}

TEST_F(Bookmarks, KeyedSerialisationRoundTrips) {
    auto file = make("a b/clip%.mov");
    BookmarkedURL b{fs::path(file)};
    auto json = b.toJSON();
    EXPECT_EQ(json["url"], "file://" + root_ + "/a%20b/clip%25.mov");
    ASSERT_TRUE(json["data"].is_string());
    BookmarkedURL again = BookmarkedURL::fromJSON(json);
    EXPECT_EQ(again.path(), file);
    EXPECT_EQ(again.data(), b.data());

    // A url without data is kept (resolution fails for want of data).
    BookmarkedURL urlOnly = BookmarkedURL::fromJSON({{"url", "file://" + root_ + "/x.mov"}});
    EXPECT_EQ(urlOnly.path(), root_ + "/x.mov");
    EXPECT_EQ(urlOnly.data(), std::nullopt);
    EXPECT_EQ(BookmarkedURL::fromJSON({{"url", "http://example.com/x"}}).url(), std::nullopt);
    EXPECT_EQ(BookmarkedURL::fromJSON({{"url", "file:///a%2"}}).url(), std::nullopt);
    EXPECT_EQ(BookmarkedURL::fromJSON({{"url", "/plain/path"}}).path(), "/plain/path");
    EXPECT_EQ(BookmarkedURL().toJSON(), nlohmann::json::object());
}

}  // namespace
}  // namespace zdr
