#include "zdr/timing/serial.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace zdr {
namespace {

class TempFile {
 public:
    explicit TempFile(const std::string& contents) {
        char name[] = "/tmp/zdr_serial_XXXXXX";
        const int fd = mkstemp(name);
        path_ = name;
        if (fd >= 0) close(fd);
        std::ofstream(path_, std::ios::binary) << contents;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }

 private:
    std::string path_;
};

TEST(Serial, FileValueIsTrimmedOfBlanksAndNewlines) {
    TempFile file("  \tC02XK1ABJG5J \n\n");
    SerialNumberSource source({SerialNumberSource::fileReader(file.path())});
    EXPECT_EQ(source.serialNumber(), "C02XK1ABJG5J");
    EXPECT_EQ(SerialNumberSource::trimmed("a b\r\n"), "a b");
    EXPECT_EQ(SerialNumberSource::trimmed(" \n "), "");
}

TEST(Serial, FallsThroughUnreadableAndBlankSourcesInOrder) {
    TempFile blank(" \n");
    int secondCalls = 0;
    SerialNumberSource source({
        SerialNumberSource::fileReader("/nonexistent/zdr/product_serial"),
        SerialNumberSource::fileReader(blank.path()),
        [&]() -> std::optional<std::string> {
            ++secondCalls;
            return std::string("SN-2\n");
        },
        []() -> std::optional<std::string> { return std::string("never asked"); },
    });
    EXPECT_EQ(source.serialNumber(), "SN-2");
    EXPECT_EQ(secondCalls, 1);
}

TEST(Serial, ValueIsCachedButAbsenceIsNot) {
    int calls = 0;
    std::optional<std::string> answer;
    SerialNumberSource source({[&] {
        ++calls;
        return answer;
    }});
    EXPECT_EQ(source.serialNumber(), std::nullopt);
    EXPECT_EQ(source.serialNumber(), std::nullopt);
    EXPECT_EQ(calls, 2);  // none is asked again

    answer = "FIRST";
    EXPECT_EQ(source.serialNumber(), "FIRST");
    answer = "SECOND";
    EXPECT_EQ(source.serialNumber(), "FIRST");
    EXPECT_EQ(calls, 3);
}

TEST(Serial, RacingFirstCallersAllAnswerTheFirstCachedValue) {
    std::atomic<int> calls{0};
    SerialNumberSource source(
        {[&]() -> std::optional<std::string> { return "SN" + std::to_string(calls++); }});
    std::vector<std::thread> threads;
    std::vector<std::optional<std::string>> answers(6);
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] { answers[t] = source.serialNumber(); });
    }
    for (auto& thread : threads) thread.join();
    const auto cached = source.serialNumber();
    ASSERT_TRUE(cached.has_value());
    for (const auto& answer : answers) EXPECT_EQ(answer, cached);
}

TEST(Serial, MachineSerialIsStableAndTrimmedWhenPresent) {
    // Unprivileged without a system bus this is none; as root or with
    // hostnamed it is the firmware serial. Either way it must not change.
    const auto first = Serial::serialNumber();
    EXPECT_EQ(Serial::serialNumber(), first);
    if (first) {
        EXPECT_FALSE(first->empty());
        EXPECT_EQ(SerialNumberSource::trimmed(*first), *first);
    }
}

}  // namespace
}  // namespace zdr
