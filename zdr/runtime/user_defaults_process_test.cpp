// Real processes that use the settings store: exits with pool work in flight
// and saves killed with SIGKILL. The helper program is built with the same
// sanitizers as this test, so a use-after-free or a race at exit shows up as
// its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "zdr/runtime/user_defaults.h"

extern char** environ;

namespace zdr {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kHelper = ZDR_USER_DEFAULTS_TEST_HELPER;

class TempDir {
 public:
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "zdr-defaults-proc-XXXXXX").string();
        if (::mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

 private:
    fs::path path_;
};

/// Starts the helper with `args`, in folder `cwd`, with `env` added to this
/// process's environment. -1 when it could not be started.
pid_t spawnHelper(const std::vector<std::string>& args, const fs::path& cwd,
                  const std::vector<std::string>& env) {
    std::vector<std::string> argStrings{kHelper};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStrings(env);
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        const std::string name = entry.substr(0, entry.find('='));
        bool overridden = false;
        for (const auto& mine : env) overridden |= mine.rfind(name + "=", 0) == 0;
        if (!overridden) envStrings.push_back(entry);
    }
    std::vector<char*> envp;
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, kHelper, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::string describe(int status) {
    if (WIFEXITED(status)) return "exit code " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("signal ") + ::strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

std::vector<std::string> namesIn(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    return names;
}

int runsFromEnvironment(const char* var, int fallback) {
    const char* v = std::getenv(var);
    return v && std::atoi(v) > 0 ? std::atoi(v) : fallback;
}

TEST(UserDefaultsProcesses, ExitsWithPoolJobsSettingDefaultsAreCleanAndWriteOnlyTheSettingsFile) {
    TempDir work, config;
    ASSERT_FALSE(work.path().empty());
    ASSERT_FALSE(config.path().empty());
    const int runs = runsFromEnvironment("ZDR_EXIT_RUNS", 200);
    // TSan otherwise waits a second at every exit for late reports.
    const char* tsan = std::getenv("TSAN_OPTIONS");
    const std::vector<std::string> env{
        "XDG_CONFIG_HOME=" + config.path().string(), "HOME=" + config.path().string(),
        std::string("TSAN_OPTIONS=") + (tsan ? tsan : "") + ":atexit_sleep_ms=50"};
    // Four at a time: they share the settings file, as copies of an
    // application would.
    constexpr int kParallel = 4;
    for (int i = 0; i < runs; i += kParallel) {
        std::vector<pid_t> helpers;
        for (int k = 0; k < kParallel; ++k)
            helpers.push_back(
                spawnHelper({"exit", std::to_string(1 + (i + 3 * k) % 8)}, work.path(), env));
        for (int k = 0; k < kParallel; ++k) {
            ASSERT_GT(helpers[k], 0);
            const int status = waitFor(helpers[k]);
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
                << "run " << i + k << ": " << describe(status);
        }
    }
    EXPECT_THAT(namesIn(work.path()), ::testing::IsEmpty())
        << "nothing is written to the working folder";
    EXPECT_THAT(namesIn(config.path()), ::testing::ElementsAre("com.zdr.exit-probe"));
    const fs::path folder = config.path() / "com.zdr.exit-probe";
    // A save cut short by the exit may leave its temporary; the next load
    // removes it.
    UserDefaults next(folder / "defaults.json");
    next.setAutosaveDelay(3600);
    EXPECT_THAT(namesIn(folder),
                ::testing::UnorderedElementsAre("defaults.json", "defaults.json.lock"));
    std::ifstream in(folder / "defaults.json");
    json saved = json::parse(in, nullptr, false);
    ASSERT_TRUE(saved.is_object());
    EXPECT_TRUE(saved.contains("job0")) << saved.dump();
}

TEST(UserDefaultsProcesses, SavesKilledAtAnyMomentLeaveAValidFileAndNoTemporaries) {
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const fs::path file = dir.path() / "defaults.json";
    const int rounds = runsFromEnvironment("ZDR_KILL_RUNS", 100);
    std::mt19937 random(1234);
    int leftBehind = 0;
    // Kills are timed from the helper's start-up, measured on the first round
    // (it is much longer under the sanitizers), so that they land among saves.
    std::chrono::milliseconds startUp{0};
    for (int round = 0; round < rounds; ++round) {
        const auto began = std::chrono::steady_clock::now();
        std::vector<pid_t> writers;
        for (int w = 0; w < 1 + round % 2; ++w)
            writers.push_back(
                spawnHelper({"save-loop", file.string(), std::to_string(w)}, dir.path(), {}));
        for (pid_t pid : writers) ASSERT_GT(pid, 0);
        if (round == 0) {
            for (int i = 0; i < 2000 && !fs::exists(file); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            startUp = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - began);
        } else {
            std::this_thread::sleep_for(startUp + std::chrono::milliseconds(2 + random() % 25));
        }
        for (pid_t pid : writers) ::kill(pid, SIGKILL);
        for (pid_t pid : writers) waitFor(pid);

        ASSERT_TRUE(fs::exists(file)) << "the first writer saved within 20 s";
        std::ifstream in(file);
        ASSERT_TRUE(json::parse(in, nullptr, false).is_object()) << "round " << round;
        for (const auto& name : namesIn(dir.path()))
            if (name.rfind(".defaults.json.tmp-", 0) == 0) ++leftBehind;
    }
    // Each load removes what killed saves left; nothing is ever corrupt.
    UserDefaults after(file);
    after.setAutosaveDelay(3600);
    for (const auto& name : namesIn(dir.path())) {
        EXPECT_EQ(name.find(".tmp-"), std::string::npos) << name;
        EXPECT_EQ(name.find(".corrupt-"), std::string::npos) << name;
    }
    EXPECT_TRUE(after.objectForKey("count-0").has_value());
    RecordProperty("temporaries_seen_after_kills", leftBehind);
}

}  // namespace
}  // namespace zdr
