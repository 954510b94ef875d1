#include "zdr/logging/logging.h"

#include <gtest/gtest.h>

#include <ctime>
#include <stdexcept>
#include <thread>

#include "zdr/logging/logging_bridge.h"
#include "zdr/logging/nslog_destination.h"
#include "zdr/logging/os_log_destination.h"
#include "zdr/logging/shared2.h"
#include "zdr/logging/testing/test_environment.h"
#include "zdr/runtime/notification_center.h"
#include "zdr/timing/timing_log.h"

namespace zdr {
namespace {

using testing::entriesFor;
using testing::settle;

std::shared_ptr<XCGLogger> switchedOn(const std::string& id, LogLevel level = LogLevel::verbose) {
    auto logger = Logging::loggerWithID(id);
    logger->setOutputLevel(level);
    for (const auto& d : logger->destinations()) d->setOutputLevel(level);
    Logging::shared()->loggingEnabled(id, true);
    settle();
    return logger;
}

TEST(CategoryLogger, IsSilentUntilSwitchedOnThenReachesTheJournalWithItsFields) {
    auto logger = Logging::loggerWithID("cat.silent");
    for (auto level : {LogLevel::verbose, LogLevel::info, LogLevel::error, LogLevel::emergency}) {
        logger->logln("not yet", level);
    }
    EXPECT_TRUE(entriesFor("cat.silent").empty());

    Logging::shared()->loggingEnabled("cat.silent", true);
    settle();
    logger->error("disk {} is full", "sda");
    const int line = __LINE__ - 1;
    auto entries = entriesFor("cat.silent");
    ASSERT_EQ(entries.size(), 1u);
    auto& e = entries[0];
    EXPECT_NE(e["MESSAGE"].find("[Error]"), std::string::npos) << e["MESSAGE"];
    EXPECT_NE(e["MESSAGE"].find("[logging_test.cpp:" + std::to_string(line) + "]"),
              std::string::npos)
        << e["MESSAGE"];
    EXPECT_NE(e["MESSAGE"].find("> disk sda is full"), std::string::npos) << e["MESSAGE"];
    EXPECT_EQ(e["PRIORITY"], "3");
    EXPECT_EQ(e["SYSLOG_IDENTIFIER"], "com.tallpinecraft");
    EXPECT_EQ(e["ZDR_SUBSYSTEM"], "com.tallpinecraft");
    EXPECT_EQ(e["CODE_LINE"], std::to_string(line));
    EXPECT_NE(e["CODE_FILE"].find("logging_test.cpp"), std::string::npos);
    EXPECT_NE(e["CODE_FUNC"].find("TestBody"), std::string::npos);

    Logging::shared()->loggingEnabled("cat.silent", false);
    settle();
    logger->error("off again");
    EXPECT_TRUE(entriesFor("cat.silent").empty());
}

TEST(CategoryLogger, StartsAtErrorSoLowerLevelsNeedALowerOutputLevel) {
    auto logger = Logging::loggerWithID("cat.levels");
    EXPECT_EQ(logger->outputLevel(), LogLevel::error);
    Logging::shared()->loggingEnabled("cat.levels", true);
    settle();
    logger->info("hidden");
    logger->error("shown");
    auto entries = entriesFor("cat.levels");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_NE(entries[0]["MESSAGE"].find("shown"), std::string::npos);
}

TEST(CategoryLogger, JournalPrioritiesFollowTheTypeTable) {
    auto logger = switchedOn("cat.priorities");
    struct Case {
        LogLevel level;
        const char* priority;
    } cases[] = {{LogLevel::verbose, "7"}, {LogLevel::debug, "7"},   {LogLevel::info, "6"},
                 {LogLevel::notice, "5"},  {LogLevel::warning, "3"}, {LogLevel::error, "3"},
                 {LogLevel::severe, "5"},  {LogLevel::alert, "5"},   {LogLevel::emergency, "5"}};
    for (const auto& c : cases) logger->logln(logLevelDescription(c.level), c.level);
    auto entries = entriesFor("cat.priorities");
    ASSERT_EQ(entries.size(), std::size(cases));
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i]["PRIORITY"], cases[i].priority) << entries[i]["MESSAGE"];
        EXPECT_NE(entries[i]["MESSAGE"].find(
                      std::string("[") + std::string(logLevelDescription(cases[i].level)) + "]"),
                  std::string::npos);
    }
}

TEST(CategoryLogger, MultiLineAndInvalidUtf8MessagesArriveIntact) {
    auto logger = switchedOn("cat.text");
    logger->logln("first\nsecond\n", LogLevel::error);
    logger->logln(std::string("bad \xC3\x28 byte \xFF end"), LogLevel::error);
    auto entries = entriesFor("cat.text");
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_NE(entries[0]["MESSAGE"].find("> first\nsecond\n"), std::string::npos);
    EXPECT_NE(entries[1]["MESSAGE"].find("bad \xEF\xBF\xBD( byte \xEF\xBF\xBD end"),
              std::string::npos)
        << entries[1]["MESSAGE"];
}

TEST(CategoryLogger, ALargeEntryTravelsAsAMemoryFile) {
    auto logger = switchedOn("cat.large");
    std::string big(300 * 1024, 'x');
    int before = testing::journal().passedDescriptors();
    logger->logln(big, LogLevel::error);
    auto entries = entriesFor("cat.large");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_NE(entries[0]["MESSAGE"].find(big), std::string::npos);
    EXPECT_EQ(testing::journal().passedDescriptors(), before + 1);
}

TEST(LoggingFacade, MasterSwitchOverridesTheTableAndRestoresIt) {
    switchedOn("cat.master");
    auto& facade = *Logging::shared();
    EXPECT_TRUE(facade.isLoggingEnabled("cat.master"));
    Logging::setEnabled(false);
    EXPECT_FALSE(facade.isLoggingEnabled("cat.master"));
    Logging::loggerWithID("cat.master")->error("dropped");
    EXPECT_TRUE(entriesFor("cat.master").empty());
    Logging::setEnabled(true);
    EXPECT_TRUE(facade.isLoggingEnabled("cat.master"));
    EXPECT_FALSE(facade.isLoggingEnabled("cat.never.mentioned"));
}

TEST(LoggingFacade, ReplacingTheFacadeSwitchesToItsTable) {
    auto logger = switchedOn("cat.replaced");
    auto original = Logging::shared();
    auto fresh = std::make_shared<Logging>();
    Logging::setShared(fresh);
    EXPECT_EQ(Logging::shared(), fresh);
    EXPECT_FALSE(logger->shouldLog(LogLevel::error));  // the new table has no entry
    fresh->loggingEnabled("cat.replaced", true);
    settle();
    EXPECT_TRUE(logger->shouldLog(LogLevel::error));
    original->loggingEnabled("cat.replaced", false);  // not current: no effect on filters
    (void)original->isLoggingEnabled("cat.replaced");
    EXPECT_TRUE(logger->shouldLog(LogLevel::error));
    Logging::setShared(original);
    EXPECT_FALSE(logger->shouldLog(LogLevel::error));
}

// A host that switches a category and logs at once, on the same thread, must
// see its own switch: the table write is still on its way when the line is
// filtered, in either direction.
TEST(LoggingFacade, TheSwitchingThreadSeesItsOwnSwitchAtOnce) {
    auto logger = Logging::loggerWithID("cat.own.switch");
    logger->removeDestination("cat.own.switch");  // thousands of lines: keep the journal quiet
    auto capture = std::make_shared<testing::CaptureDestination>("own.switch.capture");
    logger->add(capture);
    auto facade = Logging::shared();
    constexpr int kTries = 2000;
    for (int i = 0; i < kTries; ++i) {
        facade->loggingEnabled("cat.own.switch", true);
        logger->error("on {}", i);
        facade->loggingEnabled("cat.own.switch", false);
        logger->error("off {}", i);
    }
    auto lines = capture->lines();
    int on = 0, off = 0;
    for (const auto& line : lines) (line.message.rfind("on ", 0) == 0 ? on : off)++;
    EXPECT_EQ(on, kTries);
    EXPECT_EQ(off, 0);
    settle();
    EXPECT_FALSE(logger->shouldLog(LogLevel::error));  // settled: the fast path is off again
}

TEST(LoggingFacade, LoggerWithIDGivesOneLoggerWithOneDestinationAndOneFilter) {
    auto a = Logging::loggerWithID("cat.same");
    auto b = Logging::loggerWithID("cat.same", true);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a->destinations().size(), 1u);
    ASSERT_EQ(a->filters().size(), 1u);
    EXPECT_EQ(a->filters()[0]->debugDescription(), "Log filter for: cat.same");
    auto destination = a->destinations()[0];
    EXPECT_EQ(destination->identifier(), "cat.same");
    EXPECT_NE(dynamic_cast<OSLogDestination*>(destination.get()), nullptr);
    EXPECT_TRUE(destination->showDate());
    EXPECT_TRUE(destination->showThreadName());
    EXPECT_FALSE(destination->showLogIdentifier());
    EXPECT_EQ(destination->outputLevel(), LogLevel::error);
}

TEST(LoggingFacade, WithoutAJournalTheDestinationIsStandardError) {
    auto saved = OSLogDestination::journalSocketPath();
    OSLogDestination::setJournalSocketPath("/nonexistent/zdr/journal.socket");
    auto logger = Logging::loggerWithID("cat.nojournal");
    OSLogDestination::setJournalSocketPath(saved);
    auto destination = logger->destinations().at(0);
    EXPECT_NE(dynamic_cast<NSLogDestination*>(destination.get()), nullptr);
    destination->setShowDate(true);
    EXPECT_FALSE(destination->showDate());
}

TEST(Shared2, CategoriesCarryTheirIdentifiers) {
    EXPECT_EQ(Shared2::deallocing()->identifier(), "dealloc");
    EXPECT_EQ(Shared2::audio()->identifier(), "audio");
    EXPECT_EQ(Shared2::audioProperties()->identifier(), "audioProperties");
    EXPECT_EQ(&Shared2::timing(), &Shared2::timing());
    EXPECT_EQ(Shared2::http(), Logging::loggerWithID("http"));
    Shared2::accessAllLoggers();
    auto keys = LoggingBridge::loggerKeys();
    for (auto id : detail::kCategoryIdentifiers) {
        EXPECT_NE(std::find(keys.begin(), keys.end(), std::string(id)), keys.end()) << id;
    }
}

TEST(Shared2, EnablingDeallocingByPropertyNameDoesNothing) {
    Logging::shared()->loggingEnabled("deallocing", true);
    settle();
    EXPECT_FALSE(Logging::shared()->isLoggingEnabled(Shared2::deallocing()->identifier()));
    EXPECT_FALSE(Shared2::deallocing()->shouldLog(LogLevel::error));
    Logging::shared()->loggingEnabled("dealloc", true);
    settle();
    EXPECT_TRUE(Shared2::deallocing()->shouldLog(LogLevel::error));
    Logging::shared()->loggingEnabled("dealloc", false);
    settle();
}

TEST(LayerLog, RuntimeReportsReachTheirCategoryOnlyOnceSwitchedOn) {
    (void)Logging::shared();  // installs the writer the runtime reports through
    auto post = [] {
        auto center = NotificationCenter::make();
        auto token = center->addObserver("LayerLogTest", nullptr, std::nullopt,
                                         [](const Notification&) { throw 42; });
        center->post("LayerLogTest", nullptr);
    };
    post();
    settle();
    EXPECT_TRUE(entriesFor("general").empty()) << "silent while the category is off";

    switchedOn("general");
    post();
    detail::timingLog(2, "a timing line", "TestBody", __FILE__, __LINE__);
    settle();
    auto general = entriesFor("general");
    ASSERT_EQ(general.size(), 1u);
    EXPECT_NE(general[0]["MESSAGE"].find("An observer of LayerLogTest threw"), std::string::npos)
        << general[0]["MESSAGE"];
    EXPECT_TRUE(entriesFor("timing").empty()) << "timing lines go to their own category";
    Logging::shared()->loggingEnabled("general", false);
    settle();
}

TEST(LoggingFacade, SuggestedLogFilePath) {
    std::tm tm{};
    tm.tm_year = 2024 - 1900;
    tm.tm_mon = 2;
    tm.tm_mday = 5;
    tm.tm_hour = 14;
    tm.tm_min = 7;
    tm.tm_sec = 9;
    tm.tm_isdst = -1;
    auto when = std::chrono::system_clock::from_time_t(std::mktime(&tm));
    EXPECT_EQ(Logging::suggestedLogFilePath("Rec", when, "/home/ann"),
              "/home/ann/Library/Logs/Rec_2024-03-05 14-07-09.log");
}

TEST(LoggingFacade, IterateLoggersReportsStatesAndSurvivesAThrowingBody) {
    switchedOn("cat.iter.on");
    Logging::loggerWithID("cat.iter.off");
    std::map<std::string, bool> seen;
    int calls = 0;
    Logging::shared()->iterateLoggers([&](const std::shared_ptr<XCGLogger>& logger, bool on) {
        ++calls;
        seen[logger->identifier()] = on;
        if (calls == 1) throw std::runtime_error("first body fails");
    });
    EXPECT_EQ(static_cast<std::size_t>(calls), LoggingBridge::loggerKeys().size());
    EXPECT_TRUE(seen.at("cat.iter.on"));
    EXPECT_FALSE(seen.at("cat.iter.off"));

    Logging::shared()->disableAllLoggers();
    settle();
    EXPECT_FALSE(Logging::shared()->isLoggingEnabled("cat.iter.on"));
}

TEST(LoggingBridge, CachedLoggerForIDCreatesOnlyWhenAsked) {
    EXPECT_EQ(LoggingBridge::cachedLoggerForID("bridge.x", false), nullptr);
    auto keys = LoggingBridge::loggerKeys();
    EXPECT_EQ(std::find(keys.begin(), keys.end(), "bridge.x"), keys.end());
    auto bridge = LoggingBridge::cachedLoggerForID("bridge.x", true);
    ASSERT_NE(bridge, nullptr);
    keys = LoggingBridge::loggerKeys();
    EXPECT_NE(std::find(keys.begin(), keys.end(), "bridge.x"), keys.end());
    EXPECT_EQ(LoggingBridge::cachedLoggerForID("bridge.x", false)->logger(), bridge->logger());
    EXPECT_EQ(Logging::loggerWithID("bridge.x"), bridge->logger());
}

TEST(LoggingBridge, SetupKnownLoggersSetsTheFiveLoggers) {
    LoggingBridge::setupKnownLoggers(true);
    for (const char* id : {"audio", "audioProperties", "debug", "audioCapture", ""}) {
        auto bridge = LoggingBridge::cachedLoggerForID(id, false);
        ASSERT_NE(bridge, nullptr) << id;
        EXPECT_EQ(bridge->logger()->outputLevel(), LogLevel::info) << id;
        EXPECT_EQ(bridge->logger()->destinations().at(0)->outputLevel(), LogLevel::error);
    }
    LoggingBridge::setupKnownLoggers(false);
    EXPECT_EQ(LoggingBridge::audio()->logger()->outputLevel(), LogLevel::error);
}

TEST(LoggingBridge, IsLoggingEnabledComparesLevelsOnly) {
    Logging::loggerWithID("bridge.levels");  // output level error, switched off
    EXPECT_FALSE(LoggingBridge::isLoggingEnabled(3, "bridge.levels"));
    EXPECT_TRUE(LoggingBridge::isLoggingEnabled(1, "bridge.levels"));
    EXPECT_TRUE(LoggingBridge::isLoggingEnabled(0, "bridge.levels"));  // none is the highest
}

TEST(LoggingBridge, OldLogCreatesAnUnknownLoggerSwitchedOff) {
    LoggingBridge::__old_log(1, "bridge.old", "hello", "file.m", 12, "fn");
    EXPECT_NE(LoggingBridge::cachedLoggerForID("bridge.old", false), nullptr);
    EXPECT_TRUE(entriesFor("bridge.old").empty());
    Logging::shared()->loggingEnabled("bridge.old", true);
    settle();
    LoggingBridge::__old_log(1, "bridge.old", "hello", "/src/file.m", 12, "fn");
    auto entries = entriesFor("bridge.old");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_NE(entries[0]["MESSAGE"].find("[file.m:12] fn > hello"), std::string::npos)
        << entries[0]["MESSAGE"];
    EXPECT_EQ(entries[0]["CODE_FILE"], "/src/file.m");
}

TEST(LogLevels, IntegerTable) {
    EXPECT_EQ(logLevelFromInteger(1), LogLevel::error);
    EXPECT_EQ(logLevelFromInteger(2), LogLevel::warning);
    EXPECT_EQ(logLevelFromInteger(3), LogLevel::info);
    EXPECT_EQ(logLevelFromInteger(4), LogLevel::verbose);
    EXPECT_EQ(logLevelFromInteger(5), LogLevel::debug);
    for (long other : {0L, -1L, 6L, 1000L}) EXPECT_EQ(logLevelFromInteger(other), LogLevel::none);
}

}  // namespace
}  // namespace zdr

namespace zdr {
namespace {

// Runs main-queue work until `done` or `limit` has passed.
template <class F>
bool pumpMainQueueUntil(F done, std::chrono::milliseconds limit) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        DispatchQueue::main().drain();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

TEST(ThrottledChannels, SendLogPrefixesTheChannelName) {
    std::vector<LogLine> received;
    auto cancellable = Logging::receiveThrottled(
        "x", 0.01, [&](const LogLine& line) { received.push_back(line); });
    Logging::sendLog("x", "hello");
    const long line = __LINE__ - 1;
    ASSERT_TRUE(pumpMainQueueUntil([&] { return !received.empty(); }, std::chrono::seconds(5)));
    EXPECT_EQ(received[0].message, "x:hello");
    EXPECT_EQ(received[0].line, line);
    EXPECT_NE(std::string(received[0].file).find("logging_test.cpp"), std::string::npos);
    EXPECT_EQ(Logging::publisher("x"), Logging::publisher("x"));
}

TEST(ThrottledChannels, ReceiveThrottledFromWritesAtMostOneLineASecond) {
    auto logger = XCGLogger::make("throttled.target", false);
    auto capture = std::make_shared<testing::CaptureDestination>("capture");
    logger->add(capture);
    auto start = std::chrono::steady_clock::now();
    Logging::receiveThrottledFrom("meter", 10.0, logger, LogLevel::info);
    for (int i = 0; i < 5; ++i) Logging::sendLog("meter", "level " + std::to_string(i));
    // The first line goes out at once, the newest of the rest when the
    // one-second window ends (not after the ten seconds asked for).
    ASSERT_TRUE(
        pumpMainQueueUntil([&] { return capture->lines().size() >= 2; }, std::chrono::seconds(5)));
    auto elapsed = std::chrono::steady_clock::now() - start;
    auto lines = capture->lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "meter:level 0");
    EXPECT_EQ(lines[1].message, "meter:level 4");
    EXPECT_EQ(lines[1].level, LogLevel::info);
    EXPECT_GE(elapsed, std::chrono::milliseconds(900));
    EXPECT_LT(elapsed, std::chrono::seconds(5));
}

}  // namespace
}  // namespace zdr
