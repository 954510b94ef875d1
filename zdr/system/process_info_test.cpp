#include "zdr/system/process_info.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace zdr {
namespace {

namespace fs = std::filesystem;

class VersionChecksTest : public ::testing::Test {
 protected:
    void TearDown() override { ProcessInfo::setOperatingSystemVersion(std::nullopt); }
    static void setVersion(long major, long minor, long patch) {
        ProcessInfo::setOperatingSystemVersion(OperatingSystemVersion{major, minor, patch});
    }
};

TEST_F(VersionChecksTest, SonomaFourteenFourNeedsPatchFour) {
    for (long patch = 0; patch <= 3; ++patch) {
        setVersion(14, 4, patch);
        EXPECT_FALSE(ProcessInfo::isSonoma144OrLater()) << "14.4." << patch;
        EXPECT_TRUE(ProcessInfo::isSonomaOrLater());
    }
    setVersion(14, 4, 4);
    EXPECT_TRUE(ProcessInfo::isSonoma144OrLater());
    setVersion(14, 5, 0);
    EXPECT_TRUE(ProcessInfo::isSonoma144OrLater());
    setVersion(13, 9, 9);
    EXPECT_FALSE(ProcessInfo::isSonomaOrLater());
    EXPECT_TRUE(ProcessInfo::isVenturaOrLater());
}

TEST_F(VersionChecksTest, CatalinaAndBigSurAreExclusive) {
    struct Case {
        OperatingSystemVersion v;
        bool catalina, bigSur, monterey, ventura;
    } cases[] = {
        {{10, 14, 6}, false, false, false, false}, {{10, 15, 0}, true, false, false, false},
        {{10, 15, 7}, true, false, false, false},  {{10, 16, 0}, false, true, false, false},
        {{11, 0, 0}, false, true, false, false},   {{12, 0, 0}, false, true, true, false},
        {{13, 0, 0}, false, true, true, true},
    };
    for (const auto& c : cases) {
        ProcessInfo::setOperatingSystemVersion(c.v);
        SCOPED_TRACE(std::to_string(c.v.majorVersion) + "." + std::to_string(c.v.minorVersion));
        EXPECT_EQ(ProcessInfo::isCatalina(), c.catalina);
        EXPECT_EQ(ProcessInfo::isBigSurOrLater(), c.bigSur);
        EXPECT_EQ(ProcessInfo::isMontereyOrLater(), c.monterey);
        EXPECT_EQ(ProcessInfo::isVenturaOrLater(), c.ventura);
    }
}

TEST_F(VersionChecksTest, DefaultIsTheRunningKernel) {
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    const auto expected = ProcessInfo::parseKernelRelease(names.release);
    ASSERT_TRUE(expected);
    EXPECT_EQ(ProcessInfo::operatingSystemVersion(), *expected);
    EXPECT_GE(expected->majorVersion, 3);
    setVersion(14, 4, 4);
    EXPECT_EQ(ProcessInfo::operatingSystemVersion(), (OperatingSystemVersion{14, 4, 4}));
    ProcessInfo::setOperatingSystemVersion(std::nullopt);
    EXPECT_EQ(ProcessInfo::operatingSystemVersion(), *expected);
}

TEST_F(VersionChecksTest, ReadWhileAnotherThreadSets) {
    std::thread writer([] {
        for (int i = 0; i < 500; ++i) setVersion(14, 4, i % 8);
    });
    for (int i = 0; i < 500; ++i) {
        const auto v = ProcessInfo::operatingSystemVersion();
        EXPECT_TRUE(v.majorVersion == 14 || v.majorVersion >= 3);
    }
    writer.join();
}

TEST(KernelReleaseTest, Parsing) {
    using V = OperatingSystemVersion;
    EXPECT_EQ(ProcessInfo::parseKernelRelease("6.1.0-13-amd64"), (V{6, 1, 0}));
    EXPECT_EQ(ProcessInfo::parseKernelRelease("5.15.90.1-microsoft-standard-WSL2"), (V{5, 15, 90}));
    EXPECT_EQ(ProcessInfo::parseKernelRelease("6.5"), (V{6, 5, 0}));
    EXPECT_EQ(ProcessInfo::parseKernelRelease("4.19.0+\n"), (V{4, 19, 0}));
    EXPECT_EQ(ProcessInfo::parseKernelRelease("6."), (V{6, 0, 0}));
    EXPECT_EQ(ProcessInfo::parseKernelRelease(""), std::nullopt);
    EXPECT_EQ(ProcessInfo::parseKernelRelease("linux-6.1"), std::nullopt);
    EXPECT_EQ(ProcessInfo::parseKernelRelease("99999999999999999999"), std::nullopt);
}

TEST(OSReleaseTest, ParsesQuotingAndSkipsMalformedLines) {
    std::vector<std::string> problems;
    const auto r = ProcessInfo::parseOSRelease(
        "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
        "NAME='Debian GNU/Linux'\n"
        "VERSION_ID=\"12\"\n"
        "# a comment\n"
        "ID=debian\n"
        "HOME_URL=\"https://www.debian.org/\\\"x\"\n"
        "this line is wrong\n"
        "lower=case\n"
        "BROKEN=\"unterminated\n",
        &problems);
    EXPECT_EQ(r.prettyName, "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(r.name, "Debian GNU/Linux");
    EXPECT_EQ(r.id, "debian");
    EXPECT_EQ(r.versionID, "12");
    EXPECT_EQ(r.version, (OperatingSystemVersion{12, 0, 0}));
    EXPECT_EQ(r.fields.at("HOME_URL"), "https://www.debian.org/\"x");
    EXPECT_EQ(problems.size(), 3u);
    EXPECT_EQ(r.fields.count("BROKEN"), 0u);

    const auto ubuntu = ProcessInfo::parseOSRelease("VERSION_ID=\"22.04\"\n");
    EXPECT_EQ(ubuntu.version, (OperatingSystemVersion{22, 4, 0}));
    EXPECT_EQ(ubuntu.id, "linux") << "the default when ID is missing";
    const auto rolling = ProcessInfo::parseOSRelease("ID=arch\nVERSION_ID=rolling-2024\n");
    EXPECT_EQ(rolling.version, std::nullopt);
    EXPECT_EQ(ProcessInfo::parseOSRelease(std::string("\0\xff=\n", 4)).fields.size(), 0u);
}

TEST(OSReleaseTest, ThisMachineHasOne) {
    const auto release = ProcessInfo::distributionRelease();
    ASSERT_TRUE(release);
    EXPECT_FALSE(release->id.empty());
}

TEST(MachineModelTest, FirstRealNameElseFallback) {
    const fs::path dir = fs::temp_directory_path() / ("zdr-model-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "placeholder") << "To Be Filled By O.E.M.\n";
    std::ofstream(dir / "product") << "  ThinkPad X1 Carbon Gen 9 \n";
    std::ofstream(dir / "dt") << std::string("Raspberry Pi 4 Model B\0", 23);
    const std::string missing = (dir / "missing").string();
    EXPECT_EQ(ProcessInfo::machineModelFrom(
                  {missing, (dir / "placeholder").string(), (dir / "product").string()}, "x86_64"),
              "ThinkPad X1 Carbon Gen 9");
    EXPECT_EQ(ProcessInfo::machineModelFrom({(dir / "dt").string()}, "aarch64"),
              "Raspberry Pi 4 Model B");
    EXPECT_EQ(ProcessInfo::machineModelFrom({missing, (dir / "placeholder").string()}, "x86_64"),
              "x86_64");
    EXPECT_FALSE(ProcessInfo::machineModel().empty());
    fs::remove_all(dir);
}

TEST(DevelopmentEnvironmentTest, IDEVariables) {
    EXPECT_FALSE(ProcessInfo::isWithinXCode(std::vector<std::string>{}));
    EXPECT_FALSE(ProcessInfo::isWithinXCode({"HOME=/root", "OS_ACTIVITY=1"}));
    EXPECT_TRUE(ProcessInfo::isWithinXCode({"HOME=/root", "OS_ACTIVITY_DT_MODE=YES"}));
    EXPECT_TRUE(ProcessInfo::isWithinXCode({"__XCODE_BUILT_PRODUCTS_DIR_PATHS=/x"}));
    ::setenv("OS_ACTIVITY_DT_MODE", "1", 1);
    EXPECT_TRUE(ProcessInfo::isWithinXCode());
    ::unsetenv("OS_ACTIVITY_DT_MODE");
    ::unsetenv("__XCODE_BUILT_PRODUCTS_DIR_PATHS");
    EXPECT_FALSE(ProcessInfo::isWithinXCode());
}

}  // namespace
}  // namespace zdr
