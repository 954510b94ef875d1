#include "zdr/logging/app_log.h"

#include <gtest/gtest.h>

#include "zdr/logging/logging.h"
#include "zdr/logging/testing/test_environment.h"

extern "C" void zdr_test_log_from_c(const char* loggerName);
extern "C" void zdr_test_log_bad_formats_from_c(const char* loggerName);

namespace zdr {
namespace {

using testing::entriesFor;

std::string messageText(testing::JournalEntry& e) {
    auto& m = e["MESSAGE"];
    auto arrow = m.find("> ");
    return arrow == std::string::npos ? m : m.substr(arrow + 2);
}

void switchOnAtVerbose(const std::string& id) {
    auto logger = Logging::loggerWithID(id);
    logger->setOutputLevel(LogLevel::verbose);
    for (const auto& d : logger->destinations()) d->setOutputLevel(LogLevel::verbose);
    Logging::shared()->loggingEnabled(id, true);
    testing::settle();
}

TEST(AppLog, FormatsLevelsAndCodeLocation) {
    switchOnAtVerbose("app");
    switchOnAtVerbose("c.caller2");
    zdr_test_log_from_c("c.caller2");
    std::vector<testing::JournalEntry> app, other;
    for (auto& e : testing::journal().drain()) {
        if (e["ZDR_CATEGORY"] == "app") app.push_back(e);
        if (e["ZDR_CATEGORY"] == "c.caller2") other.push_back(e);
    }
    ASSERT_EQ(app.size(), 1u);
    EXPECT_EQ(messageText(app[0]), "app says 42 and hi");
    EXPECT_EQ(app[0]["CODE_FUNC"], "zdr_test_log_from_c");
    EXPECT_NE(app[0]["CODE_FILE"].find("app_log_test.c"), std::string::npos);
    EXPECT_EQ(app[0]["PRIORITY"], "3");

    ASSERT_EQ(other.size(), 4u);  // levels 0 and 6 are none: never written
    EXPECT_EQ(messageText(other[0]), "text|objc| 3.14|ff|z|%|123456789");
    EXPECT_EQ(messageText(other[1]), "null: (null) (null)");
    EXPECT_EQ(messageText(other[2]), "level four");
    EXPECT_NE(other[2]["MESSAGE"].find("[Verbose]"), std::string::npos);
    EXPECT_EQ(messageText(other[3]), "level five");
    EXPECT_NE(other[3]["MESSAGE"].find("[Debug]"), std::string::npos);
    EXPECT_EQ(other[3]["PRIORITY"], "7");
}

TEST(AppLog, BadFormatsNeverCrashAndStayReadable) {
    switchOnAtVerbose("c.bad");
    zdr_test_log_bad_formats_from_c("c.bad");
    auto entries = entriesFor("c.bad");
    ASSERT_EQ(entries.size(), 6u);
    EXPECT_EQ(messageText(entries[0]), "trailing %");
    EXPECT_EQ(messageText(entries[1]), "unknown %y here");
    EXPECT_EQ(messageText(entries[2]), "positional %1$d");
    EXPECT_EQ(messageText(entries[3]), "count done");
    EXPECT_EQ(messageText(entries[4]), "[   7] [a  ] [ab]");
    EXPECT_EQ(messageText(entries[5]).size(), std::string("wide ").size() + 4096);
}

TEST(AppLog, CategoryOffFormatsNothingAndWritesNothing) {
    Logging::loggerWithID("c.off");
    __AppLogWith("c.off", 1, "%s", "f", "file.c", 1, "never");
    EXPECT_TRUE(entriesFor("c.off").empty());
}

}  // namespace
}  // namespace zdr
