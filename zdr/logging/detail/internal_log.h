// Where the logging machinery reports its own failures, and the NSLog-style
// line writer behind NSLogDestination: one line on standard error with the
// date, the process name and ids, as in
//
//   2024-03-05 14:07:09.123 rec[1234:1240] message
//
// Threads: any; one write(2) per line, so lines never interleave.
#pragma once

#include <string_view>

namespace zdr::detail {

/// Writes `message` as one NSLog-style line to standard error.
void nsLog(std::string_view message);

/// Reports a failure of the logging machinery itself.
inline void internalLog(std::string_view message) { nsLog(message); }

/// Like internalLog(), but only the first time for a given `key` until
/// resetNote(key): for failures that would otherwise repeat on every line.
void internalLogOnce(int key, std::string_view message);
void resetNote(int key);

/// Keys for internalLogOnce().
enum NoteKey : int {
    kNoteJournalFull = 0,
    kNoteJournalGone = 1,
    kNoteJournalError = 2,
    kNoteCount = 3
};

}  // namespace zdr::detail
