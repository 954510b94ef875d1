#include "apps/zdrctl/zdrctl_machine_commands.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/system/edid_test_support.h"
#include "zdr/system/linux_screen_provider.h"
#include "zdr/system/screen_provider.h"
#include "zdr/testing/xvfb_fixture.h"

namespace zdr::zdrctl {
namespace {

std::string ownName() {
    std::ifstream in("/proc/self/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

class MachineCommandsTest : public ::testing::Test {
 protected:
    std::optional<int> run(std::vector<std::string> args) {
        out_.str("");
        err_.str("");
        return runMachineCommand(args, out_, err_);
    }
    void TearDown() override { ScreenProvider::install(nullptr); }
    std::ostringstream out_, err_;
};

TEST_F(MachineCommandsTest, OtherCommandsAreLeftToTheMainParser) {
    EXPECT_EQ(run({"devices"}), std::nullopt);
    EXPECT_EQ(run({"--help"}), std::nullopt);
    EXPECT_EQ(run({"--backend", "simulated", "devices"}), std::nullopt);
    EXPECT_EQ(run({}), std::nullopt);
}

TEST_F(MachineCommandsTest, UsageErrors) {
    EXPECT_EQ(run({"screens", "extra"}), kExitUsage);
    EXPECT_NE(err_.str().find("unexpected argument \"extra\""), std::string::npos);
    EXPECT_EQ(run({"processes", "a", "b"}), kExitUsage);
    EXPECT_EQ(run({"screens", "--channels"}), kExitUsage);
    EXPECT_EQ(run({"--backend", "pulse", "screens"}), kExitUsage);
    EXPECT_NE(err_.str().find("belongs to the audio commands"), std::string::npos);
}

TEST_F(MachineCommandsTest, ProcessListIncludesThisProcess) {
    ASSERT_EQ(run({"processes", "--json"}), kExitOK);
    const auto list = nlohmann::json::parse(out_.str());
    bool found = false;
    for (const auto& p : list) {
        if (p["pid"] == ::getpid()) {
            found = true;
            EXPECT_EQ(p["ppid"], ::getppid());
            EXPECT_EQ(p["name"], ownName());
        }
    }
    EXPECT_TRUE(found);
    ASSERT_EQ(run({"processes"}), kExitOK);
    EXPECT_NE(out_.str().find(" " + std::to_string(::getpid()) + " "), std::string::npos);
}

TEST_F(MachineCommandsTest, PidSearchWithStatus) {
    ASSERT_EQ(run({"processes", ownName(), "--json"}), kExitOK);
    const auto answer = nlohmann::json::parse(out_.str());
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(answer["statusText"], "found");
    const auto pids = answer["pids"].get<std::vector<int>>();
    EXPECT_NE(std::find(pids.begin(), pids.end(), ::getpid()), pids.end());

    EXPECT_EQ(run({"processes", "zdr-no-such-process"}), kExitFailure);
    EXPECT_EQ(out_.str(), "status -1 (none found)\n");
}

TEST_F(MachineCommandsTest, ScreensTableAndJSON) {
    DisplayRecord r;
    r.displayID = 77;
    r.frame = {0, 0, 2560, 1440};
    r.outputName = "DP-2";
    r.edid = parseEdid(testing::EdidBuilder()
                           .manufacturer("DEL")
                           .productCode(41157)
                           .serialNumber(808)
                           .sRGBDefault(true)
                           .build());
    ScreenProvider::install(std::make_shared<FixedScreenProvider>(std::vector{r}));
    ASSERT_EQ(run({"screens"}), kExitOK);
    EXPECT_NE(out_.str().find("{{0, 0}, {2560, 1440}}"), std::string::npos) << out_.str();
    EXPECT_NE(out_.str().find("0x10AC DEL"), std::string::npos) << out_.str();
    EXPECT_NE(out_.str().find("sRGB"), std::string::npos);
    ASSERT_EQ(run({"screens", "--json"}), kExitOK);
    const auto list = nlohmann::json::parse(out_.str());
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["displayID"], 77);
    EXPECT_EQ(list[0]["serialNumber"], 808);
    EXPECT_EQ(list[0]["modelNumber"], 41157);
    EXPECT_EQ(list[0]["vendor"], "DEL");
    EXPECT_EQ(list[0]["screenInfo"]["name"], "screen 0, sRGB, {{0, 0}, {2560, 1440}}");

    ScreenProvider::install(std::make_shared<FixedScreenProvider>());
    ASSERT_EQ(run({"screens"}), kExitOK);
    EXPECT_EQ(out_.str(), "No screens.\n");
}

class MachineCommandsXvfbTest : public zdr::testing::XvfbTest {};

TEST_F(MachineCommandsXvfbTest, ScreensOfARealXServer) {
    ScreenProvider::install(std::make_shared<X11ScreenProvider>(server().displayName()));
    std::ostringstream out, err;
    ASSERT_EQ(runMachineCommand({"screens", "--json"}, out, err), kExitOK);
    const auto list = nlohmann::json::parse(out.str());
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["frame"]["width"], 1280);
    EXPECT_EQ(list[0]["colorSpace"], "<unknown colorspace>");
    ScreenProvider::install(nullptr);
}

}  // namespace
}  // namespace zdr::zdrctl
