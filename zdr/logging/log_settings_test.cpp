#include "zdr/logging/log_settings.h"

#include <gtest/gtest.h>

#include "zdr/logging/logging.h"
#include "zdr/logging/logging_bridge.h"
#include "zdr/logging/shared2.h"
#include "zdr/logging/testing/test_environment.h"

namespace zdr {
namespace {

TEST(LogSettings, ParsesGroupsNamesAndValues) {
    auto settings = parseLogSettings(" audio , http = on ; dealloc=off;props=Debug;bare;;");
    ASSERT_TRUE(settings.has_value());
    ASSERT_EQ(settings->size(), 4u);
    EXPECT_EQ((*settings)[0].categories, (std::vector<std::string>{"audio", "http"}));
    EXPECT_TRUE((*settings)[0].on);
    EXPECT_FALSE((*settings)[0].level.has_value());
    EXPECT_FALSE((*settings)[1].on);
    EXPECT_TRUE((*settings)[2].on);
    EXPECT_EQ((*settings)[2].level, LogLevel::debug);
    EXPECT_EQ((*settings)[3].categories, (std::vector<std::string>{"bare"}));
    EXPECT_TRUE((*settings)[3].on);
    EXPECT_TRUE(parseLogSettings("")->empty());
}

TEST(LogSettings, RejectsMistakesWithAReason) {
    std::string problem;
    EXPECT_FALSE(parseLogSettings("audio=loud", &problem));
    EXPECT_NE(problem.find("loud"), std::string::npos) << problem;
    EXPECT_FALSE(parseLogSettings("audio,,http", &problem));
    EXPECT_NE(problem.find("missing category name"), std::string::npos);
    EXPECT_FALSE(parseLogSettings("=on", &problem));
    EXPECT_FALSE(parseLogSettings("a=b=on", &problem));
}

TEST(LogSettings, AFailedApplyChangesNothing) {
    Logging::loggerWithID("settings.untouched");
    std::string problem;
    EXPECT_FALSE(applyLogSettings("settings.untouched=on;x=bogus", &problem));
    testing::settle();
    EXPECT_FALSE(Logging::shared()->isLoggingEnabled("settings.untouched"));
}

TEST(LogSettings, SwitchesExistingLoggersAndRemembersUnknownOnes) {
    auto existing = Logging::loggerWithID("settings.existing");
    ASSERT_TRUE(applyLogSettings("settings.existing=info;settings.later=debug;settings.plain"));
    testing::settle();
    EXPECT_TRUE(Logging::shared()->isLoggingEnabled("settings.existing"));
    EXPECT_EQ(existing->outputLevel(), LogLevel::info);
    EXPECT_EQ(existing->destinations().at(0)->outputLevel(), LogLevel::info);

    auto later = Logging::loggerWithID("settings.later");  // made after the setting
    EXPECT_TRUE(later->shouldLog(LogLevel::debug));
    EXPECT_EQ(later->destinations().at(0)->outputLevel(), LogLevel::debug);
    later->debug("now visible");
    auto entries = testing::entriesFor("settings.later");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["PRIORITY"], "7");

    auto plain = Logging::loggerWithID("settings.plain");
    EXPECT_TRUE(plain->shouldLog(LogLevel::error));
    EXPECT_FALSE(plain->shouldLog(LogLevel::info));  // on, at the category's own level
}

TEST(LogSettings, StarCoversTheLibraryCategories) {
    ASSERT_TRUE(applyLogSettings("*=on"));
    testing::settle();
    EXPECT_TRUE(Shared2::geometry()->shouldLog(LogLevel::error));
    EXPECT_TRUE(Logging::shared()->isLoggingEnabled("dealloc"));
    ASSERT_TRUE(applyLogSettings("*=off"));
    testing::settle();
    EXPECT_FALSE(Shared2::geometry()->shouldLog(LogLevel::error));
}

TEST(LogSettings, TheEnvironmentVariableIsReadWhenTheFacadeIsMade) {
    // The test program sets ZDR_LOG="env.category=warning" before first use.
    testing::settle();
    EXPECT_TRUE(Logging::shared()->isLoggingEnabled("env.category"));
    auto logger = Logging::loggerWithID("env.category");
    EXPECT_EQ(logger->outputLevel(), LogLevel::warning);
}

}  // namespace
}  // namespace zdr
