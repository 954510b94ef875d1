#include "zdr/logging/os_log_destination.h"

#include <gtest/gtest.h>

#include <barrier>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "zdr/logging/detail/journal_socket.h"
#include "zdr/logging/testing/journal_receiver.h"
#include "zdr/logging/testing/stderr_capture.h"
#include "zdr/logging/testing/test_environment.h"
#include "zdr/logging/xcg_logger.h"
#include "zdr/runtime/bundle.h"

namespace zdr {
namespace {

using testing::JournalReceiver;

// Points the journal at `receiver` while it lives.
struct UseJournal {
    explicit UseJournal(const JournalReceiver& receiver)
        : saved(OSLogDestination::journalSocketPath()) {
        OSLogDestination::setJournalSocketPath(receiver.path());
    }
    ~UseJournal() { OSLogDestination::setJournalSocketPath(saved); }
    std::string saved;
};

std::shared_ptr<XCGLogger> loggerWith(std::shared_ptr<OSLogDestination> destination) {
    auto logger = XCGLogger::make("journal.test", false);
    logger->setOutputLevel(LogLevel::verbose);
    destination->setOutputLevel(LogLevel::verbose);
    logger->add(std::move(destination));
    return logger;
}

TEST(JournalEncoding, PlainAndLengthPrefixedFieldsRoundTrip) {
    std::string datagram;
    detail::encodeJournalEntry({{"A", "one"}, {"B", "two\nlines"}, {"C", ""}}, datagram);
    EXPECT_EQ(datagram.substr(0, 6), "A=one\n");
    EXPECT_EQ(datagram.substr(6, 2), "B\n");
    EXPECT_EQ(datagram[8], 9);  // little-endian length
    auto parsed = testing::parseJournalEntry(datagram);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ((*parsed)["A"], "one");
    EXPECT_EQ((*parsed)["B"], "two\nlines");
    EXPECT_EQ((*parsed)["C"], "");
}

TEST(JournalEncoding, InvalidUtf8IsReplaced) {
    std::string out;
    detail::appendValidUtf8("ok \xE2\x82\xAC \xC0\xAF \xED\xA0\x80 \xF4\x90\x80\x80 \xE2\x82", out);
    EXPECT_EQ(out,
              "ok \xE2\x82\xAC \xEF\xBF\xBD\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD "
              "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(OSLogDestination, SubsystemIsTheBundleIdentifierElseTallpinecraft) {
    Bundle::main().setInfo(kCFBundleIdentifierKey, "com.example.rec");
    auto withBundle = std::make_shared<OSLogDestination>("audio");
    Bundle::main().setInfo(kCFBundleIdentifierKey, std::nullopt);
    auto without = std::make_shared<OSLogDestination>("audio");
    EXPECT_EQ(withBundle->subsystem(), "com.example.rec");
    EXPECT_EQ(withBundle->category(), "audio");
    EXPECT_EQ(without->subsystem(), "com.tallpinecraft");

    JournalReceiver receiver;
    UseJournal use(receiver);
    loggerWith(withBundle)->info("hello");
    auto entry = receiver.receive();
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ((*entry)["SYSLOG_IDENTIFIER"], "com.example.rec");
    EXPECT_EQ((*entry)["ZDR_SUBSYSTEM"], "com.example.rec");
    EXPECT_EQ((*entry)["ZDR_CATEGORY"], "audio");
    EXPECT_EQ((*entry)["PRIORITY"], "6");
}

TEST(OSLogDestination, DateIsAlwaysShownAndTeardownIsAnnounced) {
    auto destination = std::make_shared<OSLogDestination>("teardown.test");
    destination->setShowDate(false);
    EXPECT_TRUE(destination->showDate());
    EXPECT_EQ(destination->nextLogLevel(), LogLevel::none);
    ::testing::internal::CaptureStdout();
    destination.reset();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Deinit OSLogDestination for teardown.test\n");
}

TEST(OSLogDestination, WriteAloneUsesTheLastLevel) {
    JournalReceiver receiver;
    UseJournal use(receiver);
    auto destination = std::make_shared<OSLogDestination>("write.alone");
    auto logger = loggerWith(destination);
    logger->warning("through output");
    destination->write("bare line");
    auto first = receiver.receive();
    auto second = receiver.receive();
    ASSERT_TRUE(first && second);
    EXPECT_EQ((*second)["MESSAGE"], "bare line");
    EXPECT_EQ((*second)["PRIORITY"], "3");  // warning, as the last line
    EXPECT_EQ(second->count("CODE_LINE"), 0u);
}

TEST(OSLogDestination, AVanishedJournalDropsLinesWithOneNoteAndRecovers) {
    JournalReceiver receiver;
    UseJournal use(receiver);
    auto logger = loggerWith(std::make_shared<OSLogDestination>("vanish"));
    receiver.vanish();
    testing::StderrCapture capture;
    for (int i = 0; i < 5; ++i) logger->error("lost {}", i);
    std::string text = capture.text();
    EXPECT_EQ(text.find("is gone"), text.rfind("is gone")) << text;  // once
    EXPECT_NE(text.find("is gone"), std::string::npos) << text;

    receiver.rebind();
    logger->error("back");
    auto entry = receiver.receive();
    ASSERT_TRUE(entry.has_value());
    EXPECT_NE((*entry)["MESSAGE"].find("back"), std::string::npos);
}

TEST(OSLogDestination, AFullJournalNeverBlocksTheCaller) {
    JournalReceiver receiver;
    receiver.shrinkBuffer();
    UseJournal use(receiver);
    auto logger = loggerWith(std::make_shared<OSLogDestination>("full"));
    testing::StderrCapture capture;
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 2000; ++i) logger->error("line {} {}", i, std::string(200, 'x'));
    auto elapsed = std::chrono::steady_clock::now() - start;
    std::string text = capture.text();
    EXPECT_LT(elapsed, std::chrono::seconds(10));
    EXPECT_NE(text.find("not keeping up"), std::string::npos) << text;
    EXPECT_EQ(text.find("not keeping up"), text.rfind("not keeping up"));
    auto received = receiver.drain(std::chrono::milliseconds(50));
    EXPECT_GT(received.size(), 0u);
    EXPECT_LT(received.size(), 2000u);
}

TEST(OSLogDestination, WritesOnItsLogQueueWithTheLineItsOwnLevel) {
    JournalReceiver receiver;
    UseJournal use(receiver);
    auto destination = std::make_shared<OSLogDestination>("queued.journal");
    DispatchQueue queue("com.example.journal");
    destination->setLogQueue(queue);
    auto logger = loggerWith(destination);
    logger->debug("d");
    logger->error("e");
    queue.sync([] {});
    auto first = receiver.receive();
    auto second = receiver.receive();
    ASSERT_TRUE(first && second);
    EXPECT_EQ((*first)["PRIORITY"], "7");
    EXPECT_EQ((*second)["PRIORITY"], "3");
}

// A destination that keeps what reaches write() and, when asked, passes it
// on to the journal as the base class would.
class RecordingJournalDestination : public OSLogDestination {
 public:
    RecordingJournalDestination(std::string identifier, bool forward)
        : OSLogDestination(std::move(identifier)), forward_(forward) {}
    void write(std::string_view message) override {
        {
            std::lock_guard lock(mutex_);
            written_.emplace_back(message);
        }
        if (forward_) OSLogDestination::write(message);
    }
    std::vector<std::string> written() const {
        std::lock_guard lock(mutex_);
        return written_;
    }

 private:
    const bool forward_;
    mutable std::mutex mutex_;
    std::vector<std::string> written_;
};

TEST(OSLogDestination, ASubclassThatOverridesWriteSeesEveryFormattedLine) {
    JournalReceiver receiver;
    UseJournal use(receiver);
    auto destination = std::make_shared<RecordingJournalDestination>("override.write", false);
    auto logger = loggerWith(destination);
    logger->info("first {}", 1);
    logger->error("second");
    auto written = destination->written();
    ASSERT_EQ(written.size(), 2u);
    EXPECT_NE(written[0].find("[Info]"), std::string::npos) << written[0];
    EXPECT_NE(written[0].find("> first 1"), std::string::npos) << written[0];
    EXPECT_NE(written[1].find("> second"), std::string::npos) << written[1];
    EXPECT_EQ(destination->nextLogLevel(), LogLevel::error);
    // The override did not pass the lines on, so the journal saw none.
    EXPECT_FALSE(receiver.receive(std::chrono::milliseconds(50)).has_value());
}

TEST(OSLogDestination, AnOverrideThatForwardsKeepsEachLinesOwnPriorityAcrossThreads) {
    JournalReceiver receiver;
    UseJournal use(receiver);
    auto destination = std::make_shared<RecordingJournalDestination>("override.threads", true);
    auto logger = loggerWith(destination);
    const LogLevel levels[] = {LogLevel::debug, LogLevel::info, LogLevel::warning,
                               LogLevel::notice};
    // Rounds in which the four threads log one line each, released together;
    // between rounds this thread takes the lines off the journal socket, whose
    // queue holds only a few datagrams.
    constexpr int kThreads = 4, kRounds = 50;
    std::barrier start(kThreads + 1), done(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                start.arrive_and_wait();
                logger->log(levels[t], "thread {} line {}", t, i);
                done.arrive_and_wait();
            }
        });
    }
    std::vector<testing::JournalEntry> entries;
    for (int i = 0; i < kRounds; ++i) {
        start.arrive_and_wait();
        done.arrive_and_wait();
        for (int k = 0; k < kThreads; ++k) {
            if (auto entry = receiver.receive()) entries.push_back(std::move(*entry));
        }
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(destination->written().size(), std::size_t{kThreads * kRounds});
    ASSERT_EQ(entries.size(), std::size_t{kThreads * kRounds});
    for (auto& entry : entries) {
        const std::string& message = entry["MESSAGE"];
        auto at = message.find("> thread ");
        ASSERT_NE(at, std::string::npos) << message;
        int t = message[at + 9] - '0';
        ASSERT_TRUE(t >= 0 && t < kThreads) << message;
        EXPECT_EQ(entry["PRIORITY"], std::to_string(OSLogDestination::priorityFor(levels[t])))
            << message;
        EXPECT_FALSE(entry["CODE_LINE"].empty()) << message;  // the caller's place travels too
    }
}

TEST(OSLogDestination, HostileBundleIdentifiersAreCleanedInTheSubsystemFields) {
    // Invalid UTF-8, a newline that would split a plain field, and other
    // control characters.
    Bundle::main().setInfo(kCFBundleIdentifierKey,
                           std::string("com.evil\xC0\xAF\nPRIORITY=0\x01\x7F.app\xE2\x82"));
    auto destination = std::make_shared<OSLogDestination>("hostile\ncategory\xFF");
    Bundle::main().setInfo(kCFBundleIdentifierKey, std::nullopt);
    JournalReceiver receiver;
    UseJournal use(receiver);
    loggerWith(destination)->error("hello");
    auto entry = receiver.receive();
    ASSERT_TRUE(entry.has_value());
    for (const char* field : {"SYSLOG_IDENTIFIER", "ZDR_SUBSYSTEM", "ZDR_CATEGORY"}) {
        std::string value = (*entry)[field];
        std::string valid;
        detail::appendValidUtf8(value, valid);
        EXPECT_EQ(value, valid) << field;
        for (unsigned char c : value) EXPECT_FALSE(c < 0x20 || c == 0x7F) << field << ": " << value;
    }
    EXPECT_EQ(entry->count("PRIORITY=0"), 0u);
    EXPECT_EQ((*entry)["PRIORITY"], "3");
    EXPECT_EQ((*entry)["SYSLOG_IDENTIFIER"], (*entry)["ZDR_SUBSYSTEM"]);
    EXPECT_EQ((*entry)["ZDR_SUBSYSTEM"].rfind("com.evil", 0), 0u);
    EXPECT_NE((*entry)["ZDR_SUBSYSTEM"].find(".app"), std::string::npos);
    EXPECT_NE((*entry)["MESSAGE"].find("> hello"), std::string::npos);
}

}  // namespace
}  // namespace zdr
