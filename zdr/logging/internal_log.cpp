#include "zdr/logging/detail/internal_log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>

#include "zdr/logging/base_destination.h"

extern char* program_invocation_short_name;  // glibc

namespace zdr::detail {

void nsLog(std::string_view message) {
    std::string line;
    line.reserve(message.size() + 64);
    appendLocalDate(std::chrono::system_clock::now(), line);
    line.push_back(' ');
    const char* name = program_invocation_short_name;
    line.append(name != nullptr ? name : "?");
    char ids[48];
    int n = std::snprintf(ids, sizeof ids, "[%ld:%ld] ", static_cast<long>(::getpid()),
                          static_cast<long>(::syscall(SYS_gettid)));
    if (n > 0) line.append(ids, static_cast<std::size_t>(n));
    line.append(message);
    if (line.empty() || line.back() != '\n') line.push_back('\n');
    // One write(2) per line: stdio's buffer could split a long line between
    // threads, and a failing standard error must never stop the caller.
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

namespace {
std::array<std::atomic<bool>, kNoteCount> gNoted{};
}

void internalLogOnce(int key, std::string_view message) {
    if (key < 0 || key >= kNoteCount) {
        nsLog(message);
        return;
    }
    if (!gNoted[static_cast<std::size_t>(key)].exchange(true, std::memory_order_relaxed)) {
        nsLog(message);
    }
}

void resetNote(int key) {
    // Read first: this runs after every successful write, and a store would
    // bounce the cache line between logging threads.
    if (key >= 0 && key < kNoteCount &&
        gNoted[static_cast<std::size_t>(key)].load(std::memory_order_relaxed)) {
        gNoted[static_cast<std::size_t>(key)].store(false, std::memory_order_relaxed);
    }
}

}  // namespace zdr::detail
