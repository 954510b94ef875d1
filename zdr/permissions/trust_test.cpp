#include "zdr/permissions/trust.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "zdr/permissions/permission_types.h"
#include "zdr/permissions/permissions_test_support.h"
#include "zdr/testing/eventually.h"

namespace zdr {
namespace {

using Cmd = std::vector<std::string>;

TEST(TrustTest, SettingsOpenTheirLinksThroughTheWorkspace) {
    auto workspace = std::make_shared<testing::RecordingWorkspace>();
    Trust::setWorkspace(workspace);
    Trust::openMicrophonePrivacySettings();
    Trust::openCameraPrivacySettings();
    Trust::openScreenPrivacySettings();
    Trust::openApplescriptSettings();
    Trust::openSoundSettings();
    Trust::setWorkspace(nullptr);
    EXPECT_EQ(workspace->opened(),
              (Cmd{"x-apple.systempreferences:com.apple.preference.security?Privacy_Microphone",
                   "x-apple.systempreferences:com.apple.preference.security?Privacy_Camera",
                   "x-apple.systempreferences:com.apple.preference.security?Privacy_ScreenCapture",
                   "x-apple.systempreferences:com.apple.preference.security?Privacy_Automation",
                   "x-apple.systempreferences:com.apple.preference.sound"}));
    EXPECT_NE(Trust::workspace(), workspace);
}

TEST(TrustTest, LinksThatDoNotParseOpenNothing) {
    auto workspace = std::make_shared<testing::RecordingWorkspace>();
    Trust::setWorkspace(workspace);
    EXPECT_FALSE(Trust::openLink(""));
    EXPECT_FALSE(Trust::openLink("no scheme here"));
    EXPECT_FALSE(Trust::openLink(":nothing"));
    EXPECT_FALSE(Trust::openLink("1http://x"));
    EXPECT_FALSE(Trust::openLink("https://example.org/a b"));
    EXPECT_FALSE(Trust::openLink("https://example.org/\n"));
    EXPECT_TRUE(Trust::openLink("https://example.org/help"));
    Trust::setWorkspace(nullptr);
    EXPECT_EQ(workspace->opened(), Cmd{"https://example.org/help"});
}

TEST(LinuxWorkspaceTest, MapsSettingsLinksToTheDesktopsPages) {
    const std::string mic =
        "x-apple.systempreferences:com.apple.preference.security?Privacy_Microphone";
    const std::string cam =
        "x-apple.systempreferences:com.apple.preference.security?Privacy_Camera";
    const std::string sound = kSoundPreferencesLink;
    EXPECT_EQ(LinuxWorkspace::commandFor(mic, "GNOME"),
              (Cmd{"gnome-control-center", "microphone"}));
    EXPECT_EQ(LinuxWorkspace::commandFor(cam, "ubuntu:GNOME"),
              (Cmd{"gnome-control-center", "camera"}));
    EXPECT_EQ(LinuxWorkspace::commandFor(sound, "gnome"), (Cmd{"gnome-control-center", "sound"}));
    EXPECT_EQ(LinuxWorkspace::commandFor(mic, "KDE"), (Cmd{"systemsettings", "kcm_pulseaudio"}));
    EXPECT_EQ(LinuxWorkspace::commandFor(cam, "KDE"), (Cmd{"systemsettings", "kcm_flatpak"}));
    EXPECT_FALSE(LinuxWorkspace::commandFor(mic, "XFCE"));
    EXPECT_FALSE(LinuxWorkspace::commandFor(mic, ""));
    EXPECT_FALSE(LinuxWorkspace::commandFor("x-apple.systempreferences:unknown?Nope", "GNOME"));
    // Other links go to xdg-open whatever the desktop, as one argument.
    EXPECT_EQ(LinuxWorkspace::commandFor("https://example.org/a;rm -rf", "XFCE"),
              (Cmd{"xdg-open", "https://example.org/a;rm -rf"}));
}

TEST(LinuxWorkspaceTest, UnknownDesktopLaunchesNothing) {
    std::vector<Cmd> launched;
    LinuxWorkspace ws({"Hyprland", [&](const Cmd& c) {
                           launched.push_back(c);
                           return true;
                       }});
    EXPECT_FALSE(ws.open("x-apple.systempreferences:com.apple.preference.security?Privacy_Camera"));
    EXPECT_TRUE(launched.empty());
    EXPECT_TRUE(ws.open("https://example.org"));
    EXPECT_EQ(launched, (std::vector<Cmd>{{"xdg-open", "https://example.org"}}));
}

TEST(LinuxWorkspaceTest, SpawnPassesArgumentsWithoutAShell) {
    auto dir = std::filesystem::temp_directory_path() / ("zdr-spawn-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    // A shell would split this name and run the command after ';'.
    const auto odd = dir / "a'b; touch pwned $(x)";
    ASSERT_TRUE(LinuxWorkspace::spawnDetached({"touch", odd.string()}));
    EXPECT_TRUE(testing::eventually([&] { return std::filesystem::exists(odd); }));
    EXPECT_FALSE(std::filesystem::exists(dir / "pwned"));
    EXPECT_FALSE(LinuxWorkspace::spawnDetached({"zdr-no-such-program-anywhere"}));
    EXPECT_FALSE(LinuxWorkspace::spawnDetached({}));
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace zdr
