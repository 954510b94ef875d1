#include "apps/zdrctl/zdrctl_permissions_commands.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/permissions/linux_permission_providers.h"
#include "zdr/permissions/permissions_test_support.h"

namespace zdr::zdrctl {
namespace {

using S = AskAuthorizationStatus;

class PermissionsCommandTest : public ::testing::Test {
 protected:
    void SetUp() override { PermissionProviders::install(providers_); }
    void TearDown() override { PermissionProviders::install(nullptr); }
    std::optional<int> run(std::vector<std::string> args) {
        out_.str("");
        err_.str("");
        return runPermissionsCommand(args, out_, err_);
    }
    std::shared_ptr<testing::ScriptedProviders> providers_ =
        std::make_shared<testing::ScriptedProviders>();
    std::ostringstream out_, err_;
};

TEST_F(PermissionsCommandTest, ListsEveryTargetWithStatus) {
    providers_->set(PermissionTarget::microphone, {S::authorized, S::authorized, true});
    providers_->set(PermissionTarget::camera, {S::denied, S::denied, false});
    providers_->set(PermissionTarget::screen, {S::notDetermined, S::authorized, true});
    EXPECT_EQ(run({"permissions", "--json"}), kExitOK);
    auto list = nlohmann::json::parse(out_.str());
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0]["target"], "microphone");
    EXPECT_EQ(list[0]["status"], 3);
    EXPECT_EQ(list[1]["statusText"], "denied");
    EXPECT_EQ(list[2]["status"], 0);
    EXPECT_EQ(list[3]["target"], "applescript");
    EXPECT_EQ(list[3]["error"], "noTargetNameSpecified");
    for (const auto& p : providers_->providers()) EXPECT_EQ(p->requests, 0);

    EXPECT_EQ(run({"permissions"}), kExitOK);
    EXPECT_NE(out_.str().find("camera       denied"), std::string::npos) << out_.str();
}

TEST_F(PermissionsCommandTest, RequestAsksAndReportsTheNewStatus) {
    providers_->set(PermissionTarget::screen, {S::notDetermined, S::authorized, true});
    EXPECT_EQ(run({"permissions", "request", "screen"}), kExitOK);
    EXPECT_EQ(out_.str(), "screen: authorized\n");
    EXPECT_EQ(providers_->providers().back()->requests, 1);
    providers_->set(PermissionTarget::camera, {S::notDetermined, S::denied, false});
    EXPECT_EQ(run({"permissions", "request", "camera"}), kExitFailure);
    EXPECT_EQ(out_.str(), "camera: denied\n");
}

TEST_F(PermissionsCommandTest, BadCommandLines) {
    EXPECT_EQ(run({"devices"}), std::nullopt);
    EXPECT_EQ(run({"permissions", "request"}), kExitUsage);
    EXPECT_EQ(run({"permissions", "request", "applescript"}), kExitUsage);
    EXPECT_EQ(run({"permissions", "request", "keyboard"}), kExitUsage);
    EXPECT_EQ(run({"permissions", "--yaml"}), kExitUsage);
    EXPECT_NE(err_.str().find("--yaml"), std::string::npos);
    EXPECT_TRUE(providers_->made().empty());
}

TEST(PermissionsCommandLinuxTest, X11SessionWithoutDevicesOrDisplayOutsideASandbox) {
    LinuxPermissionOptions options;
    options.root = std::filesystem::temp_directory_path() / "zdr-no-such-root";
    options.sessionType = "x11";
    options.display = ":4242";  // no X server answers there
    options.audioServerReachable = [] { return false; };
    PermissionProviders::install(std::make_shared<LinuxPermissionProviders>(options));
    std::ostringstream out, err;
    EXPECT_EQ(runPermissionsCommand({"permissions", "--json"}, out, err), kExitOK);
    PermissionProviders::install(nullptr);
    auto list = nlohmann::json::parse(out.str());
    EXPECT_EQ(list[0]["statusText"], "restricted");
    EXPECT_EQ(list[0]["source"], "device");
    EXPECT_EQ(list[2]["statusText"], "denied");
    EXPECT_EQ(list[2]["source"], "session");
}

}  // namespace
}  // namespace zdr::zdrctl
