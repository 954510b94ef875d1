// Starting a private server for a test: a child process that dies with the
// test process (even one killed outright), and that tells us where it listens
// by writing one line to a pipe it inherits (Xvfb's -displayfd, dbus-daemon's
// --print-address). Test-only.
//
// Threads: any; each call works on its own child.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zdr::testing {

/// The first executable called `name` on $PATH (or /usr/bin:/bin).
std::optional<std::string> findExecutable(std::string_view name);

struct AnnouncedChild {
    pid_t pid = -1;
    /// The first line the child wrote, without its newline.
    std::string line;
};

/// Runs the program `makeArgs(fd)` names (argv[0] is its path), where `fd` is
/// the write end of a pipe the child inherits, with its standard streams on
/// /dev/null. Answers once the child has written a line there; none (with
/// `error` set, and the child stopped) when it exits first or `timeout`
/// passes without one.
std::optional<AnnouncedChild> startAnnouncingChild(
    const std::function<std::vector<std::string>(int fd)>& makeArgs,
    std::chrono::milliseconds timeout, std::string* error);

/// SIGTERM, then SIGKILL after two seconds; reaps the child. Nothing for -1.
void stopChild(pid_t pid);

}  // namespace zdr::testing
