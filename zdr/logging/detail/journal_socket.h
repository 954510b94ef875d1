// The systemd journal's native protocol, written by hand over a datagram
// socket so that the socket path can be replaced (tests bind their own) and so
// that a full or missing journal never blocks the logging thread.
//
// An entry is a sequence of fields. A value without a newline is sent as
// "NAME=value\n"; one with a newline as "NAME\n", its length as a 64-bit
// little-endian integer, the bytes and "\n". An entry too large for one
// datagram goes in a sealed memory file passed with the datagram.
//
// Threads: any; sends never block. A send that fails (socket full or gone)
// drops the entry and says so once on standard error until sends work again.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace zdr::detail {

struct JournalField {
    std::string_view name;
    std::string_view value;
};

/// Appends the native-protocol encoding of `fields` to `out`.
void encodeJournalEntry(const std::vector<JournalField>& fields, std::string& out);

/// Appends `text` to `out` with every byte that is not part of valid UTF-8
/// replaced by U+FFFD.
void appendValidUtf8(std::string_view text, std::string& out);

/// As appendValidUtf8(), and control characters (C0, DEL and C1: newlines,
/// tabs, escapes) are replaced by U+FFFD too: for short identifying fields,
/// which tools show on one line and match as plain text.
void appendIdentifierText(std::string_view text, std::string& out);

/// The journal's socket: "/run/systemd/journal/socket" unless the
/// environment variable ZDR_JOURNAL_SOCKET or setPath() says otherwise.
class JournalSocket {
 public:
    static JournalSocket& shared();

    std::string path() const;
    void setPath(std::string path);
    /// True when a socket exists at path().
    bool exists() const;

    /// Sends one encoded entry without blocking. False when it was dropped.
    bool send(std::string_view datagram);

    JournalSocket();
    ~JournalSocket();
    JournalSocket(const JournalSocket&) = delete;
    JournalSocket& operator=(const JournalSocket&) = delete;

 private:
    bool sendInMemoryFile(std::string_view datagram, const std::string& path);
    int socket();

    mutable std::mutex mutex_;
    std::string path_;
    int fd_ = -1;
};

}  // namespace zdr::detail
