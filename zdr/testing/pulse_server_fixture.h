// PulseServerFixture: a private PulseAudio server for integration tests.
//
// Each fixture owns a temporary folder that serves as the server's runtime,
// state and home directory, and a `pulseaudio` process started with no system
// configuration (`-n`) and a small start-up script of its own: null sinks and
// sources, then the native protocol on `<dir>/native`. Nothing outside the
// temporary folder is read or written, and it works when the tests run as
// root. The server can be killed and started again on the same socket (an
// audio-server restart as clients see it), suspended (SIGSTOP, a hanging
// server) and driven with `pactl` (modules loaded and unloaded, defaults and
// volumes changed from outside the process under test).
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

class PulseServerFixture {
 public:
    struct Options {
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

    /// Starts the server and waits until it answers on its socket. False (with
    /// the reason in `error`) when it does not come up in time; the server's
    /// own log is appended to the reason.
    bool start(std::string* error = nullptr);
    /// Terminates the server (SIGTERM, then SIGKILL after a grace period) and
    /// reaps it. The temporary folder stays until destruction.
    void stop();
    /// SIGKILL, as when the server crashes; reaps it.
    void kill();
    /// kill() then start() on the same socket.
    bool restart(std::string* error = nullptr);
    /// SIGSTOP / SIGCONT: a server that stops answering without closing.
    void suspend();
    void resume();

    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
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
    /// A null sink named `sinkName` with optional extra sink properties
    /// ("zdr.uid=abc zdr.hidden=1"). Returns the module index.
    std::optional<uint32_t> loadNullSink(const std::string& sinkName,
                                         const std::string& description = {},
                                         const std::string& extraProperties = {}) const;

 private:
    bool waitUntilAnswering(std::chrono::milliseconds timeout);
    void reap(std::chrono::milliseconds grace);
    std::vector<std::string> environment() const;

    Options options_;
    std::string dir_;
    pid_t pid_ = -1;
};

/// GoogleTest base: a fresh private server per test, skipped with a clear
/// reason only when pulseaudio is not installed.
class PulseServerTest : public ::testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;

    std::optional<PulseServerFixture> server_;
};

}  // namespace zdr::testing
