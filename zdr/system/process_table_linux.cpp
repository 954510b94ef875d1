// The process table from /proc.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zdr/system/process_table_internal.h"

namespace zdr::detail {

namespace {

// Reads a small file relative to `dirFd` into `buffer`; -1 on failure.
ssize_t readSmallFile(int dirFd, const char* path, char* buffer, std::size_t size) {
    const int fd = ::openat(dirFd, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n;
    do {
        n = ::read(fd, buffer, size);
    } while (n < 0 && errno == EINTR);
    ::close(fd);
    return n;
}

bool parsePID(const char* text, pid_t& pid) {
    if (*text < '0' || *text > '9') return false;
    long value = 0;
    for (const char* p = text; *p; ++p) {
        if (*p < '0' || *p > '9') return false;
        value = value * 10 + (*p - '0');
        if (value > 0x7fffffffL) return false;
    }
    pid = static_cast<pid_t>(value);
    return true;
}

void copyName(std::string_view name, ProcessRecord& record) {
    const std::size_t n = std::min(name.size(), kCommandNameSize - 1);
    std::memcpy(record.name, name.data(), n);
    record.name[n] = '\0';
}

}  // namespace

bool parseStatLine(std::string_view text, ProcessRecord& record) {
    const auto open = text.find('(');
    const auto close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return false;
    }
    copyName(text.substr(open + 1, close - open - 1), record);
    // After ") " come the state (one character) and the parent pid.
    std::string_view rest = text.substr(close + 1);
    if (rest.size() < 4 || rest[0] != ' ' || rest[2] != ' ') return false;
    rest.remove_prefix(3);
    long ppid = 0;
    bool negative = false;
    std::size_t i = 0;
    if (i < rest.size() && rest[i] == '-') {
        negative = true;
        ++i;
    }
    const std::size_t digitsStart = i;
    while (i < rest.size() && rest[i] >= '0' && rest[i] <= '9') {
        ppid = ppid * 10 + (rest[i] - '0');
        if (ppid > 0x7fffffffL) return false;
        ++i;
    }
    if (i == digitsStart) return false;
    record.parentPID = static_cast<pid_t>(negative ? -ppid : ppid);
    return true;
}

int readProcessTable(const std::string& root, bool withParent, std::vector<ProcessRecord>& out) {
    DIR* dir = ::opendir(root.c_str());
    if (!dir) return errno != 0 ? errno : ENOENT;
    const int dirFd = ::dirfd(dir);
    char path[300];  // a d_name is at most 255 bytes
    // A stat line is at most a few hundred bytes; only its head is needed.
    char buffer[512];
    while (const dirent* entry = ::readdir(dir)) {
        ProcessRecord record;
        if (!parsePID(entry->d_name, record.pid)) continue;
        std::snprintf(path, sizeof path, "%s/%s", entry->d_name, withParent ? "stat" : "comm");
        const ssize_t n = readSmallFile(dirFd, path, buffer, sizeof buffer);
        if (n <= 0) continue;  // gone while we read: not an error
        std::string_view text(buffer, static_cast<std::size_t>(n));
        if (withParent) {
            if (!parseStatLine(text, record)) continue;
        } else {
            // The comm file is the name and one newline; a name may itself end
            // in a newline, so strip exactly one.
            if (text.back() == '\n') text.remove_suffix(1);
            copyName(text, record);
        }
        out.push_back(record);
    }
    ::closedir(dir);
    return 0;
}

}  // namespace zdr::detail
