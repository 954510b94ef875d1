// PulseServerFixture: a private audio server speaking the PulseAudio protocol
// for integration tests: PulseAudio itself, or PipeWire with its PulseAudio
// front end (pipewire-pulse), the two servers users run.
//
// Each fixture owns a temporary folder that serves as the server's runtime,
// state and home directory.
//   - PulseAudio: a `pulseaudio` process started with no system configuration
//     (`-n`) and a small start-up script of its own: null sinks and sources,
//     then the native protocol on `<dir>/native`.
//   - PipeWire: a private session bus (`dbus-daemon --session`, which
//     WirePlumber needs), `pipewire`, `wireplumber` (without it there is no
//     default device) and `pipewire-pulse` listening on `<dir>/native`; the
//     start-up script's `load-module` lines are then run through `pactl`.
//     pipewire-pulse 0.3 has no module-null-source (a null sink of media
//     class Audio/Source/Virtual stands in) and splits module arguments at
//     blanks even inside quotes, so descriptions must not contain blanks.
// Nothing outside the temporary folder is read or written, and it works when
// the tests run as root. Every process is killed by the kernel when the test
// process dies (even by SIGKILL), so no server outlives its test. The server
// can be killed and started again on the same socket (an audio-server restart
// as clients see it), suspended (SIGSTOP, a hanging server) and driven with
// `pactl` (modules loaded and unloaded, defaults and volumes changed from
// outside the process under test).
//
// stop() and the destructor end the server, reap it and remove the folder.
//
// Threads: one fixture is used from one thread at a time (the test's).
// Nothing here calls back.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace zdr::testing {

/// Which server answers the PulseAudio protocol.
enum class AudioServerKind { pulseaudio, pipewire };
/// "PulseAudio" / "PipeWire" (also the parameter names of parameterised tests).
const char* audioServerName(AudioServerKind kind);

class PulseServerFixture {
 public:
    struct Options {
        AudioServerKind server = AudioServerKind::pulseaudio;
        /// Lines of the start-up script loaded before the native protocol
        /// (each a `load-module ...` or other pulseaudio CLI command).
        std::vector<std::string> scriptLines = {
            "load-module module-null-sink sink_name=zdr_fixture_out "
            "sink_properties=device.description=Fixture_Output",
            "load-module module-null-source source_name=zdr_fixture_in "
            "description=Fixture_Input",
        };
        /// How long start() waits for the server to answer.
        std::chrono::milliseconds startTimeout{10000};
        /// Set PULSE_SERVER (and the runtime variables) in this process's
        /// environment on start so that default-constructed clients find it.
        /// Off by default: setenv races with any thread reading the
        /// environment (libpulse does on every connection attempt); pass
        /// serverString() to clients instead.
        bool exportEnvironment = false;
    };

    PulseServerFixture();
    explicit PulseServerFixture(Options options);
    ~PulseServerFixture();
    PulseServerFixture(const PulseServerFixture&) = delete;
    PulseServerFixture& operator=(const PulseServerFixture&) = delete;

    /// Path of the `pulseaudio` binary, or none when it is not installed.
    static std::optional<std::string> pulseaudioBinary();
    /// Whether the programs `kind` needs are installed; else the reason.
    static bool available(AudioServerKind kind, std::string* why = nullptr);

    /// Starts the server and waits until it answers on its socket. False (with
    /// the reason in `error`) when it does not come up in time; the server's
    /// own log is appended to the reason.
    bool start(std::string* error = nullptr);
    /// Terminates the server (SIGTERM, then SIGKILL after a grace period) and
    /// reaps it. The temporary folder stays until destruction.
    void stop();
    /// SIGKILL, as when the server crashes; reaps it (with PipeWire: the
    /// audio processes; the session bus stays until stop()).
    void kill();
    /// kill() then start() on the same socket.
    bool restart(std::string* error = nullptr);
    /// SIGSTOP / SIGCONT: a server that stops answering without closing.
    void suspend();
    void resume();

    bool running() const { return pid_ > 0; }
    /// The process that answers the protocol (pulseaudio or pipewire-pulse).
    pid_t pid() const { return pid_; }
    AudioServerKind kind() const { return options_.server; }
    /// "unix:<dir>/native".
    std::string serverString() const;
    const std::string& runtimeDir() const { return dir_; }
    /// The server's log (stderr) so far.
    std::string serverLog() const;

    /// Runs `pactl <args>` against this server. True on exit status 0; the
    /// standard output goes to `output` when given.
    bool pactl(const std::vector<std::string>& args, std::string* output = nullptr) const;
    /// `pactl load-module <name> <args>`: the module index, or none.
    std::optional<uint32_t> loadModule(const std::string& name, const std::string& args = {}) const;
    bool unloadModule(uint32_t index) const;
    /// A null source (a capture device) named `sourceName`: module-null-source
    /// on PulseAudio, a virtual-source null sink on PipeWire.
    std::optional<uint32_t> loadNullSource(const std::string& sourceName,
                                           const std::string& description = {}) const;
    /// A null sink named `sinkName` with optional extra sink properties
    /// ("zdr.uid=abc zdr.hidden=1"). Returns the module index. With PipeWire
    /// the description must not contain blanks.
    std::optional<uint32_t> loadNullSink(const std::string& sinkName,
                                         const std::string& description = {},
                                         const std::string& extraProperties = {}) const;

 private:
    bool startPulseaudio(std::string* error);
    bool startPipewire(std::string* error);
    bool runScriptThroughPactl(std::chrono::steady_clock::time_point deadline, std::string* error);
    pid_t spawn(const std::string& binary, const std::vector<std::string>& argv,
                const std::string& logName, std::string* error);
    bool waitUntilAnswering(std::chrono::milliseconds timeout);
    static void reap(pid_t& pid, std::chrono::milliseconds grace);
    std::vector<std::string> environment() const;

    Options options_;
    std::string dir_;
    pid_t pid_ = -1;             // the protocol's server
    pid_t busPid_ = -1;          // PipeWire: the session bus
    pid_t pipewirePid_ = -1;     // PipeWire: the graph
    pid_t wireplumberPid_ = -1;  // PipeWire: the session manager
};

/// GoogleTest base: a fresh private PulseAudio server per test, skipped with
/// a clear reason when it is not installed or cannot start.
class PulseServerTest : public ::testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;
    /// The server this test runs against.
    virtual AudioServerKind serverKind() const { return AudioServerKind::pulseaudio; }

    std::optional<PulseServerFixture> server_;
};

/// The same, parameterised by server: TEST_P tests instantiated with
/// ZDR_INSTANTIATE_ON_BOTH_AUDIO_SERVERS(Suite) run on PulseAudio and on
/// PipeWire, each skipped (with the reason) where it cannot run.
class AudioServerTest : public PulseServerTest,
                        public ::testing::WithParamInterface<AudioServerKind> {
 protected:
    AudioServerKind serverKind() const override { return GetParam(); }
    bool onPipewire() const { return GetParam() == AudioServerKind::pipewire; }
};

/// Names the parameterised cases "PulseAudio" and "PipeWire".
std::string audioServerParamName(const ::testing::TestParamInfo<AudioServerKind>& info);

#define ZDR_INSTANTIATE_ON_BOTH_AUDIO_SERVERS(suite)                                        \
    INSTANTIATE_TEST_SUITE_P(Servers, suite,                                                \
                             ::testing::Values(::zdr::testing::AudioServerKind::pulseaudio, \
                                               ::zdr::testing::AudioServerKind::pipewire),  \
                             ::zdr::testing::audioServerParamName)

}  // namespace zdr::testing
