// ConsoleDestination: writes each formatted line to standard output. Its
// identifier defaults to XCGLogger::baseConsoleDestinationIdentifier, which is
// how a logger's console destination is found again.
//
// Threads: any; lines from different threads never interleave within a line.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "zdr/logging/base_destination.h"

namespace zdr {

class ConsoleDestination : public BaseQueuedDestination {
 public:
    explicit ConsoleDestination(std::string identifier = "");

    void write(std::string_view message) override;

    /// Where lines go (standard output unless changed; for tests and hosts
    /// that redirect). The stream must stay open while the destination lives.
    void setStream(std::FILE* stream) { stream_.store(stream, std::memory_order_relaxed); }

 private:
    std::atomic<std::FILE*> stream_{stdout};
};

}  // namespace zdr
