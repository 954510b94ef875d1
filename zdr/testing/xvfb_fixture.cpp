#include "zdr/testing/xvfb_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "zdr/testing/announcing_child.h"

namespace zdr::testing {

XvfbServer::XvfbServer() : XvfbServer(Options{}) {}
XvfbServer::XvfbServer(Options options) : options_(std::move(options)) {}
XvfbServer::~XvfbServer() { stop(); }

std::optional<std::string> XvfbServer::executable() { return findExecutable("Xvfb"); }

bool XvfbServer::start(std::string* error) {
    auto fail = [&](std::string reason) {
        if (error) *error = std::move(reason);
        stop();
        return false;
    };
    const auto binary = executable();
    if (!binary) return fail("Xvfb is not installed");
    auto child = startAnnouncingChild(
        [&](int fd) {
            std::vector<std::string> args{*binary,     "-displayfd", std::to_string(fd),
                                          "-nolisten", "tcp",        "-noreset"};
            for (std::size_t i = 0; i < options_.screens.size(); ++i) {
                args.insert(args.end(), {"-screen", std::to_string(i), options_.screens[i]});
            }
            return args;
        },
        options_.startTimeout, error);
    if (!child) return fail(error ? *error : "Xvfb did not announce its display");
    pid_ = child->pid;
    display_ = std::atoi(child->line.c_str());
    return true;
}

void XvfbServer::crashKeepingDisplay() {
    if (pid_ <= 0) return;
    // The X server's lock file holds the owner's pid in 10 columns; a server
    // looking for a free number skips one whose owner is alive.
    const std::string lock = "/tmp/.X" + std::to_string(display_) + "-lock";
    char text[16];
    std::snprintf(text, sizeof text, "%10d\n", static_cast<int>(::getpid()));
    const int fd = ::open(lock.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd >= 0) {
        (void)!::write(fd, text, std::strlen(text));
        ::close(fd);
        displayKept_ = true;
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void XvfbServer::releaseDisplay() {
    if (!displayKept_) return;
    displayKept_ = false;
    const std::string number = std::to_string(display_);
    ::unlink(("/tmp/.X11-unix/X" + number).c_str());
    ::unlink(("/tmp/.X" + number + "-lock").c_str());
}

void XvfbServer::stop() {
    releaseDisplay();
    stopChild(pid_);
    pid_ = -1;
}

void XvfbTest::SetUp() {
    if (!XvfbServer::executable()) {
        GTEST_SKIP() << "Xvfb is not installed (Debian package xvfb)";
    }
    server_ = std::make_unique<XvfbServer>(serverOptions());
    std::string error;
    ASSERT_TRUE(server_->start(&error)) << error;
}

void XvfbTest::TearDown() {
    if (server_) server_->stop();
}

}  // namespace zdr::testing
