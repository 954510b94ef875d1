// Test support: a private Xvfb X server for tests that need a display.
//
// The server picks a free display number itself (-displayfd), listens on no
// TCP port, and is killed when the fixture is destroyed, and by the kernel
// when the test process dies (it asks for SIGKILL on its parent's death), so
// no server outlives the test. Tests skip when Xvfb is not installed (Debian
// package xvfb).
//
// Threads: start and stop from the test's thread.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace zdr::testing {

class XvfbServer {
 public:
    struct Options {
        /// One "-screen N WxHxD" per entry, in order.
        std::vector<std::string> screens{"1280x800x24"};
        std::chrono::milliseconds startTimeout{10000};
    };
    XvfbServer();
    explicit XvfbServer(Options options);
    ~XvfbServer();
    XvfbServer(const XvfbServer&) = delete;
    XvfbServer& operator=(const XvfbServer&) = delete;

    /// The Xvfb executable on $PATH, if any.
    static std::optional<std::string> executable();

    /// Starts the server and waits until it announces its display; false with
    /// the reason in `error` on failure.
    bool start(std::string* error);
    /// Kills the server and waits for it.
    void stop();
    /// Kills the server at once (SIGKILL, as a crash would) but keeps its
    /// display number taken until stop() or destruction: the lock file names
    /// this process, so a server another test starts meanwhile cannot take
    /// the number and answer in the dead server's place.
    void crashKeepingDisplay();
    bool running() const { return pid_ > 0; }
    /// ":N".
    std::string displayName() const { return ":" + std::to_string(display_); }
    pid_t pid() const { return pid_; }

 private:
    Options options_;
    void releaseDisplay();

    pid_t pid_ = -1;
    int display_ = -1;
    bool displayKept_ = false;
};

/// A test with a running Xvfb in server(); skipped when Xvfb is absent.
class XvfbTest : public ::testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;
    virtual XvfbServer::Options serverOptions() const { return {}; }
    XvfbServer& server() { return *server_; }

 private:
    std::unique_ptr<XvfbServer> server_;
};

}  // namespace zdr::testing
