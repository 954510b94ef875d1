// zdrctl's permission commands: the status of each permission target and
// where it came from, and asking for one.
//
//   zdrctl permissions [--json]
//   zdrctl permissions request microphone|camera|screen
//
// The providers are the installed PermissionProviders (the Linux ones unless
// a test installed others). Threads: call from the main thread; a request
// waits for its answer (bounded by the providers' own timeouts).
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "zdr/permissions/permission_types.h"

namespace zdr::zdrctl {

/// Runs `args` (the command line without the program name) when it is a
/// permissions command and answers its exit code (a request: 0 when
/// granted, 1 when not); none for other commands.
std::optional<int> runPermissionsCommand(const std::vector<std::string>& args, std::ostream& out,
                                         std::ostream& err);

/// "not determined", "restricted", "denied", "authorized".
std::string authorizationStatusText(AskAuthorizationStatus status);

}  // namespace zdr::zdrctl
