#include "zdr/testing/pulse_server_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace zdr::testing {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> findInPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    std::stringstream ss(dirs);
    std::string dir;
    while (std::getline(ss, dir, ':')) {
        if (dir.empty()) continue;
        fs::path candidate = fs::path(dir) / name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate.string();
    }
    return std::nullopt;
}

// The child's environment: ours, with every variable that would lead the
// server or pactl to a user's configuration replaced by the private folder.
std::vector<std::string> buildEnvironment(const std::string& dir) {
    static const char* const kOverridden[] = {"XDG_RUNTIME_DIR=",   "PULSE_RUNTIME_PATH=",
                                              "PULSE_STATE_PATH=",  "HOME=",
                                              "PULSE_SERVER=",      "XDG_CONFIG_HOME=",
                                              "PULSE_COOKIE=",      "DBUS_SESSION_BUS_ADDRESS=",
                                              "PULSE_SINK=",        "PULSE_SOURCE=",
                                              "PULSE_CLIENTCONFIG="};
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e) {
        std::string entry(*e);
        bool replaced = false;
        for (const char* prefix : kOverridden) {
            if (entry.rfind(prefix, 0) == 0) replaced = true;
        }
        if (!replaced) env.push_back(std::move(entry));
    }
    env.push_back("XDG_RUNTIME_DIR=" + dir);
    env.push_back("PULSE_RUNTIME_PATH=" + dir);
    env.push_back("PULSE_STATE_PATH=" + dir + "/state");
    env.push_back("HOME=" + dir);
    env.push_back("XDG_CONFIG_HOME=" + dir + "/config");
    env.push_back("PULSE_SERVER=unix:" + dir + "/native");
    // No session bus here; an unusable address makes the server skip D-Bus at once.
    env.push_back("DBUS_SESSION_BUS_ADDRESS=disabled:");
    return env;
}

struct CStrings {
    explicit CStrings(const std::vector<std::string>& v) {
        for (const auto& s : v) ptrs.push_back(const_cast<char*>(s.c_str()));
        ptrs.push_back(nullptr);
    }
    std::vector<char*> ptrs;
};

// Runs argv to completion with the given environment; collects its stdout.
int runAndWait(const std::vector<std::string>& argv, const std::vector<std::string>& env,
               std::string* output) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    CStrings args(argv), envp(env);
    pid_t pid = -1;
    int rc =
        ::posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, args.ptrs.data(), envp.ptrs.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    std::string out;
    if (rc == 0) {
        char buf[4096];
        ssize_t n;
        while ((n = ::read(pipeFds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
            if (n > 0) out.append(buf, static_cast<size_t>(n));
        }
    }
    ::close(pipeFds[0]);
    if (rc != 0) return -1;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (output) *output = std::move(out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool socketAnswers(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

PulseServerFixture::PulseServerFixture() : PulseServerFixture(Options{}) {}

PulseServerFixture::PulseServerFixture(Options options) : options_(std::move(options)) {
    std::string tmpl = (fs::temp_directory_path() / "zdr-pulse-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) != nullptr) {
        dir_ = tmpl;
        ::chmod(dir_.c_str(), 0700);
    }
}

PulseServerFixture::~PulseServerFixture() {
    stop();
    if (!dir_.empty()) {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
}

std::optional<std::string> PulseServerFixture::pulseaudioBinary() {
    return findInPath("pulseaudio");
}

std::string PulseServerFixture::serverString() const { return "unix:" + dir_ + "/native"; }

std::vector<std::string> PulseServerFixture::environment() const { return buildEnvironment(dir_); }

std::string PulseServerFixture::serverLog() const {
    std::ifstream in(dir_ + "/server.log");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool PulseServerFixture::start(std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    if (running()) return true;
    if (dir_.empty()) return fail("could not create a temporary folder");
    auto binary = pulseaudioBinary();
    if (!binary) return fail("pulseaudio is not installed");

    // The native protocol goes last: once its socket accepts, every sink and
    // source of the script exists.
    const std::string script = dir_ + "/startup.pa";
    {
        std::ofstream out(script, std::ios::trunc);
        for (const auto& line : options_.scriptLines) out << line << "\n";
        out << "load-module module-native-protocol-unix auth-anonymous=1 socket=" << dir_
            << "/native\n";
        if (!out) return fail("could not write " + script);
    }
    fs::create_directories(dir_ + "/state");
    fs::create_directories(dir_ + "/config");

    // As root, pulseaudio warns but runs in user mode; --system would change
    // its paths and permissions, which we do not want. --disallow-exit keeps a
    // stray client from ending it; --use-pid-file=no lets a killed server be
    // replaced at once.
    std::vector<std::string> argv = {*binary,
                                     "--daemonize=no",
                                     "--system=no",
                                     "--exit-idle-time=-1",
                                     "--disallow-exit",
                                     "--use-pid-file=no",
                                     "--log-target=stderr",
                                     "--log-level=warning",
                                     "--realtime=no",
                                     "--high-priority=no",
                                     "-n",
                                     "-F",
                                     script};
    const std::string logPath = dir_ + "/server.log";
    auto env = environment();
    CStrings args(argv), envp(env);
    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (logFd < 0 || nullFd < 0) {
        if (logFd >= 0) ::close(logFd);
        if (nullFd >= 0) ::close(nullFd);
        return fail("could not open " + logPath);
    }
    const pid_t parent = ::getpid();
    // fork/exec rather than posix_spawn: the child asks the kernel to kill it
    // when the test process dies, so a crashing test leaves no server behind.
    // Only async-signal-safe calls run between fork and exec.
    pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        ::setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::dup2(nullFd, STDIN_FILENO);
        ::dup2(nullFd, STDOUT_FILENO);
        ::dup2(logFd, STDERR_FILENO);
        ::execve(binary->c_str(), args.ptrs.data(), envp.ptrs.data());
        ::_exit(127);
    }
    const int rc = pid < 0 ? errno : 0;
    ::close(logFd);
    ::close(nullFd);
    if (rc != 0) return fail(std::string("could not start pulseaudio: ") + std::strerror(rc));
    pid_ = pid;

    if (!waitUntilAnswering(options_.startTimeout)) {
        std::string log = serverLog();
        stop();
        return fail("pulseaudio did not answer on " + serverString() + "; its log:\n" + log);
    }
    if (options_.exportEnvironment) {
        ::setenv("PULSE_SERVER", serverString().c_str(), 1);
        ::setenv("PULSE_RUNTIME_PATH", dir_.c_str(), 1);
    }
    return true;
}

bool PulseServerFixture::waitUntilAnswering(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const std::string socketPath = dir_ + "/native";
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;  // it died during start-up
            return false;
        }
        if (socketAnswers(socketPath)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

void PulseServerFixture::reap(std::chrono::milliseconds grace) {
    if (pid_ <= 0) return;
    const auto deadline = std::chrono::steady_clock::now() + grace;
    int status = 0;
    for (;;) {
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_ || (r < 0 && errno == ECHILD)) break;
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGCONT);
            ::kill(pid_, SIGKILL);
            while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    pid_ = -1;
}

void PulseServerFixture::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGCONT);  // a suspended server cannot handle SIGTERM
    ::kill(pid_, SIGTERM);
    reap(std::chrono::milliseconds(3000));
}

void PulseServerFixture::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    reap(std::chrono::milliseconds(3000));
}

bool PulseServerFixture::restart(std::string* error) {
    kill();
    return start(error);
}

void PulseServerFixture::suspend() {
    if (pid_ > 0) ::kill(pid_, SIGSTOP);
}

void PulseServerFixture::resume() {
    if (pid_ > 0) ::kill(pid_, SIGCONT);
}

bool PulseServerFixture::pactl(const std::vector<std::string>& args, std::string* output) const {
    static const std::optional<std::string> binary = findInPath("pactl");
    if (!binary) return false;
    std::vector<std::string> argv = {*binary, "--server=" + serverString()};
    argv.insert(argv.end(), args.begin(), args.end());
    return runAndWait(argv, environment(), output) == 0;
}

std::optional<uint32_t> PulseServerFixture::loadModule(const std::string& name,
                                                       const std::string& args) const {
    std::vector<std::string> argv = {"load-module", name};
    if (!args.empty()) argv.push_back(args);
    std::string out;
    if (!pactl(argv, &out)) return std::nullopt;
    try {
        return static_cast<uint32_t>(std::stoul(out));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool PulseServerFixture::unloadModule(uint32_t index) const {
    return pactl({"unload-module", std::to_string(index)});
}

std::optional<uint32_t> PulseServerFixture::loadNullSink(const std::string& sinkName,
                                                         const std::string& description,
                                                         const std::string& extraProperties) const {
    std::string props;
    // Values are quoted so that descriptions may contain blanks.
    if (!description.empty()) props = "device.description=\"" + description + "\"";
    if (!extraProperties.empty()) props += (props.empty() ? "" : " ") + extraProperties;
    std::string args = "sink_name=" + sinkName;
    if (!props.empty()) args += " sink_properties='" + props + "'";
    return loadModule("module-null-sink", args);
}

void PulseServerTest::SetUp() {
    if (!PulseServerFixture::pulseaudioBinary()) {
        GTEST_SKIP() << "pulseaudio is not installed (Debian package pulseaudio); "
                        "the integration tests need a private server";
    }
    server_.emplace();
    std::string error;
    ASSERT_TRUE(server_->start(&error)) << error;
}

void PulseServerTest::TearDown() { server_.reset(); }

}  // namespace zdr::testing
