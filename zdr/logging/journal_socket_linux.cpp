#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zdr/logging/detail/internal_log.h"
#include "zdr/logging/detail/journal_socket.h"

namespace zdr::detail {

namespace {

constexpr const char* kDefaultJournalSocket = "/run/systemd/journal/socket";

bool fillAddress(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

void noteFailure(int error, const std::string& path) {
    if (error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS) {
        internalLogOnce(kNoteJournalFull,
                        "The journal at " + path + " is not keeping up; dropping log lines");
    } else if (error == ENOENT || error == ECONNREFUSED || error == ENOTDIR) {
        internalLogOnce(kNoteJournalGone,
                        "The journal socket " + path + " is gone; dropping log lines");
    } else {
        internalLogOnce(kNoteJournalError, "Cannot write to the journal at " + path + ": " +
                                               std::strerror(error) + "; dropping log lines");
    }
}

void noteSuccess() {
    resetNote(kNoteJournalFull);
    resetNote(kNoteJournalGone);
    resetNote(kNoteJournalError);
}

}  // namespace

JournalSocket& JournalSocket::shared() {
    static JournalSocket* socket = new JournalSocket();  // lives for the process
    return *socket;
}

JournalSocket::JournalSocket() {
    const char* env = std::getenv("ZDR_JOURNAL_SOCKET");
    path_ = env != nullptr && *env != '\0' ? env : kDefaultJournalSocket;
}

JournalSocket::~JournalSocket() {
    if (fd_ >= 0) ::close(fd_);
}

std::string JournalSocket::path() const {
    std::lock_guard lock(mutex_);
    return path_;
}

void JournalSocket::setPath(std::string path) {
    std::lock_guard lock(mutex_);
    path_ = std::move(path);
}

bool JournalSocket::exists() const {
    struct stat st {};
    return ::stat(path().c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

int JournalSocket::socket() {
    // Caller holds mutex_. One unconnected socket serves every thread and
    // every path: sendto names the address each time, so a journal that
    // restarts (new socket file) is reached again without reconnecting.
    if (fd_ < 0) fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    return fd_;
}

bool JournalSocket::send(std::string_view datagram) {
    std::string path;
    int fd;
    {
        std::lock_guard lock(mutex_);
        path = path_;
        fd = socket();
    }
    if (fd < 0) {
        noteFailure(errno, path);
        return false;
    }
    sockaddr_un address{};
    if (!fillAddress(path, address)) {
        noteFailure(ENOENT, path);
        return false;
    }
    ssize_t sent;
    do {
        sent = ::sendto(fd, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        noteSuccess();
        return true;
    }
    if (errno == EMSGSIZE) return sendInMemoryFile(datagram, path);
    noteFailure(errno, path);
    return false;
}

bool JournalSocket::sendInMemoryFile(std::string_view datagram, const std::string& path) {
    // Entries larger than a datagram go in a sealed memory file whose
    // descriptor travels alone; the journal reads the entry from it.
    int memfd = ::memfd_create("zdr-journal-entry", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (memfd < 0) {
        noteFailure(errno, path);
        return false;
    }
    const char* data = datagram.data();
    std::size_t left = datagram.size();
    while (left > 0) {
        ssize_t written = ::write(memfd, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            int error = errno;
            ::close(memfd);
            noteFailure(error, path);
            return false;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    ::fcntl(memfd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);

    sockaddr_un address{};
    fillAddress(path, address);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &memfd, sizeof(int));

    int fd;
    {
        std::lock_guard lock(mutex_);
        fd = socket();
    }
    ssize_t sent;
    do {
        sent = ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    int error = errno;
    ::close(memfd);
    if (sent < 0) {
        noteFailure(error, path);
        return false;
    }
    noteSuccess();
    return true;
}

}  // namespace zdr::detail
