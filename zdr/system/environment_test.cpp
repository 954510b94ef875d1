#include "zdr/system/environment.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "zdr/system/process_info.h"

namespace zdr {
namespace {

TEST(TestUtilsTest, ComputedFromTheTestRunnerVariables) {
    EXPECT_FALSE(TestUtils::runningInTest(std::vector<std::string>{}));
    EXPECT_FALSE(TestUtils::runningInTest({"XCTest=1", "PATH=/bin"}));
    EXPECT_TRUE(TestUtils::runningInTest({"PATH=/bin", "XCTestBundlePath=/t"}));
    EXPECT_TRUE(TestUtils::runningInTest({"XCInjectBundle="}));
    EXPECT_TRUE(TestUtils::runningInTest({"XCTestConfigurationFilePath=/c"}));
}

TEST(TestUtilsTest, ComputedOnceThenSettable) {
    // Each test runs in a process of its own under ctest, so this is the
    // first read: the variable set now is what it sees.
    ::setenv("XCTestBundlePath", "/tmp/bundle", 1);
    EXPECT_TRUE(TestUtils::runningInTest());
    ::unsetenv("XCTestBundlePath");
    EXPECT_TRUE(TestUtils::runningInTest()) << "computed once";
    TestUtils::setRunningInTest(false);
    EXPECT_FALSE(TestUtils::runningInTest());
    EXPECT_FALSE(TestUtils::runningInTest());
    TestUtils::setRunningInTest(true);
    EXPECT_TRUE(TestUtils::runningInTest());
}

TEST(KnownDevMachineTest, AgainstTheHostsList) {
    Application::setKnownDevMachineSerialNumbers({"C02ABC", "PF-2K9"});
    EXPECT_TRUE(Application::isAKnownDevMachine(std::optional<std::string>("PF-2K9")));
    EXPECT_FALSE(Application::isAKnownDevMachine(std::optional<std::string>("pf-2k9")));
    EXPECT_FALSE(Application::isAKnownDevMachine(std::optional<std::string>()))
        << "no serial number: not a developer machine";
    EXPECT_FALSE(Application::isAKnownDevMachine(std::optional<std::string>("")));
    Application::setKnownDevMachineSerialNumbers({});
    EXPECT_FALSE(Application::isAKnownDevMachine(std::optional<std::string>("PF-2K9")));
    // The real machine: no list, so never a developer machine.
    EXPECT_FALSE(Application::isAKnownDevMachine());
}

TEST(OSConstantsTest, WindowRadiusFollowsTheReleaseWhenSharedIsMade) {
    EXPECT_EQ(OSConstants::Highlighting::windowRadius(), 5.0);
    ProcessInfo::setOperatingSystemVersion(OperatingSystemVersion{11, 0, 0});
    OSConstants& first = OSConstants::shared();
    EXPECT_EQ(OSConstants::Highlighting::windowRadius(), 10.0);
    EXPECT_EQ(&first, &OSConstants::shared());
    OSConstants::Highlighting::setWindowRadius(7.5);
    ProcessInfo::setOperatingSystemVersion(OperatingSystemVersion{10, 15, 0});
    OSConstants::shared();
    EXPECT_EQ(OSConstants::Highlighting::windowRadius(), 7.5) << "made once; a set value stays";
    ProcessInfo::setOperatingSystemVersion(std::nullopt);
}

TEST(BuildDateTest, IsTheExecutablesModificationTime) {
    struct stat st {};
    ASSERT_EQ(::stat("/proc/self/exe", &st), 0);
    const auto date = BuildDate::buildDate();
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
    EXPECT_EQ(seconds, st.st_mtim.tv_sec);
}

}  // namespace
}  // namespace zdr
