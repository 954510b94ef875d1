#include "zdr/testing/xvfb_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace zdr::testing {

XvfbServer::XvfbServer() : XvfbServer(Options{}) {}
XvfbServer::XvfbServer(Options options) : options_(std::move(options)) {}
XvfbServer::~XvfbServer() { stop(); }

std::optional<std::string> XvfbServer::executable() {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        const std::string candidate = dir + "/Xvfb";
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

bool XvfbServer::start(std::string* error) {
    auto fail = [&](std::string reason) {
        if (error) *error = std::move(reason);
        stop();
        return false;
    };
    const auto binary = executable();
    if (!binary) return fail("Xvfb is not installed");
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return fail(std::strerror(errno));

    std::vector<std::string> args{*binary,     "-displayfd", std::to_string(fds[1]),
                                  "-nolisten", "tcp",        "-noreset"};
    for (std::size_t i = 0; i < options_.screens.size(); ++i) {
        args.insert(args.end(), {"-screen", std::to_string(i), options_.screens[i]});
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);

    const pid_t parent = ::getpid();
    // fork/exec rather than posix_spawn: the child asks the kernel to kill it
    // when the test process dies. Only async-signal-safe calls before exec.
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::fcntl(fds[1], F_SETFD, 0);  // the display number is written here
        if (nullFd >= 0) {
            ::dup2(nullFd, STDIN_FILENO);
            ::dup2(nullFd, STDOUT_FILENO);
            ::dup2(nullFd, STDERR_FILENO);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    if (nullFd >= 0) ::close(nullFd);
    ::close(fds[1]);
    if (pid < 0) {
        ::close(fds[0]);
        return fail(std::string("fork failed: ") + std::strerror(errno));
    }
    pid_ = pid;

    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + options_.startTimeout;
    while (text.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fds[0], POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[32];
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n <= 0) break;  // the server exited before announcing itself
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fds[0]);
    if (text.find('\n') == std::string::npos) return fail("Xvfb did not announce its display");
    display_ = std::atoi(text.c_str());
    return true;
}

void XvfbServer::crashKeepingDisplay() {
    if (pid_ <= 0) return;
    // The X server's lock file holds the owner's pid in 10 columns; a server
    // looking for a free number skips one whose owner is alive.
    const std::string lock = "/tmp/.X" + std::to_string(display_) + "-lock";
    char text[16];
    std::snprintf(text, sizeof text, "%10d\n", static_cast<int>(::getpid()));
    const int fd = ::open(lock.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd >= 0) {
        (void)!::write(fd, text, std::strlen(text));
        ::close(fd);
        displayKept_ = true;
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void XvfbServer::releaseDisplay() {
    if (!displayKept_) return;
    displayKept_ = false;
    const std::string number = std::to_string(display_);
    ::unlink(("/tmp/.X11-unix/X" + number).c_str());
    ::unlink(("/tmp/.X" + number + "-lock").c_str());
}

void XvfbServer::stop() {
    releaseDisplay();
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    // Xvfb leaves at once on SIGTERM; a stuck one is killed after two seconds.
    for (int i = 0; i < 200; ++i) {
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        ::usleep(10000);
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void XvfbTest::SetUp() {
    if (!XvfbServer::executable()) {
        GTEST_SKIP() << "Xvfb is not installed (Debian package xvfb)";
    }
    server_ = std::make_unique<XvfbServer>(serverOptions());
    std::string error;
    ASSERT_TRUE(server_->start(&error)) << error;
}

void XvfbTest::TearDown() {
    if (server_) server_->stop();
}

}  // namespace zdr::testing
