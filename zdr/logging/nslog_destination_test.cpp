#include "zdr/logging/nslog_destination.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>

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
    // "yyyy-MM-dd HH:mm:ss.SSS logging_tests[pid:tid] " then the line.
    ASSERT_GT(text.size(), 24u) << text;
    for (std::size_t i :
         {0u, 1u, 2u, 3u, 5u, 6u, 8u, 9u, 11u, 12u, 14u, 15u, 17u, 18u, 20u, 21u, 22u}) {
        EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(text[i]))) << i << " in " << text;
    }
    EXPECT_EQ(text.substr(23, 15), " logging_tests[") << text;
    // Built piece by piece: "[" + std::string&& trips GCC 12's -Wrestrict at -O3.
    std::string ids = "[";
    ids += std::to_string(::getpid());
    ids += ':';
    EXPECT_EQ(text.find(ids), 37u) << text;
    auto close = text.find("] ", 37);
    ASSERT_NE(close, std::string::npos);
    EXPECT_EQ(text.substr(close + 2), "[Info] [file.cpp:3] fn() > 50% done, %d left\n");
}

}  // namespace
}  // namespace zdr
