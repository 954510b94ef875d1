#include "zdr/testing/dbus_session_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace zdr::testing {

DbusSessionBus::~DbusSessionBus() { stop(); }

std::optional<std::string> DbusSessionBus::executable() {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        const std::string candidate = dir + "/dbus-daemon";
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

bool DbusSessionBus::start(std::string* error, std::chrono::milliseconds timeout) {
    auto fail = [&](std::string reason) {
        if (error) *error = std::move(reason);
        stop();
        return false;
    };
    const auto binary = executable();
    if (!binary) return fail("dbus-daemon is not installed");
    char pattern[] = "/tmp/zdr-dbus-XXXXXX";
    if (!::mkdtemp(pattern)) return fail(std::strerror(errno));
    dir_ = pattern;
    // A session bus of our own: no service activation, anyone may own names.
    const auto config = dir_ / "session.conf";
    {
        std::ofstream out(config);
        out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
               "1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>session</type><listen>unix:dir="
            << dir_.string()
            << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
               "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
               "<allow own=\"*\"/></policy></busconfig>\n";
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return fail(std::strerror(errno));
    std::vector<std::string> args{*binary, "--config-file=" + config.string(), "--nofork",
                                  "--nopidfile", "--print-address=" + std::to_string(fds[1])};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const pid_t parent = ::getpid();
    // fork/exec so that the child can ask to die with the test process.
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::fcntl(fds[1], F_SETFD, 0);
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
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (text.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fds[0], POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[256];
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n <= 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fds[0]);
    auto nl = text.find('\n');
    if (nl == std::string::npos) return fail("dbus-daemon did not announce its address");
    address_ = text.substr(0, nl);
    return true;
}

void DbusSessionBus::stop() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        bool gone = false;
        for (int i = 0; i < 200 && !gone; ++i) {
            gone = ::waitpid(pid_, nullptr, WNOHANG) == pid_;
            if (!gone) ::usleep(10000);
        }
        if (!gone) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        dir_.clear();
    }
    address_.clear();
}

}  // namespace zdr::testing
