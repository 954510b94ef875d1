// zdrctl's analytics check: sends one application-start event to a collection
// endpoint and prints what went out and what came back, so that a developer
// can check an installation (or a test collector) by hand.
//
//   zdrctl analytics-test --endpoint URL [--measurement-id ID] [--client-id ID]
//                         [--timeout SECONDS]
//
// Threads: call from the main thread; it waits for the request to finish.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace zdr::zdrctl {

/// Runs `args` (the command line without the program name) when it names the
/// analytics command, and answers its exit code; none for any other command.
std::optional<int> runAnalyticsCommand(const std::vector<std::string>& args, std::ostream& out,
                                       std::ostream& err);

}  // namespace zdr::zdrctl
