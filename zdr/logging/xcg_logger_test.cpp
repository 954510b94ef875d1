#include "zdr/logging/xcg_logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "zdr/logging/console_destination.h"
#include "zdr/logging/testing/test_environment.h"

namespace zdr {
namespace {

using testing::CaptureDestination;

struct Fixture {
    std::shared_ptr<XCGLogger> logger = XCGLogger::make("core", false);
    std::shared_ptr<CaptureDestination> capture = std::make_shared<CaptureDestination>("capture");
    Fixture() { logger->add(capture); }
};

class SwitchFilter : public FilterProtocol {
 public:
    explicit SwitchFilter(bool early) : early_(early) {}
    bool shouldExclude(const LogDetails& d, std::string_view message) const override {
        ++asked;
        std::lock_guard lock(mutex);
        lastMessage = std::string(message);
        lastLevel = d.level;
        return !pass.load();
    }
    bool decidesBeforeMessage() const override { return early_; }
    mutable std::mutex mutex;
    mutable std::atomic<int> asked{0};
    mutable std::string lastMessage;
    mutable LogLevel lastLevel = LogLevel::none;
    std::atomic<bool> pass{true};

 private:
    bool early_;
};

TEST(LogLevel, OrderNamesAndLookUp) {
    EXPECT_LT(LogLevel::verbose, LogLevel::debug);
    EXPECT_LT(LogLevel::warning, LogLevel::error);
    EXPECT_LT(LogLevel::emergency, LogLevel::none);
    EXPECT_EQ(logLevelDescription(LogLevel::warning), "Warning");
    EXPECT_EQ(logLevelNamed("SEVERE"), LogLevel::severe);
    EXPECT_EQ(logLevelNamed("loud"), std::nullopt);
}

TEST(XCGLogger, MessagesPassBothOutputLevelsAndNoneNeverPasses) {
    Fixture f;
    f.logger->setOutputLevel(LogLevel::info);
    f.capture->setOutputLevel(LogLevel::warning);
    f.logger->debug("below logger");
    f.logger->info("below destination");
    f.logger->warning("passes");
    f.logger->logln("none level", LogLevel::none);
    f.logger->setOutputLevel(LogLevel::none);
    f.logger->emergency("output level none");
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "passes");
    EXPECT_EQ(lines[0].level, LogLevel::warning);
}

TEST(XCGLogger, MessageIsBuiltOnlyWhenItWillBeWritten) {
    Fixture f;
    auto filter = std::make_shared<SwitchFilter>(true);
    f.logger->setFilters({filter});
    f.logger->setOutputLevel(LogLevel::info);
    int built = 0;
    auto closure = [&] {
        ++built;
        return std::string("built");
    };
    f.logger->debug(closure);  // below level
    filter->pass = false;
    f.logger->error(closure);  // excluded by an early filter
    EXPECT_EQ(built, 0);
    EXPECT_EQ(filter->asked.load(), 1);
    EXPECT_EQ(filter->lastMessage, "");  // asked before the message existed
    filter->pass = true;
    f.logger->error(closure);
    EXPECT_EQ(built, 1);
    ASSERT_EQ(f.capture->lines().size(), 1u);
}

TEST(XCGLogger, LateFiltersSeeTheMessage) {
    Fixture f;
    auto filter = std::make_shared<SwitchFilter>(false);
    f.logger->setFilters({filter, nullptr});
    EXPECT_EQ(f.logger->filters().size(), 1u);
    f.logger->info("value {}", 5);
    EXPECT_EQ(filter->lastMessage, "value 5");
    EXPECT_EQ(filter->lastLevel, LogLevel::info);
    filter->pass = false;
    f.logger->info("dropped");
    EXPECT_EQ(f.capture->lines().size(), 1u);
}

TEST(XCGLogger, AnOptionalClosureResultOfNullWritesNothing) {
    Fixture f;
    f.logger->info([]() -> std::optional<std::string> { return std::nullopt; });
    f.logger->info([]() -> std::optional<std::string> { return "some"; });
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "some");
}

TEST(XCGLogger, FailuresWhileBuildingOrWritingNeverReachTheCaller) {
    Fixture f;
    struct Throwing : BaseQueuedDestination {
        using BaseQueuedDestination::BaseQueuedDestination;
        void write(std::string_view) override { throw std::runtime_error("disk gone"); }
    };
    f.logger->add(std::make_shared<Throwing>("throwing"));
    EXPECT_NO_THROW(f.logger->info([]() -> std::string { throw std::runtime_error("no"); }));
    EXPECT_NO_THROW(f.logger->info("written {}", 1));
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 1u);  // the capture still got the good line
    EXPECT_EQ(lines[0].message, "written 1");
}

TEST(XCGLogger, LoggingFromInsideAMessageClosureWritesBoth) {
    Fixture f;
    f.logger->info([&] {
        f.logger->info("inner");
        return std::string("outer");
    });
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "inner");
    EXPECT_EQ(lines[1].message, "outer");
}

TEST(XCGLogger, CapturesTheCallersSourceLocation) {
    Fixture f;
    f.logger->info("here");
    const long line = __LINE__ - 1;
    f.logger->logln("explicit", LogLevel::info, "fn()", "/a/b/file.m", 77);
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].lineNumber, line);
    EXPECT_NE(lines[0].file.find("xcg_logger_test.cpp"), std::string::npos);
    EXPECT_NE(lines[0].function.find("TestBody"), std::string::npos);
    EXPECT_NE(lines[1].line.find("[file.m:77] fn() > explicit"), std::string::npos)
        << lines[1].line;
}

TEST(BaseDestination, ShowOptionsShapeTheLine) {
    Fixture f;
    f.capture->setShowDate(false);
    f.capture->setShowThreadName(true);
    f.capture->setShowLogIdentifier(true);
    f.logger->logln("msg", LogLevel::notice, "func()", "/x/y.cpp", 9);
    f.capture->setShowFileName(false);
    f.capture->setShowFunctionName(false);
    f.capture->setShowLevel(false);
    f.capture->setShowThreadName(false);
    f.capture->setShowLogIdentifier(false);
    f.logger->logln("msg", LogLevel::notice, "func()", "/x/y.cpp", 9);
    f.capture->setShowLineNumber(false);
    f.capture->setShowDate(true);
    f.logger->logln("msg", LogLevel::notice, "func()", "/x/y.cpp", 9);
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].line, "[Notice] [core] [main] [y.cpp:9] func() > msg");
    EXPECT_EQ(lines[1].line, "[9] > msg");
    // "yyyy-MM-dd HH:mm:ss.SSS > msg"
    ASSERT_EQ(lines[2].line.size(), 23u + 6u) << lines[2].line;
    EXPECT_EQ(lines[2].line[4], '-');
    EXPECT_EQ(lines[2].line[10], ' ');
    EXPECT_EQ(lines[2].line[19], '.');
    EXPECT_EQ(lines[2].line.substr(23), " > msg");
}

TEST(BaseDestination, ThreadNameIsTheQueueLabelOnAQueue) {
    Fixture f;
    f.capture->setShowThreadName(true);
    DispatchQueue queue("com.example.worker");
    auto item = DispatchWorkItem::make([&] { f.logger->info("on queue"); });
    queue.async(item);
    item->wait();
    std::thread([&] { f.logger->info("plain thread"); }).join();
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].line.find("[com.example.worker]"), std::string::npos) << lines[0].line;
    EXPECT_EQ(lines[1].line.find("[main]"), std::string::npos) << lines[1].line;
}

TEST(XCGLogger, DestinationsAreFoundAddedAndRemoved) {
    auto logger = XCGLogger::make("with.console");
    auto console = logger->destination(XCGLogger::baseConsoleDestinationIdentifier);
    ASSERT_NE(console, nullptr);
    EXPECT_NE(dynamic_cast<ConsoleDestination*>(console.get()), nullptr);
    EXPECT_FALSE(logger->add(console));
    EXPECT_FALSE(logger->add(nullptr));
    EXPECT_TRUE(logger->removeDestination(XCGLogger::baseConsoleDestinationIdentifier));
    EXPECT_EQ(logger->destination(XCGLogger::baseConsoleDestinationIdentifier), nullptr);
    EXPECT_FALSE(logger->remove(console));
    EXPECT_EQ(XCGLogger::defaultLogger(), XCGLogger::defaultLogger());
}

TEST(ConsoleDestination, WritesOneLinePerMessage) {
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    auto logger = XCGLogger::make("console.test");
    auto console = std::static_pointer_cast<ConsoleDestination>(
        logger->destination(XCGLogger::baseConsoleDestinationIdentifier));
    console->setStream(file);
    console->setShowDate(false);
    logger->info("one");
    logger->warning("two {}", 2);
    std::fflush(file);
    std::rewind(file);
    char buffer[4096] = {};
    std::string text(buffer, std::fread(buffer, 1, sizeof buffer - 1, file));
    std::fclose(file);
    EXPECT_NE(text.find("[Info] [xcg_logger_test.cpp:"), std::string::npos) << text;
    EXPECT_NE(text.find("> one\n"), std::string::npos);
    EXPECT_NE(text.find("> two 2\n"), std::string::npos);
}

TEST(BaseQueuedDestination, WritesOnItsLogQueueInOrder) {
    auto logger = XCGLogger::make("queued", false);
    struct Recorder : BaseQueuedDestination {
        using BaseQueuedDestination::BaseQueuedDestination;
        void write(std::string_view message) override {
            std::lock_guard lock(mutex);
            labels.push_back(DispatchQueue::currentLabel().value_or(""));
            messages.emplace_back(message);
        }
        std::mutex mutex;
        std::vector<std::string> labels, messages;
    };
    auto recorder = std::make_shared<Recorder>("recorder");
    recorder->setShowDate(false);
    DispatchQueue queue("com.example.logqueue");
    recorder->setLogQueue(queue);
    logger->add(recorder);
    for (int i = 0; i < 20; ++i) logger->info("n{}", i);
    queue.sync([] {});
    std::lock_guard lock(recorder->mutex);
    ASSERT_EQ(recorder->messages.size(), 20u);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(recorder->labels[i], "com.example.logqueue");
        EXPECT_TRUE(recorder->messages[i].ends_with("> n" + std::to_string(i)));
    }
}

TEST(XCGLogger, ConcurrentLoggingWhileReconfiguring) {
    Fixture f;
    f.capture->setShowThreadName(true);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) f.logger->info("t{} i{}", t, i);
        });
    }
    std::thread changer([&] {
        int round = 0;
        while (!stop.load()) {
            auto extra = std::make_shared<CaptureDestination>("extra" + std::to_string(round));
            f.logger->add(extra);
            f.logger->setFilters({std::make_shared<SwitchFilter>(round % 2 == 0)});
            f.logger->remove(extra);
            f.capture->setShowLevel(round % 2 == 0);
            ++round;
        }
    });
    for (auto& w : writers) w.join();
    stop = true;
    changer.join();
    EXPECT_EQ(f.capture->lines().size(), 900u);
}

}  // namespace
}  // namespace zdr
