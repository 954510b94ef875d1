#include "zdr/runtime/user_defaults.h"
#include "zdr/runtime/layer_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <mutex>
#include <string_view>
#include <utility>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "zdr/runtime/bundle.h"

namespace zdr {
namespace {
// The store reports through the layer log; these tests read what it wrote.
std::mutex gLayerLogMutex;
std::string gLayerLog;

void appendLayerLine(std::string_view, int, std::string_view message, std::string_view,
                     std::string_view, long) {
    std::lock_guard lock(gLayerLogMutex);
    gLayerLog.append(message).append("\n");
}

void startLayerLogCapture() {
    {
        std::lock_guard lock(gLayerLogMutex);
        gLayerLog.clear();
    }
    zdr::setLayerLogWriter(&appendLayerLine);
}

// For a death test's child, whose standard error the parent reads.
void writeLayerLineToStderr(std::string_view, int, std::string_view message, std::string_view,
                            std::string_view, long) {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
}

std::string capturedLayerLog() {
    zdr::setLayerLogWriter(nullptr);
    std::lock_guard lock(gLayerLogMutex);
    return std::exchange(gLayerLog, {});
}
}  // namespace

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::HasSubstr;

std::string slurp(const fs::path& p) {
    std::ifstream in(p);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void spit(const fs::path& p, const std::string& text) {
    std::ofstream out(p, std::ios::trunc);
    out << text;
}

std::vector<fs::path> filesIn(const fs::path& dir) {
    std::vector<fs::path> out;
    for (const auto& e : fs::directory_iterator(dir)) out.push_back(e.path());
    return out;
}

class UserDefaultsTest : public ::testing::Test {
 protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "zdr-defaults-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        file_ = dir_ / "defaults.json";
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    /// A store whose automatic save will not fire during the test.
    std::unique_ptr<UserDefaults> open(const fs::path& file) {
        auto d = std::make_unique<UserDefaults>(file);
        d->setAutosaveDelay(3600);
        return d;
    }

    fs::path dir_;
    fs::path file_;
};

TEST_F(UserDefaultsTest, ValuesSurviveANewInstanceAndTheFileIsPrivate) {
    const fs::path nested = dir_ / "a" / "b" / "defaults.json";
    {
        auto d = open(nested);
        d->setBool(true, "flag");
        d->setInteger(-42, "count");
        d->setDouble(2.5, "ratio");
        d->setString("h\xc3\xa9llo", "name");
        d->setObject(json{{"x", 1}, {"list", {1, 2}}}, "blob");
        EXPECT_TRUE(d->hasUnsavedChanges());
        ASSERT_TRUE(d->synchronize());
        EXPECT_FALSE(d->hasUnsavedChanges());
    }
    auto d = open(nested);
    EXPECT_TRUE(d->boolForKey("flag"));
    EXPECT_EQ(d->integerForKey("count"), -42);
    EXPECT_DOUBLE_EQ(d->doubleForKey("ratio"), 2.5);
    EXPECT_EQ(d->stringForKey("name"), "h\xc3\xa9llo");
    EXPECT_EQ(d->objectForKey("blob"), (json{{"x", 1}, {"list", {1, 2}}}));
    EXPECT_EQ(d->objectForKey("absent"), std::nullopt);

    struct stat st {};
    ASSERT_EQ(::stat(nested.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat(nested.parent_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u) << "a folder made for the store is private";
    for (const auto& p : filesIn(nested.parent_path()))
        EXPECT_THAT(p.filename().string(), ::testing::Not(HasSubstr(".tmp-")));
}

TEST_F(UserDefaultsTest, RegisteredDefaultsAnswerUntilAValueIsStoredAndAreNeverWritten) {
    auto d = open(file_);
    d->registerDefaults(json{{"volume", 0.75}, {"enabled", true}});
    d->registerDefaults(json::array({1, 2}));  // refused, no effect
    EXPECT_DOUBLE_EQ(d->doubleForKey("volume"), 0.75);
    d->setDouble(0.25, "volume");
    EXPECT_DOUBLE_EQ(d->doubleForKey("volume"), 0.25);
    d->removeObjectForKey("volume");
    EXPECT_DOUBLE_EQ(d->doubleForKey("volume"), 0.75);
    d->setObject(nullptr, "enabled");  // null removes: the default shows again
    EXPECT_TRUE(d->boolForKey("enabled"));
    d->setString("kept", "other");
    EXPECT_EQ(d->dictionaryRepresentation(),
              (json{{"volume", 0.75}, {"enabled", true}, {"other", "kept"}}));
    ASSERT_TRUE(d->synchronize());
    EXPECT_EQ(json::parse(slurp(file_)), (json{{"other", "kept"}}));
}

TEST_F(UserDefaultsTest, TwoInstancesSharingAFileKeepEachOthersKeys) {
    // Two instances behave as two processes would: each writes back only the
    // keys it changed, under the file lock, after re-reading the file.
    auto a = open(file_);
    auto b = open(file_);
    a->setString("from a", "a");
    a->setInteger(1, "shared");
    b->setString("from b", "b");
    ASSERT_TRUE(a->synchronize());
    ASSERT_TRUE(b->synchronize());
    EXPECT_EQ(b->stringForKey("a"), "from a") << "synchronize reloads what others saved";
    EXPECT_EQ(b->integerForKey("shared"), 1);

    b->setInteger(2, "shared");  // last writer of a key wins
    a->removeObjectForKey("a");
    ASSERT_TRUE(b->synchronize());
    ASSERT_TRUE(a->synchronize());
    auto c = open(file_);
    EXPECT_EQ(c->objectForKey("a"), std::nullopt);
    EXPECT_EQ(c->stringForKey("b"), "from b");
    EXPECT_EQ(c->integerForKey("shared"), 2);
    EXPECT_EQ(a->integerForKey("shared"), 2);
}

TEST_F(UserDefaultsTest, CorruptOrNonObjectFilesAreMovedAsideAndTheStoreStartsEmpty) {
    for (const std::string& content :
         {std::string("{\"a\": 1,,"), std::string("[1, 2, 3]"), std::string("")}) {
        SCOPED_TRACE(content);
        for (const auto& p : filesIn(dir_)) fs::remove_all(p);
        spit(file_, content);
        startLayerLogCapture();
        auto d = open(file_);
        std::string err = capturedLayerLog();
        EXPECT_THAT(err, HasSubstr(file_.string()));
        EXPECT_THAT(err, HasSubstr("moved it aside"));
        EXPECT_EQ(d->dictionaryRepresentation(), json::object());

        std::vector<fs::path> aside;
        for (const auto& p : filesIn(dir_))
            if (p.filename().string().rfind("defaults.json.corrupt-", 0) == 0) aside.push_back(p);
        ASSERT_EQ(aside.size(), 1u);
        EXPECT_EQ(slurp(aside[0]), content) << "the bad file is kept as it was";

        d->setBool(true, "fresh");
        ASSERT_TRUE(d->synchronize());
        EXPECT_EQ(json::parse(slurp(file_)), (json{{"fresh", true}}));
    }

    // A file that cannot be read as a file at all (here a folder) is moved aside too.
    for (const auto& p : filesIn(dir_)) fs::remove_all(p);
    fs::create_directory(file_);
    startLayerLogCapture();
    auto d = open(file_);
    EXPECT_THAT(capturedLayerLog(), HasSubstr("is not a regular file"));
    d->setInteger(5, "n");
    EXPECT_TRUE(d->synchronize());
    EXPECT_EQ(open(file_)->integerForKey("n"), 5);
}

TEST_F(UserDefaultsTest, WrongTypesAnswerTheGettersDefaultAndNumbersConvert) {
    spit(file_, R"({"s": 5, "b": "yes", "i": "12", "d": [1], "huge": 1e300,
                    "big": 18446744073709551615, "f": 2.9, "one": 1, "t": true, "n": null})");
    auto d = open(file_);
    EXPECT_EQ(d->stringForKey("s"), std::nullopt);
    EXPECT_FALSE(d->boolForKey("b"));
    EXPECT_EQ(d->integerForKey("i"), 0);
    EXPECT_DOUBLE_EQ(d->doubleForKey("d"), 0.0);
    EXPECT_EQ(d->integerForKey("huge"), 0);
    EXPECT_EQ(d->integerForKey("big"), 0);
    EXPECT_EQ(d->integerForKey("n"), 0);
    EXPECT_EQ(d->integerForKey("f"), 2);
    EXPECT_TRUE(d->boolForKey("one"));
    EXPECT_EQ(d->integerForKey("t"), 1);
    EXPECT_DOUBLE_EQ(d->doubleForKey("one"), 1.0);
    EXPECT_TRUE(d->boolForKey("f"));

    startLayerLogCapture();
    d->setDouble(std::numeric_limits<double>::quiet_NaN(), "f");
    EXPECT_THAT(capturedLayerLog(), HasSubstr("non-finite"));
    EXPECT_DOUBLE_EQ(d->doubleForKey("f"), 2.9);

    d->setString(std::string("bad \xff utf8"), "raw");  // saved, not thrown on
    EXPECT_TRUE(d->synchronize());
}

TEST_F(UserDefaultsTest, UnwritablePathFailsCleanlyAndKeepsValuesInMemory) {
    spit(dir_ / "plain-file", "x");
    auto d = open(dir_ / "plain-file" / "sub" / "defaults.json");
    d->setInteger(7, "n");
    startLayerLogCapture();
    EXPECT_FALSE(d->synchronize());
    EXPECT_THAT(capturedLayerLog(), HasSubstr("could not save"));
    EXPECT_EQ(d->integerForKey("n"), 7);
    EXPECT_TRUE(d->hasUnsavedChanges());
    EXPECT_EQ(slurp(dir_ / "plain-file"), "x");
}

TEST_F(UserDefaultsTest, FailingWriteLeavesThePreviousFileIntact) {
    {
        auto d = open(file_);
        d->setString("old", "kept");
        ASSERT_TRUE(d->synchronize());
    }
    const std::string before = slurp(file_);

    auto d = open(file_);
    d->setString(std::string(256 * 1024, 'x'), "big");
    // The file-size limit makes write() fail as on a full disk (EFBIG instead
    // of ENOSPC), for this process only.
    struct rlimit old {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = old;
    small.rlim_cur = 4096;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    startLayerLogCapture();
    const bool saved = d->synchronize();
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
    std::string err = capturedLayerLog();

    EXPECT_FALSE(saved);
    EXPECT_THAT(err, HasSubstr("the previous file is unchanged"));
    EXPECT_EQ(slurp(file_), before);
    for (const auto& p : filesIn(dir_))
        EXPECT_THAT(p.filename().string(), ::testing::Not(HasSubstr(".tmp-")));
    EXPECT_EQ(d->stringForKey("big")->size(), 256u * 1024);

    EXPECT_TRUE(d->synchronize()) << "the next save, with room, succeeds";
    auto again = open(file_);
    EXPECT_EQ(again->stringForKey("kept"), "old");
    EXPECT_EQ(again->stringForKey("big")->size(), 256u * 1024);
}

TEST_F(UserDefaultsTest, ChangesAreSavedAutomaticallyAndOnDestruction) {
    {
        UserDefaults d(file_);
        d.setAutosaveDelay(0.02);
        d.setInteger(1, "auto");
        d.setInteger(2, "auto");
        for (int i = 0; i < 500 && d.hasUnsavedChanges(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_FALSE(d.hasUnsavedChanges());
        EXPECT_EQ(json::parse(slurp(file_)), (json{{"auto", 2}}));
    }
    {
        auto d = open(file_);  // autosave far away: only destruction saves
        d->setString("bye", "last");
    }
    EXPECT_EQ(open(file_)->stringForKey("last"), "bye");
}

TEST_F(UserDefaultsTest, ConcurrentSettersAndSavesLoseNothing) {
    auto a = open(file_);
    auto b = open(file_);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            UserDefaults& d = t % 2 ? *a : *b;
            for (int i = 0; i < 50; ++i) {
                d.setInteger(i, "k" + std::to_string(t) + "-" + std::to_string(i));
                if (i % 10 == 0) d.synchronize();
                (void)d.integerForKey("k0-0");
            }
        });
    for (auto& th : threads) th.join();
    ASSERT_TRUE(a->synchronize());
    ASSERT_TRUE(b->synchronize());
    auto c = open(file_);
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(c->integerForKey("k" + std::to_string(t) + "-" + std::to_string(i)), i);
}

std::vector<fs::path> corruptCopies(const fs::path& dir) {
    std::vector<fs::path> aside;
    for (const auto& p : filesIn(dir))
        if (p.filename().string().rfind("defaults.json.corrupt-", 0) == 0) aside.push_back(p);
    return aside;
}

std::string nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST_F(UserDefaultsTest, FilesBeyondTheDepthOrSizeBoundAreCorruptAndMovedAside) {
    constexpr std::size_t kDepth = UserDefaults::kMaxNestingDepth;
    struct Case {
        std::string text;
        std::string why;
    };
    const std::vector<Case> cases = {
        // Deep enough to overflow any stack if it were ever dumped or copied.
        {"{\"a\": " + nested(100000) + "}", "nests deeper than"},
        {"{\"a\": " + nested(kDepth) + "}", "nests deeper than"},
        {"{\"a\": \"" + std::string(UserDefaults::kMaxFileSize, 'x') + "\"}", "larger than"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why + " " + std::to_string(c.text.size()));
        for (const auto& p : filesIn(dir_)) fs::remove_all(p);
        spit(file_, c.text);
        startLayerLogCapture();
        auto d = open(file_);
        std::string err = capturedLayerLog();
        EXPECT_THAT(err, HasSubstr(c.why));
        EXPECT_THAT(err, HasSubstr("moved it aside"));
        EXPECT_EQ(d->objectForKey("a"), std::nullopt);
        auto aside = corruptCopies(dir_);
        ASSERT_EQ(aside.size(), 1u);
        EXPECT_EQ(fs::file_size(aside[0]), c.text.size()) << "kept as it was";
        d->setBool(true, "fresh");
        ASSERT_TRUE(d->synchronize());
        EXPECT_EQ(json::parse(slurp(file_)), (json{{"fresh", true}}));
    }

    // Exactly at the bound: read, kept and written back.
    for (const auto& p : filesIn(dir_)) fs::remove_all(p);
    spit(file_, "{\"a\": " + nested(kDepth - 1) + "}");
    auto d = open(file_);
    ASSERT_TRUE(d->objectForKey("a").has_value());
    d->setBool(true, "b");
    ASSERT_TRUE(d->synchronize());
    EXPECT_TRUE(corruptCopies(dir_).empty());
    EXPECT_TRUE(open(file_)->objectForKey("a").has_value());
}

TEST_F(UserDefaultsTest, ValuesBeyondTheBoundsAreRefusedAndNeverSaved) {
    constexpr std::size_t kDepth = UserDefaults::kMaxNestingDepth;
    auto d = open(file_);
    startLayerLogCapture();
    d->setObject(json::parse(nested(kDepth)), "deep");
    d->registerDefaults(json{{"deepDefault", json::parse(nested(kDepth))}, {"ok", 1}});
    std::string err = capturedLayerLog();
    EXPECT_THAT(err, HasSubstr("setObject refused"));
    EXPECT_THAT(err, HasSubstr("registerDefaults refused \"deepDefault\""));
    EXPECT_EQ(d->objectForKey("deep"), std::nullopt);
    EXPECT_EQ(d->objectForKey("deepDefault"), std::nullopt);
    EXPECT_EQ(d->integerForKey("ok"), 1) << "the other members are registered";

    d->setObject(json::parse(nested(kDepth - 1)), "deepest allowed");
    d->setString("small", "kept");
    ASSERT_TRUE(d->synchronize());
    const std::string before = slurp(file_);

    // A save whose file would pass the size bound is refused; the file stays.
    d->setString(std::string(UserDefaults::kMaxFileSize, 'x'), "huge");
    startLayerLogCapture();
    EXPECT_FALSE(d->synchronize());
    EXPECT_THAT(capturedLayerLog(), HasSubstr("more than the limit"));
    EXPECT_EQ(slurp(file_), before);
    d->removeObjectForKey("huge");
    ASSERT_TRUE(d->synchronize());
    auto again = open(file_);
    EXPECT_TRUE(again->objectForKey("deepest allowed").has_value());
    EXPECT_EQ(again->stringForKey("kept"), "small");
}

/// Makes every open() of this process fail with EMFILE until destroyed: the
/// descriptor limit is lowered to the lowest free descriptor.
class DescriptorsExhausted {
 public:
    DescriptorsExhausted() {
        ::getrlimit(RLIMIT_NOFILE, &old_);
        int lowest = ::dup(0);
        ::close(lowest);
        struct rlimit tight = old_;
        tight.rlim_cur = static_cast<rlim_t>(lowest);
        ok_ = lowest >= 0 && ::setrlimit(RLIMIT_NOFILE, &tight) == 0;
    }
    ~DescriptorsExhausted() { ::setrlimit(RLIMIT_NOFILE, &old_); }
    bool ok() const { return ok_; }

 private:
    struct rlimit old_ {};
    bool ok_ = false;
};

TEST_F(UserDefaultsTest, AFileThatCannotBeReadNowIsLeftAloneAndReadAgainLater) {
    {
        auto d = open(file_);
        d->setString("precious", "kept");
        ASSERT_TRUE(d->synchronize());
    }
    const std::string before = slurp(file_);

    std::unique_ptr<UserDefaults> d;
    startLayerLogCapture();
    {
        DescriptorsExhausted exhausted;
        ASSERT_TRUE(exhausted.ok());
        d = std::make_unique<UserDefaults>(file_);
        d->registerDefaults(json{{"kept", "registered"}});
        EXPECT_EQ(d->stringForKey("kept"), "registered") << "answers the registered defaults";
        d->setInteger(7, "new");
        EXPECT_FALSE(d->synchronize()) << "nothing may be written over a file never read";
    }
    std::string err = capturedLayerLog();
    EXPECT_THAT(err, HasSubstr("answering the registered defaults"));
    EXPECT_THAT(err, ::testing::Not(HasSubstr("moved it aside")));
    EXPECT_TRUE(corruptCopies(dir_).empty());
    EXPECT_EQ(slurp(file_), before);
    EXPECT_EQ(d->integerForKey("new"), 7) << "the change waits in memory";

    // Read again a moment later on its own, with the waiting change on top.
    for (int i = 0; i < 1000 && d->stringForKey("kept") != "precious"; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(d->stringForKey("kept"), "precious");
    ASSERT_TRUE(d->synchronize());
    EXPECT_EQ(json::parse(slurp(file_)), (json{{"kept", "precious"}, {"new", 7}}));
}

TEST_F(UserDefaultsTest, StaleTemporariesOfKilledSavesAreRemovedOnLoad) {
    spit(dir_ / ".defaults.json.tmp-Ab12Cd", "{\"half\": ");
    spit(dir_ / ".defaults.json.tmp-Zz99Yy", "");
    spit(dir_ / ".other.json.tmp-Ab12Cd", "not ours");
    spit(dir_ / "notes.txt", "not ours");
    spit(file_, "{\"a\": 1}");
    auto d = open(file_);
    EXPECT_EQ(d->integerForKey("a"), 1);
    std::vector<std::string> names;
    for (const auto& p : filesIn(dir_)) names.push_back(p.filename().string());
    EXPECT_THAT(names, ::testing::UnorderedElementsAre("defaults.json", "defaults.json.lock",
                                                       ".other.json.tmp-Ab12Cd", "notes.txt"));
}

TEST_F(UserDefaultsTest, SymbolicLinksAreNeverFollowed) {
    // A link at the settings path is not read through, and is moved aside
    // (the link itself: its target stays as it was).
    spit(dir_ / "target.json", "{\"planted\": 1}");
    fs::create_symlink(dir_ / "target.json", file_);
    startLayerLogCapture();
    auto d = open(file_);
    EXPECT_THAT(capturedLayerLog(), HasSubstr("symbolic link"));
    EXPECT_EQ(d->objectForKey("planted"), std::nullopt);
    d->setInteger(1, "mine");
    ASSERT_TRUE(d->synchronize());
    EXPECT_FALSE(fs::is_symlink(file_));
    EXPECT_EQ(slurp(dir_ / "target.json"), "{\"planted\": 1}");
    d.reset();

    // A link at the lock path is never opened, so its target is never created.
    for (const auto& p : filesIn(dir_)) fs::remove_all(p);
    fs::create_symlink(dir_ / "victim", file_.string() + ".lock");
    startLayerLogCapture();
    {
        auto e = open(file_);
        e->setInteger(1, "k");
        EXPECT_FALSE(e->synchronize());
        e->removeObjectForKey("k");
    }
    EXPECT_THAT(capturedLayerLog(), HasSubstr("lock file"));
    EXPECT_FALSE(fs::exists(dir_ / "victim"));
}

TEST_F(UserDefaultsTest, AFolderOthersCanChangeIsNeitherReadNorWritten) {
    const fs::path shared = dir_ / "shared";
    const fs::path file = shared / "defaults.json";
    fs::create_directory(shared);
    spit(file, "{\"planted\": 1}");
    auto tryIt = [&](const char* expected) {
        SCOPED_TRACE(expected);
        startLayerLogCapture();
        {
            auto d = open(file);
            EXPECT_EQ(d->objectForKey("planted"), std::nullopt);
            d->setInteger(2, "mine");
            EXPECT_FALSE(d->synchronize());
            d->removeObjectForKey("mine");
        }
        EXPECT_THAT(capturedLayerLog(), HasSubstr(expected));
        EXPECT_EQ(slurp(file), "{\"planted\": 1}");
    };
    ASSERT_EQ(::chmod(shared.c_str(), 0777), 0);
    tryIt("can be written by other users (mode 0777)");
    ASSERT_EQ(::chmod(shared.c_str(), 0720), 0);
    tryIt("can be written by other users (mode 0720)");
    ASSERT_EQ(::chmod(shared.c_str(), 0700), 0);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(shared.c_str(), 4242, 4242), 0);
        tryIt("belongs to another user (uid 4242)");
        ASSERT_EQ(::chown(shared.c_str(), 0, 0), 0);
    }
    EXPECT_EQ(open(file)->integerForKey("planted"), 1) << "a private folder is read";
}

TEST_F(UserDefaultsTest, AStoreWithoutAPathKeepsValuesInMemoryOnly) {
    std::error_code ec;
    const bool lockWasThere = fs::exists(".lock", ec);
    UserDefaults d{fs::path()};
    d.setInteger(3, "n");
    EXPECT_EQ(d.integerForKey("n"), 3);
    EXPECT_FALSE(d.hasUnsavedChanges());
    startLayerLogCapture();
    EXPECT_FALSE(d.synchronize());
    EXPECT_THAT(capturedLayerLog(), HasSubstr("in memory only"));
    EXPECT_TRUE(filesIn(dir_).empty());
    if (!lockWasThere) {
        EXPECT_FALSE(fs::exists(".lock")) << "nothing in the working folder";
    }
}

TEST(UserDefaultsExit, UnsavedChangesAreSavedWhenTheProcessExits) {
    // The child re-runs this test from the start, so the file is passed to it
    // through the environment.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    constexpr const char* kVar = "ZDR_TEST_DEFAULTS_EXIT_FILE";
    fs::path file;
    if (const char* inherited = std::getenv(kVar)) {
        file = inherited;
    } else {
        std::string tmpl = (fs::temp_directory_path() / "zdr-defaults-exit-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        file = fs::path(tmpl) / "defaults.json";
        ::setenv(kVar, file.c_str(), 1);
    }
    EXPECT_EXIT(
        {
            // Never destroyed (a global root, so no leak either): only the
            // exit-time save can write the change.
            static UserDefaults* kept = new UserDefaults(file);
            kept->setAutosaveDelay(3600);
            kept->setString("saved at exit", "k");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    ::unsetenv(kVar);
    EXPECT_EQ(UserDefaults(file).stringForKey("k"), "saved at exit");
    std::error_code ec;
    fs::remove_all(file.parent_path(), ec);
}

TEST(UserDefaultsPath, StandardFileFollowsXdgAndTheBundleIdentifier) {
    const char* oldXdg = std::getenv("XDG_CONFIG_HOME");
    const std::optional<std::string> savedXdg =
        oldXdg ? std::optional<std::string>(oldXdg) : std::nullopt;
    const auto oldId = Bundle::main().bundleIdentifier();
    const std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";

    Bundle::main().setInfo(kCFBundleIdentifierKey, "com.example.recorder");
    ::setenv("XDG_CONFIG_HOME", "/tmp/xdg-test", 1);
    EXPECT_EQ(UserDefaults::standardFilePath(),
              fs::path("/tmp/xdg-test/com.example.recorder/defaults.json"));
    ::setenv("XDG_CONFIG_HOME", "relative/ignored", 1);
    ::setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(UserDefaults::standardFilePath(),
              fs::path("/home/someone/.config/com.example.recorder/defaults.json"));
    Bundle::main().setInfo(kCFBundleIdentifierKey, std::nullopt);
    EXPECT_EQ(UserDefaults::standardFilePath()->parent_path().filename(),
              fs::path(Bundle::main().executablePath()).filename());

    // Neither variable absolute: the home folder of the password database.
    Bundle::main().setInfo(kCFBundleIdentifierKey, "com.example.recorder");
    ::unsetenv("XDG_CONFIG_HOME");
    ::unsetenv("HOME");
    if (const passwd* pw = ::getpwuid(::geteuid()); pw && pw->pw_dir && pw->pw_dir[0] == '/') {
        EXPECT_EQ(UserDefaults::standardFilePath(),
                  fs::path(pw->pw_dir) / ".config/com.example.recorder/defaults.json");
    }

    Bundle::main().setInfo(kCFBundleIdentifierKey, oldId);
    ::setenv("HOME", oldHome.c_str(), 1);
    if (savedXdg) {
        ::setenv("XDG_CONFIG_HOME", savedXdg->c_str(), 1);
    } else {
        ::unsetenv("XDG_CONFIG_HOME");
    }
}

TEST(UserDefaultsPath, WithoutAHomeFolderSettingsStayInMemoryAndNeverGoToASharedFolder) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become a user without a home";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string id = "com.zdr.test.nohome-" + std::to_string(::getpid());
    const fs::path shared = fs::temp_directory_path() / id;
    EXPECT_EXIT(
        {
            zdr::setLayerLogWriter(&writeLayerLineToStderr);
            // A user the password database does not know, with no variables.
            if (::setgid(54321) != 0 || ::setuid(54321) != 0) std::_Exit(10);
            ::unsetenv("XDG_CONFIG_HOME");
            ::unsetenv("HOME");
            Bundle::main().setInfo(kCFBundleIdentifierKey, id);
            if (UserDefaults::standardFilePath().has_value()) std::_Exit(11);
            auto d = UserDefaults::standard();
            d->setInteger(1, "n");
            if (d->synchronize() || d->integerForKey("n") != 1) std::_Exit(12);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "kept in memory only");
    EXPECT_FALSE(fs::exists(shared)) << "nothing was written under " << shared;
}

}  // namespace
}  // namespace zdr
