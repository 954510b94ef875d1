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

#include <algorithm>
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
// servers or pactl to a user's configuration, bus or server replaced by the
// private folder.
std::vector<std::string> buildEnvironment(const std::string& dir, AudioServerKind kind) {
    static const char* const kOverridden[] = {"XDG_RUNTIME_DIR=",
                                              "PULSE_RUNTIME_PATH=",
                                              "PULSE_STATE_PATH=",
                                              "HOME=",
                                              "PULSE_SERVER=",
                                              "XDG_CONFIG_HOME=",
                                              "PULSE_COOKIE=",
                                              "DBUS_SESSION_BUS_ADDRESS=",
                                              "PULSE_SINK=",
                                              "PULSE_SOURCE=",
                                              "PULSE_CLIENTCONFIG=",
                                              "PIPEWIRE_RUNTIME_DIR=",
                                              "PIPEWIRE_REMOTE=",
                                              "XDG_STATE_HOME=",
                                              "XDG_DATA_HOME=",
                                              "PIPEWIRE_CONFIG_DIR=",
                                              "WIREPLUMBER_CONFIG_DIR=",
                                              "PIPEWIRE_DEBUG=",
                                              "WIREPLUMBER_DEBUG="};
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
    env.push_back("PULSE_RUNTIME_PATH=" + dir);  // pipewire-pulse: <dir>/native
    env.push_back("PULSE_STATE_PATH=" + dir + "/state");
    env.push_back("HOME=" + dir);
    env.push_back("XDG_CONFIG_HOME=" + dir + "/config");
    env.push_back("XDG_STATE_HOME=" + dir + "/state");
    env.push_back("XDG_DATA_HOME=" + dir + "/data");
    env.push_back("PULSE_SERVER=unix:" + dir + "/native");
    if (kind == AudioServerKind::pipewire) {
        env.push_back("PIPEWIRE_RUNTIME_DIR=" + dir);
        // WirePlumber needs a session bus: the fixture's own.
        env.push_back("DBUS_SESSION_BUS_ADDRESS=unix:path=" + dir + "/bus");
    } else {
        // No session bus here; an unusable address makes the server skip D-Bus at once.
        env.push_back("DBUS_SESSION_BUS_ADDRESS=disabled:");
    }
    return env;
}

std::vector<std::string> splitAtBlanks(const std::string& line) {
    std::vector<std::string> words;
    std::stringstream ss(line);
    std::string word;
    while (ss >> word) words.push_back(word);
    return words;
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

const char* audioServerName(AudioServerKind kind) {
    return kind == AudioServerKind::pipewire ? "PipeWire" : "PulseAudio";
}

std::string audioServerParamName(const ::testing::TestParamInfo<AudioServerKind>& info) {
    return audioServerName(info.param);
}

bool PulseServerFixture::available(AudioServerKind kind, std::string* why) {
    const std::vector<std::string> needed =
        kind == AudioServerKind::pipewire
            ? std::vector<std::string>{"pipewire", "wireplumber", "pipewire-pulse", "dbus-daemon",
                                       "pactl"}
            : std::vector<std::string>{"pulseaudio", "pactl"};
    for (const auto& program : needed) {
        if (!findInPath(program)) {
            if (why) *why = program + " is not installed";
            return false;
        }
    }
    return true;
}

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

std::vector<std::string> PulseServerFixture::environment() const {
    return buildEnvironment(dir_, options_.server);
}

std::string PulseServerFixture::serverLog() const {
    std::stringstream ss;
    for (const char* name : {"server.log", "dbus.log", "pipewire.log", "wireplumber.log"}) {
        std::ifstream in(dir_ + "/" + name);
        if (!in) continue;
        if (options_.server == AudioServerKind::pipewire) ss << "--- " << name << "\n";
        ss << in.rdbuf();
    }
    return ss.str();
}

pid_t PulseServerFixture::spawn(const std::string& binary, const std::vector<std::string>& argv,
                                const std::string& logName, std::string* error) {
    const std::string logPath = dir_ + "/" + logName;
    auto env = environment();
    CStrings args(argv), envp(env);
    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (logFd < 0 || nullFd < 0) {
        if (logFd >= 0) ::close(logFd);
        if (nullFd >= 0) ::close(nullFd);
        if (error) *error = "could not open " + logPath;
        return -1;
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
        ::execve(binary.c_str(), args.ptrs.data(), envp.ptrs.data());
        ::_exit(127);
    }
    const int rc = pid < 0 ? errno : 0;
    ::close(logFd);
    ::close(nullFd);
    if (rc != 0) {
        if (error) *error = "could not start " + binary + ": " + std::strerror(rc);
        return -1;
    }
    return pid;
}

bool PulseServerFixture::start(std::string* error) {
    if (running()) return true;
    if (dir_.empty()) {
        if (error) *error = "could not create a temporary folder";
        return false;
    }
    fs::create_directories(dir_ + "/state");
    fs::create_directories(dir_ + "/config");
    const bool ok = options_.server == AudioServerKind::pipewire ? startPipewire(error)
                                                                 : startPulseaudio(error);
    if (ok && options_.exportEnvironment) {
        ::setenv("PULSE_SERVER", serverString().c_str(), 1);
        ::setenv("PULSE_RUNTIME_PATH", dir_.c_str(), 1);
    }
    return ok;
}

bool PulseServerFixture::startPulseaudio(std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
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
    std::string why;
    pid_ = spawn(*binary, argv, "server.log", &why);
    if (pid_ <= 0) return fail(why);

    if (!waitUntilAnswering(options_.startTimeout)) {
        std::string log = serverLog();
        stop();
        return fail("pulseaudio did not answer on " + serverString() + "; its log:\n" + log);
    }
    return true;
}

bool PulseServerFixture::startPipewire(std::string* error) {
    auto fail = [&](const std::string& why) {
        std::string log = serverLog();
        stop();
        if (error) *error = why + "; the logs:\n" + log;
        return false;
    };
    std::string why;
    if (!available(AudioServerKind::pipewire, &why)) {
        if (error) *error = why;
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + options_.startTimeout;
    if (busPid_ <= 0) {
        const auto bus = findInPath("dbus-daemon");
        busPid_ = spawn(
            *bus,
            {*bus, "--session", "--nofork", "--nopidfile", "--address=unix:path=" + dir_ + "/bus"},
            "dbus.log", &why);
        if (busPid_ <= 0) return fail(why);
        while (!socketAnswers(dir_ + "/bus")) {
            if (std::chrono::steady_clock::now() >= deadline) return fail("no session bus");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    const auto pipewire = findInPath("pipewire");
    const auto wireplumber = findInPath("wireplumber");
    const auto pulse = findInPath("pipewire-pulse");
    pipewirePid_ = spawn(*pipewire, {*pipewire}, "pipewire.log", &why);
    if (pipewirePid_ <= 0) return fail(why);
    // The session manager gives up at once when the graph does not answer yet.
    while (!socketAnswers(dir_ + "/pipewire-0")) {
        int status = 0;
        if (::waitpid(pipewirePid_, &status, WNOHANG) == pipewirePid_) {
            pipewirePid_ = -1;
            return fail("pipewire ended during start-up");
        }
        if (std::chrono::steady_clock::now() >= deadline) return fail("pipewire did not answer");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    wireplumberPid_ = spawn(*wireplumber, {*wireplumber}, "wireplumber.log", &why);
    if (wireplumberPid_ <= 0) return fail(why);
    pid_ = spawn(*pulse, {*pulse}, "server.log", &why);
    if (pid_ <= 0) return fail(why);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (!waitUntilAnswering(left)) {
        return fail("pipewire-pulse did not answer on " + serverString());
    }
    if (!runScriptThroughPactl(deadline, &why)) return fail(why);
    return true;
}

bool PulseServerFixture::runScriptThroughPactl(std::chrono::steady_clock::time_point deadline,
                                               std::string* error) {
    std::vector<std::string> sinks, sources;
    for (const auto& line : options_.scriptLines) {
        auto words = splitAtBlanks(line);
        if (words.size() < 2 || words[0] != "load-module") {
            if (error) *error = "only load-module lines are supported on PipeWire: " + line;
            return false;
        }
        std::string module = words[1];
        std::vector<std::string> args(words.begin() + 2, words.end());
        if (module == "module-null-source") {
            // No module-null-source here: a null sink whose node is a virtual source.
            module = "module-null-sink";
            std::vector<std::string> translated = {"media.class=Audio/Source/Virtual"};
            for (const auto& a : args) {
                if (a.rfind("source_name=", 0) == 0) {
                    translated.push_back("sink_name=" + a.substr(12));
                    sources.push_back(a.substr(12));
                } else if (a.rfind("description=", 0) == 0) {
                    translated.push_back("sink_properties=device.description=" + a.substr(12));
                } else {
                    translated.push_back(a);
                }
            }
            args = translated;
        } else if (module == "module-null-sink") {
            for (const auto& a : args) {
                if (a.rfind("sink_name=", 0) == 0) sinks.push_back(a.substr(10));
            }
        }
        std::vector<std::string> command = {"load-module", module};
        command.insert(command.end(), args.begin(), args.end());
        // pipewire-pulse accepts connections before its own connection to
        // the graph is up ("Host is down"): retry until the start deadline.
        while (!pactl(command)) {
            if (std::chrono::steady_clock::now() >= deadline) {
                if (error) *error = "pactl could not run: " + line;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    // The devices exist once pactl answered; the session manager picks the
    // defaults a moment later. Tests expect a default like PulseAudio's.
    auto line = [](const std::string& text, const std::string& key) {
        auto at = text.find(key);
        if (at == std::string::npos) return std::string();
        auto end = text.find('\n', at);
        return text.substr(at + key.size(), end == std::string::npos ? end : end - at - key.size());
    };
    std::string info;
    for (;;) {
        info.clear();
        if (pactl({"info"}, &info)) {
            const std::string sink = line(info, "Default Sink: ");
            const std::string source = line(info, "Default Source: ");
            const bool sinkReady =
                sinks.empty() || std::find(sinks.begin(), sinks.end(), sink) != sinks.end();
            const bool sourceReady = sources.empty() || std::find(sources.begin(), sources.end(),
                                                                  source) != sources.end();
            if (sinkReady && sourceReady) return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            if (error) *error = "the session manager chose no default device in time: " + info;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
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

void PulseServerFixture::reap(pid_t& pid, std::chrono::milliseconds grace) {
    if (pid <= 0) return;
    const auto deadline = std::chrono::steady_clock::now() + grace;
    int status = 0;
    for (;;) {
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD)) break;
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGCONT);
            ::kill(pid, SIGKILL);
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    pid = -1;
}

void PulseServerFixture::stop() {
    // The protocol's server first, the session bus last.
    for (pid_t* pid : {&pid_, &wireplumberPid_, &pipewirePid_, &busPid_}) {
        if (*pid <= 0) continue;
        ::kill(*pid, SIGCONT);  // a suspended server cannot handle SIGTERM
        ::kill(*pid, SIGTERM);
        reap(*pid, std::chrono::milliseconds(3000));
    }
}

void PulseServerFixture::kill() {
    for (pid_t* pid : {&pid_, &wireplumberPid_, &pipewirePid_}) {
        if (*pid <= 0) continue;
        ::kill(*pid, SIGKILL);
        reap(*pid, std::chrono::milliseconds(3000));
    }
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

std::optional<uint32_t> PulseServerFixture::loadNullSource(const std::string& sourceName,
                                                           const std::string& description) const {
    if (options_.server == AudioServerKind::pipewire) {
        std::string args = "sink_name=" + sourceName + " media.class=Audio/Source/Virtual";
        if (!description.empty()) args += " sink_properties=device.description=" + description;
        return loadModule("module-null-sink", args);
    }
    std::string args = "source_name=" + sourceName;
    if (!description.empty()) args += " description=" + description;
    return loadModule("module-null-source", args);
}

std::optional<uint32_t> PulseServerFixture::loadNullSink(const std::string& sinkName,
                                                         const std::string& description,
                                                         const std::string& extraProperties) const {
    std::string props;
    if (options_.server == AudioServerKind::pipewire) {
        // pipewire-pulse splits at every blank and keeps quotes as they are.
        if (!description.empty()) props = "device.description=" + description;
        if (!extraProperties.empty()) props += (props.empty() ? "" : " ") + extraProperties;
        std::string args = "sink_name=" + sinkName;
        if (!props.empty()) args += " sink_properties=" + props;
        return loadModule("module-null-sink", args);
    }
    // Values are quoted so that descriptions may contain blanks.
    if (!description.empty()) props = "device.description=\"" + description + "\"";
    if (!extraProperties.empty()) props += (props.empty() ? "" : " ") + extraProperties;
    std::string args = "sink_name=" + sinkName;
    if (!props.empty()) args += " sink_properties='" + props + "'";
    return loadModule("module-null-sink", args);
}

void PulseServerTest::SetUp() {
    const AudioServerKind kind = serverKind();
    std::string why;
    if (!PulseServerFixture::available(kind, &why)) {
        GTEST_SKIP() << audioServerName(kind) << " cannot run here: " << why
                     << "; the integration tests need a private server";
    }
    PulseServerFixture::Options options;
    options.server = kind;
    server_.emplace(options);
    std::string error;
    if (!server_->start(&error)) {
        server_.reset();
        GTEST_SKIP() << audioServerName(kind) << " did not start: " << error;
    }
}

void PulseServerTest::TearDown() { server_.reset(); }

}  // namespace zdr::testing
