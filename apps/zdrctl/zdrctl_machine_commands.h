// zdrctl's commands about the machine rather than its audio: the screens and
// the running processes. They need no audio backend.
//
//   zdrctl screens [--json]
//   zdrctl processes [NAME] [--json]
//
// Threads: call from the main thread.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace zdr::zdrctl {

/// Runs `args` (the command line without the program name) when it names a
/// machine command, and answers its exit code; none when it names another
/// command, which the caller then runs. `--log CATEGORIES` may come first.
std::optional<int> runMachineCommand(const std::vector<std::string>& args, std::ostream& out,
                                     std::ostream& err);

/// The status text of a getAllPIDsForProcessName answer ("found", "none found"...).
std::string pidSearchStatusText(int status);

}  // namespace zdr::zdrctl
