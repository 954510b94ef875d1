// Test helper: a datagram socket bound in a temporary folder that stands in
// for the systemd journal, and a parser of the journal's native protocol
// (both the NAME=value form and the length-prefixed binary form, and entries
// passed as a memory-file descriptor).
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zdr::testing {

using JournalEntry = std::map<std::string, std::string>;

/// Parses one native-protocol entry; none when it is malformed.
inline std::optional<JournalEntry> parseJournalEntry(const std::string& data) {
    JournalEntry entry;
    std::size_t i = 0;
    while (i < data.size()) {
        auto newline = data.find('\n', i);
        if (newline == std::string::npos) return std::nullopt;
        auto equals = data.find('=', i);
        if (equals != std::string::npos && equals < newline) {
            entry[data.substr(i, equals - i)] = data.substr(equals + 1, newline - equals - 1);
            i = newline + 1;
            continue;
        }
        std::string name = data.substr(i, newline - i);
        i = newline + 1;
        if (i + 8 > data.size()) return std::nullopt;
        std::uint64_t size = 0;
        for (int k = 0; k < 8; ++k) {
            size |= static_cast<std::uint64_t>(static_cast<unsigned char>(data[i + k])) << (8 * k);
        }
        i += 8;
        if (i + size + 1 > data.size() || data[i + size] != '\n') return std::nullopt;
        entry[name] = data.substr(i, size);
        i += size + 1;
    }
    return entry;
}

class JournalReceiver {
 public:
    JournalReceiver() {
        char pattern[] = "/tmp/zdr-journal-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        dir_ = pattern;
        path_ = dir_ + "/socket";
        bind();
    }
    ~JournalReceiver() {
        if (fd_ >= 0) ::close(fd_);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    JournalReceiver(const JournalReceiver&) = delete;
    JournalReceiver& operator=(const JournalReceiver&) = delete;

    const std::string& path() const { return path_; }

    /// Removes the socket file (the journal went away).
    void vanish() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        ::unlink(path_.c_str());
    }
    /// Binds a new socket at the same path (the journal came back).
    void rebind() {
        vanish();
        bind();
    }
    /// Sets a small receive buffer so that the socket fills up quickly.
    void shrinkBuffer() {
        int size = 4096;
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }

    /// The next entry, waiting at most `timeout`.
    std::optional<JournalEntry> receive(
        std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
        std::string buffer(512 * 1024, '\0');
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec iov{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_iov = &iov;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ssize_t n = ::recvmsg(fd_, &message, 0);
        if (n < 0) return std::nullopt;
        buffer.resize(static_cast<std::size_t>(n));
        for (cmsghdr* h = CMSG_FIRSTHDR(&message); h != nullptr; h = CMSG_NXTHDR(&message, h)) {
            if (h->cmsg_level == SOL_SOCKET && h->cmsg_type == SCM_RIGHTS) {
                int memfd;
                std::memcpy(&memfd, CMSG_DATA(h), sizeof memfd);
                buffer.clear();
                char chunk[65536];
                ssize_t r;
                ::lseek(memfd, 0, SEEK_SET);
                while ((r = ::read(memfd, chunk, sizeof chunk)) > 0) {
                    buffer.append(chunk, static_cast<std::size_t>(r));
                }
                ::close(memfd);
                passedDescriptors_++;
            }
        }
        return parseJournalEntry(buffer);
    }

    /// Entries until none arrives within `quiet`.
    std::vector<JournalEntry> drain(
        std::chrono::milliseconds quiet = std::chrono::milliseconds(100)) {
        std::vector<JournalEntry> entries;
        while (auto e = receive(quiet)) entries.push_back(std::move(*e));
        return entries;
    }

    int passedDescriptors() const { return passedDescriptors_; }

 private:
    void bind() {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("bind failed");
        }
    }

    std::string dir_;
    std::string path_;
    int fd_ = -1;
    int passedDescriptors_ = 0;
};

}  // namespace zdr::testing
