#include "zdr/logging/nslog_destination.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "zdr/logging/testing/stderr_capture.h"
#include "zdr/logging/xcg_logger.h"

namespace zdr {
namespace {

TEST(NSLogDestination, WritesNSLogStyleLinesToStandardError) {
    auto destination = std::make_shared<NSLogDestination>("nslog");
    destination->setShowDate(true);
    EXPECT_FALSE(destination->showDate());
    auto logger = XCGLogger::make("nslog", false);
    logger->add(destination);
    testing::StderrCapture capture;
    logger->logln("50%% done, %d left", LogLevel::info, "fn()", "/x/file.cpp", 3);
    std::string text = capture.text();
    std::regex line(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} logging_tests\[(\d+):\d+\] )"
                    R"(\[Info\] \[file\.cpp:3\] fn\(\) > 50% done, %d left\n$)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, line)) << text;
    EXPECT_EQ(match[1].str(), std::to_string(::getpid()));
}

}  // namespace
}  // namespace zdr
