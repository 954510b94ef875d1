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

// A call site that logs repeatedly has its line prefix remembered per thread;
// every input to that prefix must still show through.
TEST(BaseDestination, RepeatedCallSitesStillFollowLevelOptionsAndThread) {
    Fixture f;
    f.capture->setShowDate(false);
    f.capture->setShowThreadName(true);
    auto site = [&](LogLevel level, int n) { f.logger->log(level, "n={}", n); };
    const long siteLine = __LINE__ - 1;
    const std::string at = "[xcg_logger_test.cpp:" + std::to_string(siteLine) + "] ";
    site(LogLevel::info, 1);
    site(LogLevel::info, 2);
    site(LogLevel::error, 3);
    f.capture->setShowFunctionName(false);
    site(LogLevel::error, 4);
    f.capture->setShowLogIdentifier(true);
    site(LogLevel::error, 5);
    f.capture->setShowLogIdentifier(false);
    // Two sites taking turns, and more sites than the thread remembers.
    for (int i = 0; i < 3; ++i) {
        f.logger->warning("a{}", i);
        f.logger->warning("b{}", i);
    }
    for (int i = 0; i < 20; ++i) f.logger->log(LogLevel::info, "m{}", i);
    // One thread (not the main one, which is always "main") running work for
    // two queues shows each label in turn.
    DispatchQueue outer("com.example.outer");
    DispatchQueue inner("com.example.inner");
    std::thread([&] {
        outer.sync([&] {
            site(LogLevel::info, 6);
            inner.sync([&] { site(LogLevel::info, 7); });
            site(LogLevel::info, 8);
        });
    }).join();

    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 5u + 6u + 20u + 3u);
    const std::string function = lines[0].function;
    EXPECT_EQ(lines[0].line, "[Info] [main] " + at + function + " > n=1");
    EXPECT_EQ(lines[1].line, "[Info] [main] " + at + function + " > n=2");
    EXPECT_EQ(lines[2].line, "[Error] [main] " + at + function + " > n=3");
    EXPECT_EQ(lines[3].line, "[Error] [main] " + at + "> n=4");
    EXPECT_EQ(lines[4].line, "[Error] [core] [main] " + at + "> n=5");
    for (int i = 0; i < 3; ++i) {
        const auto& a = lines[5 + 2 * i];
        const auto& b = lines[6 + 2 * i];
        EXPECT_EQ(b.lineNumber, a.lineNumber + 1);
        EXPECT_NE(a.line.find(":" + std::to_string(a.lineNumber) + "] > a" + std::to_string(i)),
                  std::string::npos)
            << a.line;
        EXPECT_NE(b.line.find(":" + std::to_string(b.lineNumber) + "] > b" + std::to_string(i)),
                  std::string::npos)
            << b.line;
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(lines[11 + i].line.substr(0, 14), "[Info] [main] ");
        EXPECT_TRUE(lines[11 + i].line.ends_with("> m" + std::to_string(i)));
    }
    const std::size_t queued = 31;
    EXPECT_EQ(lines[queued].line.find("[Info] [com.example.outer] "), 0u) << lines[queued].line;
    EXPECT_EQ(lines[queued + 1].line.find("[Info] [com.example.inner] "), 0u)
        << lines[queued + 1].line;
    EXPECT_EQ(lines[queued + 2].line.find("[Info] [com.example.outer] "), 0u)
        << lines[queued + 2].line;
}

// Names given at run time may be rewritten in place between calls; their
// address says nothing about their text.
TEST(BaseDestination, RuntimeNamesAreReadAfreshEveryTime) {
    Fixture f;
    f.capture->setShowDate(false);
    std::string function = "first()";
    std::string file = "/src/aaaa.cpp";
    f.logger->logln("one", LogLevel::info, function, file, 5);
    function[0] = 'F';
    file.replace(5, 4, "bbbb");
    f.logger->logln("two", LogLevel::info, function, file, 5);
    auto lines = f.capture->lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].line, "[Info] [aaaa.cpp:5] first() > one");
    EXPECT_EQ(lines[1].line, "[Info] [bbbb.cpp:5] First() > two");
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
