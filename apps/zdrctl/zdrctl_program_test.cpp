// The zdrctl program itself with no audio server to find (it probes for one,
// which takes a moment each run): changes fail naming the missing server,
// listings say that the simulated machine is shown.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "apps/zdrctl/zdrctl_options.h"

namespace zdr::zdrctl {
namespace {

// The real program with no audio server to find: a change must fail, naming
// the missing server, and a listing must say what it shows.
TEST(ZdrctlStandIn, TheProgramWithoutAnAudioServer) {
    const std::string dir =
        ::testing::TempDir() + "/zdrctl-no-server-" + std::to_string(::getpid());
    std::filesystem::create_directories(dir);
    auto run = [&](std::vector<std::string> args, std::string* errText) {
        args.insert(args.begin(), ZDRCTL_BINARY);
        std::vector<std::string> env = {"PATH=/usr/bin:/bin", "HOME=" + dir,
                                        "XDG_RUNTIME_DIR=" + dir,
                                        "PULSE_SERVER=unix:" + dir + "/no-such-socket"};
        std::vector<char*> argv, envp;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        for (auto& e : env) envp.push_back(e.data());
        envp.push_back(nullptr);
        const std::string errPath = dir + "/stderr";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t pid = -1;
        const int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) return -1;
        int status = 0;
        ::waitpid(pid, &status, 0);
        std::ifstream in(errPath);
        std::stringstream ss;
        ss << in.rdbuf();
        *errText = ss.str();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    std::string err;
    EXPECT_EQ(run({"volume", "default", "40%"}, &err), kExitBackend) << err;
    EXPECT_NE(err.find("no audio server answers"), std::string::npos) << err;
    EXPECT_EQ(run({"devices"}, &err), kExitOK) << err;
    EXPECT_NE(err.find("showing the simulated machine"), std::string::npos) << err;
    // Asked for, the simulated machine takes changes without a word.
    EXPECT_EQ(run({"--backend", "simulated", "volume", "default", "40%"}, &err), kExitOK) << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(run({"demo"}, &err), kExitOK) << err;
    EXPECT_NE(err.find("demo runs on the simulated machine"), std::string::npos) << err;
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace zdr::zdrctl
