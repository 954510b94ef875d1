#include "zdr/system/bsd_proc_utils.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "zdr/system/process_table_internal.h"

extern "C" {
int zdr_c_test_find_pids(const char* name, int32_t* pids, unsigned int capacity,
                         unsigned int* count, int* error);
int zdr_c_test_missing_array_status(void);
}

namespace zdr {
namespace {

namespace fs = std::filesystem;

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return text;
}

std::string ownCommandName() {
    std::string name = readFile("/proc/self/comm");
    if (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

std::string uniqueName(std::size_t length) {
    static std::mt19937 rng{std::random_device{}()};
    std::string name = "zt";
    const char* letters = "abcdefghijklmnopqrstuvwxyz";
    while (name.size() < length) name += letters[rng() % 26];
    return name;
}

// A real process under a name of our choosing: the child renames itself (the
// kernel keeps the first 15 bytes) and waits to be killed. Killed with the test.
class NamedChild {
 public:
    explicit NamedChild(const std::string& name) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        const pid_t parent = ::getpid();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(1);
            ::prctl(PR_SET_NAME, name.c_str());
            char ok = 1;
            (void)::write(fds[1], &ok, 1);
            for (;;) ::pause();
        }
        ::close(fds[1]);
        char ok = 0;
        (void)::read(fds[0], &ok, 1);  // the name is set once this returns
        ::close(fds[0]);
    }
    ~NamedChild() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    pid_t pid() const { return pid_; }

 private:
    pid_t pid_ = -1;
};

class TempFolder {
 public:
    TempFolder() {
        std::string pattern = (fs::temp_directory_path() / "zdr-proc-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TempFolder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    void write(const std::string& relative, const std::string& text) const {
        fs::create_directories((fs::path(path_) / relative).parent_path());
        std::ofstream(fs::path(path_) / relative) << text;
    }

 private:
    std::string path_;
};

std::vector<pid_t> pidsFor(const std::string& name, unsigned capacity, int* status) {
    std::vector<std::int32_t> pids(capacity);
    unsigned int count = 99;
    int error = 99;
    *status = getAllPIDsForProcessName(name.c_str(), pids.data(), capacity, &count, &error);
    EXPECT_EQ(error, 0);
    pids.resize(std::min(count, capacity));
    return {pids.begin(), pids.end()};
}

TEST(ProcessListTest, ListsThisProcessWithItsParentAndKernelName) {
    const auto processes = BSDProcUtils::getBSDProcessList();
    ASSERT_GT(processes.size(), 1u);
    const Dictionary* self = nullptr;
    pid_t previous = 0;
    for (const auto& entry : processes) {
        const auto pid = dictionaryGet<pid_t>(entry, kProcessPIDKey);
        ASSERT_TRUE(pid);
        ASSERT_TRUE(dictionaryGet<pid_t>(entry, kProcessParentPIDKey));
        const auto name = dictionaryGet<std::string>(entry, kProcessName);
        ASSERT_TRUE(name);
        EXPECT_LE(name->size(), 15u);
        EXPECT_GT(*pid, previous) << "the table's order is ascending pid";
        previous = *pid;
        if (*pid == ::getpid()) self = &entry;
    }
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(dictionaryGet<pid_t>(*self, kProcessParentPIDKey), ::getppid());
    EXPECT_EQ(dictionaryGet<std::string>(*self, kProcessName), ownCommandName());
}

TEST(ProcessListTest, PreparedTableSkipsVanishedAndMalformedEntries) {
    TempFolder proc;
    proc.write("1/stat", "1 (init) S 0 1 1 0 -1\n");
    // A name with spaces and parentheses: only the last ")" ends it.
    proc.write("40/stat", "40 (a) b (c) R 1 40 40 0 -1\n");
    proc.write("41/stat", "garbage without parentheses\n");
    fs::create_directories(fs::path(proc.path()) / "42");  // exited: no stat left
    proc.write("self/stat", "1 (init) S 0\n");             // not a pid folder
    const auto processes = BSDProcUtils::getBSDProcessList(proc.path());
    std::map<pid_t, std::pair<pid_t, std::string>> seen;
    for (const auto& entry : processes) {
        seen[*dictionaryGet<pid_t>(entry, kProcessPIDKey)] = {
            *dictionaryGet<pid_t>(entry, kProcessParentPIDKey),
            *dictionaryGet<std::string>(entry, kProcessName)};
    }
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1], std::make_pair(pid_t{0}, std::string("init")));
    EXPECT_EQ(seen[40], std::make_pair(pid_t{1}, std::string("a) b (c")));
}

TEST(ProcessListTest, MissingTableIsAnEmptyList) {
    EXPECT_TRUE(BSDProcUtils::getBSDProcessList("/nonexistent/proc").empty());
}

TEST(ProcessTableTest, StatLineParsing) {
    detail::ProcessRecord r;
    EXPECT_TRUE(detail::parseStatLine("7 (kworker/0:1-events) I 2 0 0", r));
    EXPECT_STREQ(r.name, "kworker/0:1-eve");  // kept to the kernel's 15 bytes
    EXPECT_EQ(r.parentPID, 2);
    EXPECT_FALSE(detail::parseStatLine("7 (x) I", r));
    EXPECT_FALSE(detail::parseStatLine("7 (x) I z", r));
    EXPECT_FALSE(detail::parseStatLine(")7 (", r));
}

TEST(ProcessPIDsTest, FindsARealProcessByItsKernelName) {
    const std::string name = uniqueName(12);
    NamedChild child(name);
    ASSERT_GT(child.pid(), 0);
    int status = 0;
    EXPECT_EQ(pidsFor(name, 8, &status), std::vector<pid_t>{child.pid()});
    EXPECT_EQ(status, kZDRGetPIDsFound);
    // A prefix is not the name.
    pidsFor(name.substr(0, 6), 8, &status);
    EXPECT_EQ(status, kZDRGetPIDsNoneFound);
}

TEST(ProcessPIDsTest, NamesOfSixteenBytesOrMoreNeverMatchTheKernelsFifteen) {
    const std::string longName = uniqueName(20);
    NamedChild child(longName);
    ASSERT_GT(child.pid(), 0);
    int status = 0;
    pidsFor(longName, 8, &status);
    EXPECT_EQ(status, kZDRGetPIDsNoneFound);
    pidsFor(longName.substr(0, 16), 8, &status);
    EXPECT_EQ(status, kZDRGetPIDsNoneFound);
    EXPECT_EQ(pidsFor(longName.substr(0, 15), 8, &status), std::vector<pid_t>{child.pid()});
    EXPECT_EQ(status, kZDRGetPIDsFound);
}

TEST(ProcessPIDsTest, FullArrayStopsTheSearch) {
    const std::string name = uniqueName(10);
    NamedChild first(name), second(name);
    ASSERT_GT(first.pid(), 0);
    ASSERT_GT(second.pid(), 0);
    int status = 0;
    const auto one = pidsFor(name, 1, &status);
    EXPECT_EQ(status, kZDRGetPIDsArrayFull);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0], std::min(first.pid(), second.pid()));
    auto both = pidsFor(name, 2, &status);
    EXPECT_EQ(status, kZDRGetPIDsFound);
    EXPECT_EQ(std::set<pid_t>(both.begin(), both.end()),
              (std::set<pid_t>{first.pid(), second.pid()}));
}

TEST(ProcessPIDsTest, ArgumentAndTableFailures) {
    std::int32_t pids[4];
    unsigned int count = 5;
    int error = 0;
    EXPECT_EQ(getAllPIDsForProcessName(nullptr, pids, 4, &count, &error), kZDRGetPIDsBadArgument);
    EXPECT_EQ(getAllPIDsForProcessName("x", pids, 4, nullptr, &error), kZDRGetPIDsBadArgument);
    EXPECT_EQ(getAllPIDsForProcessName("x", pids, 0, &count, &error), kZDRGetPIDsBadArgument);
    EXPECT_EQ(count, 5u) << "a refused call leaves its outputs alone";
    EXPECT_EQ(zdr_c_test_missing_array_status(), 1);

    EXPECT_EQ(
        detail::getAllPIDsForProcessNameIn("/nonexistent/proc", "init", pids, 4, &count, &error),
        kZDRGetPIDsTableUnreadable);
    EXPECT_EQ(error, ENOENT);
    EXPECT_EQ(count, 0u);
    // The error number is optional.
    EXPECT_EQ(
        detail::getAllPIDsForProcessNameIn("/nonexistent/proc", "init", pids, 4, &count, nullptr),
        kZDRGetPIDsTableUnreadable);
}

TEST(ProcessPIDsTest, PidZeroIsNeverReported) {
    TempFolder proc;
    proc.write("0/comm", "swapper\n");
    proc.write("5/comm", "swapper\n");
    std::int32_t pids[4] = {};
    unsigned int count = 0;
    int error = -1;
    EXPECT_EQ(
        detail::getAllPIDsForProcessNameIn(proc.path().c_str(), "swapper", pids, 4, &count, &error),
        kZDRGetPIDsFound);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(pids[0], 5);
    EXPECT_EQ(error, 0);
}

TEST(ProcessPIDsTest, CallableFromC) {
    const std::string name = uniqueName(9);
    NamedChild child(name);
    std::int32_t pids[2] = {};
    unsigned int count = 0;
    EXPECT_EQ(zdr_c_test_find_pids(name.c_str(), pids, 2, &count, nullptr), kZDRGetPIDsFound);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(pids[0], child.pid());
}

// Counts what the cache asks of the workspace.
class CountingLocator : public ApplicationLocator {
 public:
    std::map<std::string, std::string> known;  // name -> identifier
    std::atomic<int> pathQueries{0};
    std::optional<std::string> fullPathForApplication(const std::string& name) override {
        ++pathQueries;
        if (!known.count(name)) return std::nullopt;
        return "/apps/" + name + ".desktop";
    }
    std::optional<std::string> bundleIdentifierAtPath(const std::string& path) override {
        for (const auto& [name, id] : known) {
            if (path == "/apps/" + name + ".desktop") return id;
        }
        return std::nullopt;
    }
};

class BundleCacheTest : public ::testing::Test {
 protected:
    void SetUp() override {
        locator_->known["nautilus"] = "org.gnome.Nautilus";
        BSDProcUtils::setApplicationLocator(locator_);
        BSDProcUtils::setClock(clock_);
        BSDProcUtils::_test_resetCaches();
    }
    void TearDown() override {
        BSDProcUtils::setApplicationLocator(nullptr);
        BSDProcUtils::setClock(nullptr);
        BSDProcUtils::_test_resetCaches();
    }
    std::shared_ptr<CountingLocator> locator_ = std::make_shared<CountingLocator>();
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
};

TEST_F(BundleCacheTest, AskedOnceWithinThirtySecondsThenAgain) {
    EXPECT_EQ(BSDProcUtils::bundleIdentifierForApplicationName("nautilus"), "org.gnome.Nautilus");
    clock_->advance(std::chrono::milliseconds(30000));
    EXPECT_EQ(BSDProcUtils::bundleIdentifierForApplicationName("nautilus"), "org.gnome.Nautilus");
    EXPECT_EQ(locator_->pathQueries, 1) << "an entry 30000 ms old is still fresh";

    std::shared_ptr<BSD_BundleInformation> entry;
    EXPECT_TRUE(BSDProcUtils::_getEntryFromCache("nautilus", &entry));
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->bundleID, "org.gnome.Nautilus");
    EXPECT_EQ(entry->time, 0u);

    clock_->advance(std::chrono::milliseconds(1));
    EXPECT_FALSE(BSDProcUtils::_getEntryFromCache("nautilus", nullptr)) << "30001 ms is stale";
    EXPECT_EQ(BSDProcUtils::bundleIdentifierForApplicationName("nautilus"), "org.gnome.Nautilus");
    EXPECT_EQ(locator_->pathQueries, 2);
    EXPECT_TRUE(BSDProcUtils::_getEntryFromCache("nautilus", &entry));
    EXPECT_EQ(entry->time, 30'001'000u) << "stamped in microseconds";
}

TEST_F(BundleCacheTest, MissesAreRememberedForGood) {
    EXPECT_EQ(BSDProcUtils::bundleIdentifierForApplicationName("bash"), std::nullopt);
    clock_->advance(std::chrono::hours(5));
    locator_->known["bash"] = "org.gnu.Bash";  // too late: the miss stays
    EXPECT_EQ(BSDProcUtils::bundleIdentifierForApplicationName("bash"), std::nullopt);
    EXPECT_EQ(locator_->pathQueries, 1);
    EXPECT_FALSE(BSDProcUtils::_getEntryFromCache("bash", nullptr));
    // No name: none, without asking.
    EXPECT_EQ(BSDProcUtils::bundleIdentifierForApplicationName(""), std::nullopt);
    EXPECT_EQ(locator_->pathQueries, 1);
}

TEST_F(BundleCacheTest, ProcessListCarriesIdentifiersFromTheCache) {
    locator_->known[ownCommandName()] = "org.example.SystemTests";
    const auto processes = BSDProcUtils::getBSDProcessList();
    int withIdentifier = 0;
    for (const auto& entry : processes) {
        const auto bid = dictionaryGet<std::string>(entry, kProcessBundleID);
        if (!bid) continue;
        ++withIdentifier;
        if (*dictionaryGet<pid_t>(entry, kProcessPIDKey) == ::getpid()) {
            EXPECT_EQ(*bid, "org.example.SystemTests");
        }
    }
    EXPECT_GE(withIdentifier, 1);
}

TEST_F(BundleCacheTest, RepeatedListingsAskOncePerName) {
    TempFolder proc;
    proc.write("10/stat", "10 (nautilus) S 1 10 10 0\n");
    proc.write("11/stat", "11 (nautilus) S 1 11 11 0\n");
    proc.write("12/stat", "12 (bash) S 1 12 12 0\n");
    auto list = BSDProcUtils::getBSDProcessList(proc.path());
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(dictionaryGet<std::string>(list[1], kProcessBundleID), "org.gnome.Nautilus");
    EXPECT_FALSE(dictionaryGet<std::string>(list[2], kProcessBundleID))
        << "present only when found";
    EXPECT_EQ(locator_->pathQueries, 2) << "one query per distinct name";
    clock_->advanceSeconds(10);
    BSDProcUtils::getBSDProcessList(proc.path());
    EXPECT_EQ(locator_->pathQueries, 2) << "the second listing comes from the caches";
}

TEST_F(BundleCacheTest, ConcurrentLookupsAgree) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                if (BSDProcUtils::bundleIdentifierForApplicationName("nautilus") !=
                    "org.gnome.Nautilus") {
                    ++wrong;
                }
                if (BSDProcUtils::bundleIdentifierForApplicationName("other")) ++wrong;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(locator_->pathQueries, 8) << "each name looked up at most once per first caller";
}

}  // namespace
}  // namespace zdr
