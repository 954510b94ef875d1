#include "zdr/logging/os_log_destination.h"

#include <gtest/gtest.h>

#include <chrono>

#include "zdr/logging/journal_socket.h"
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

}  // namespace
}  // namespace zdr
