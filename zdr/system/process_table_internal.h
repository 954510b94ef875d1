// Internal: reads the kernel's process table from a /proc-shaped folder.
//
// Each numeric entry of the folder is one process. With `withParent`, the
// record comes from "<pid>/stat" (command name and parent pid in one read);
// without, from "<pid>/comm" (the cheaper file when only the name matters).
// A process that exits between listing the folder and reading its file is
// skipped: the table is a snapshot that was never atomic.
//
// Threads: any; no shared state.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace zdr::detail {

/// The kernel's command-name buffer: 15 bytes and the terminating NUL.
inline constexpr std::size_t kCommandNameSize = 16;

struct ProcessRecord {
    pid_t pid = 0;
    pid_t parentPID = 0;               // 0 when read without the parent
    char name[kCommandNameSize] = {};  // NUL-terminated, at most 15 bytes
};

inline constexpr const char* kProcessTableRoot = "/proc";

/// Appends the records to `out`, in the folder's order. Returns 0, or the
/// errno of opening the folder itself (entries that fail are skipped).
int readProcessTable(const std::string& root, bool withParent, std::vector<ProcessRecord>& out);

/// The name and parent pid from the text of a "<pid>/stat" file; false when it
/// is not in the kernel's shape. The name is the text between the first "("
/// and the last ")", since the name itself may hold parentheses and spaces.
bool parseStatLine(std::string_view text, ProcessRecord& record);

}  // namespace zdr::detail
