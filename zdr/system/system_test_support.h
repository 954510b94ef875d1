// Test helper: records what a category logger writes while it lives (the
// category is switched on for that time).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zdr/logging/logging.h"
#include "zdr/logging/testing/test_environment.h"

namespace zdr::testing {

class LogCapture {
 public:
    explicit LogCapture(std::shared_ptr<XCGLogger> logger)
        : logger_(std::move(logger)),
          capture_(std::make_shared<CaptureDestination>("system.test.capture")),
          oldLevel_(logger_->outputLevel()) {
        capture_->setOutputLevel(LogLevel::verbose);
        logger_->setOutputLevel(LogLevel::verbose);
        logger_->add(capture_);
        Logging::shared()->loggingEnabled(logger_->identifier(), true);
        settle();
    }
    ~LogCapture() {
        logger_->remove(capture_);
        logger_->setOutputLevel(oldLevel_);
        Logging::shared()->loggingEnabled(logger_->identifier(), false);
        settle();
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLine> lines() const { return capture_->lines(); }
    /// The messages at `level`, in order.
    std::vector<std::string> messages(LogLevel level) const {
        std::vector<std::string> result;
        for (const auto& line : capture_->lines()) {
            if (line.level == level) result.push_back(line.message);
        }
        return result;
    }

 private:
    std::shared_ptr<XCGLogger> logger_;
    std::shared_ptr<CaptureDestination> capture_;
    LogLevel oldLevel_;
};

}  // namespace zdr::testing
