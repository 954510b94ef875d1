// NSLogDestination: writes each line of a category logger to standard error
// as NSLog does, "2024-03-05 14:07:09.123 rec[1234:1240] " then the line. Used
// where there is no systemd journal. The prefix carries the date, so the
// show-date option is pinned off (setting it has no effect).
//
// The line is read as a format with no arguments, as NSLog would read it: "%%"
// becomes "%"; every other directive is kept as it stands (there is nothing
// to fill it with).
//
// Threads: any; one write per line, so lines never interleave.
#pragma once

#include <string>
#include <string_view>

#include "zdr/logging/base_destination.h"

namespace zdr {

class NSLogDestination : public BaseQueuedDestination {
 public:
    explicit NSLogDestination(std::string identifier = "");

    void write(std::string_view message) override;
};

}  // namespace zdr
