#include "zdr/logging/console_destination.h"

#include "zdr/logging/xcg_logger.h"

namespace zdr {

ConsoleDestination::ConsoleDestination(std::string identifier)
    : BaseQueuedDestination(identifier.empty() ? XCGLogger::baseConsoleDestinationIdentifier
                                               : std::move(identifier)) {}

void ConsoleDestination::write(std::string_view message) {
    std::FILE* stream = stream_.load(std::memory_order_relaxed);
    // The stream's own lock keeps the text and its newline together.
    flockfile(stream);
    fwrite_unlocked(message.data(), 1, message.size(), stream);
    fputc_unlocked('\n', stream);
    funlockfile(stream);
    if (stream == stdout) std::fflush(stream);
}

}  // namespace zdr
