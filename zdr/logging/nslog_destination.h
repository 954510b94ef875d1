// NSLogDestination: writes each line of a category logger to standard error
// as NSLog does, "2024-03-05 14:07:09.123 rec[1234:1240] " then the line. Used
// where there is no systemd journal.
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

    /// Always false: the NSLog-style prefix carries its own date.
    bool showDate() const override { return false; }
    void setShowDate(bool) override {}

    void write(std::string_view message) override;
};

}  // namespace zdr
