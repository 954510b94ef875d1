#include "zdr/testing/dbus_session_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "zdr/testing/announcing_child.h"

namespace zdr::testing {

DbusSessionBus::~DbusSessionBus() { stop(); }

std::optional<std::string> DbusSessionBus::executable() { return findExecutable("dbus-daemon"); }

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
    auto child = startAnnouncingChild(
        [&](int fd) {
            return std::vector<std::string>{*binary, "--config-file=" + config.string(), "--nofork",
                                            "--nopidfile", "--print-address=" + std::to_string(fd)};
        },
        timeout, error);
    if (!child) return fail(error ? *error : "dbus-daemon did not announce its address");
    pid_ = child->pid;
    address_ = child->line;
    return true;
}

void DbusSessionBus::stop() {
    stopChild(pid_);
    pid_ = -1;
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        dir_.clear();
    }
    address_.clear();
}

}  // namespace zdr::testing
