#include "zdr/testing/announcing_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace zdr::testing {

std::optional<std::string> findExecutable(std::string_view name) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        const std::string candidate = dir + "/" + std::string(name);
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

std::optional<AnnouncedChild> startAnnouncingChild(
    const std::function<std::vector<std::string>(int fd)>& makeArgs,
    std::chrono::milliseconds timeout, std::string* error) {
    auto fail = [&](std::string reason) -> std::optional<AnnouncedChild> {
        if (error) *error = std::move(reason);
        return std::nullopt;
    };
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return fail(std::strerror(errno));
    std::vector<std::string> args = makeArgs(fds[1]);
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
        ::fcntl(fds[1], F_SETFD, 0);  // the announcement is written here
        if (nullFd >= 0) {
            ::dup2(nullFd, STDIN_FILENO);
            ::dup2(nullFd, STDOUT_FILENO);
            ::dup2(nullFd, STDERR_FILENO);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    const int forkError = pid < 0 ? errno : 0;
    if (nullFd >= 0) ::close(nullFd);
    ::close(fds[1]);
    if (pid < 0) {
        ::close(fds[0]);
        return fail(std::string("fork failed: ") + std::strerror(forkError));
    }

    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (text.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fds[0], POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[256];
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n <= 0) break;  // the child exited before announcing itself
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fds[0]);
    const auto nl = text.find('\n');
    if (nl == std::string::npos) {
        stopChild(pid);
        return fail(args.front() + " did not announce itself");
    }
    return AnnouncedChild{pid, text.substr(0, nl)};
}

void stopChild(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 200; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
        ::usleep(10000);
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

}  // namespace zdr::testing
