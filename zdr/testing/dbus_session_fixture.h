// Test support: a private D-Bus session bus (dbus-daemon) for tests that talk
// to desktop services. It listens on a socket in its own temporary folder,
// activates no services, and is killed when the fixture is destroyed and by
// the kernel when the test process dies (SIGKILL on its parent's death).
//
// Threads: start and stop from the test's thread; address() from any.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace zdr::testing {

class DbusSessionBus {
 public:
    DbusSessionBus() = default;
    ~DbusSessionBus();
    DbusSessionBus(const DbusSessionBus&) = delete;
    DbusSessionBus& operator=(const DbusSessionBus&) = delete;

    /// The dbus-daemon executable on $PATH, if any.
    static std::optional<std::string> executable();

    /// Starts the daemon and waits for its address; false with `error`.
    bool start(std::string* error, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void stop();
    /// "unix:path=...,guid=...".
    const std::string& address() const { return address_; }
    pid_t pid() const { return pid_; }

 private:
    pid_t pid_ = -1;
    std::string address_;
    std::filesystem::path dir_;
};

}  // namespace zdr::testing
