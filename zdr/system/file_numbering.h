// Numbering of new files in a folder: a plain name first ("Recording.mov"),
// then the same name with 2, 3, ... before the extension ("Recording 2.mov"),
// always one above the highest number already there, so numbers below it are
// never reused.
//
// The name is matched as a regular expression, on purpose: "<base>[\s ]*(\d*)
// .<extension>" with the base and the extension put in unescaped, the dot
// before the extension matching any character, no anchors, caseless, with
// Unicode semantics (PCRE2). So "recording.MOV" counts for "Recording.mov",
// and a base holding pattern characters matches (or fails to compile) as a
// pattern would. Names that are not valid UTF-8 are matched where they are
// valid and never crash the matcher.
//
// uniquelyNumbered() never returns the path of a file that exists at the time
// of the call: when the name the rule gives is taken anyway (a base the
// pattern cannot match itself, a file made meanwhile) the number goes up until
// the name is free.
//
// Threads: any; no shared state. uniquelyNumbered() reads the file system.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zdr/runtime/error.h"

namespace zdr {

/// One above the highest number found in `content` for `filename` (the plain
/// name counts as 1); none when content is empty, nothing matches, or the
/// pattern does not compile. A number one above the largest integer stops the
/// program.
std::optional<long> nextHighestNumberFor(std::string_view filename,
                                         const std::vector<std::string>& content);

/// The full path of a new file in the folder `folder` ("~" expanded) for
/// nameWithExtension: folder + "/" + base + " " + n + "." + extension when the
/// folder holds names that match, else folder + "/" + nameWithExtension.
/// When the folder does not exist or is not a folder, the plain name.
/// Throws std::filesystem::filesystem_error when the folder cannot be listed.
std::string uniquelyNumbered(std::string_view folder, std::string_view nameWithExtension);

/// The same, answering none and filling `error` (domain "NSPOSIXErrorDomain",
/// the errno value as code, the system's message as description) instead of
/// throwing.
std::optional<std::string> uniquelyNumbered(std::string_view folder,
                                            std::string_view nameWithExtension, Error* error);

}  // namespace zdr
