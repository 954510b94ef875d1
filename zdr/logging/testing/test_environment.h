// Test helper: one journal stand-in for the whole test program, installed as
// the journal socket before any logger is made, and a destination that
// records what reaches it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zdr/logging/base_destination.h"
#include "zdr/logging/detail/journal_socket.h"
#include "zdr/logging/logging.h"
#include "zdr/logging/testing/journal_receiver.h"

namespace zdr::testing {

/// The process's journal stand-in (made on first use, before any logger).
JournalReceiver& journal();

/// Waits until every table write submitted so far has run (a read on the
/// facade's lock is ordered after them).
inline void settle() { (void)Logging::shared()->isLoggingEnabled("zdr.test.settle"); }

/// Entries of `category` received until none arrives for a short while.
std::vector<JournalEntry> entriesFor(const std::string& category);

struct CapturedLine {
    LogLevel level;
    std::string line;
    std::string message;
    std::string function;
    std::string file;
    long lineNumber;
};

class CaptureDestination : public BaseQueuedDestination {
 public:
    using BaseQueuedDestination::BaseQueuedDestination;
    void output(const LogDetails& d, std::string_view message) override {
        std::lock_guard lock(mutex_);
        lines_.push_back({d.level, std::string(message), std::string(d.message),
                          std::string(d.functionName), std::string(d.fileName), d.lineNumber});
    }
    void write(std::string_view) override {}
    std::vector<CapturedLine> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

 private:
    mutable std::mutex mutex_;
    std::vector<CapturedLine> lines_;
};

}  // namespace zdr::testing
