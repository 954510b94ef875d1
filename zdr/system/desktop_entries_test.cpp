#include "zdr/system/desktop_entries.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

namespace zdr {
namespace {

namespace fs = std::filesystem;

class DesktopEntriesTest : public ::testing::Test {
 protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "zdr-apps-XXXXXX").string();
        root_ = ::mkdtemp(pattern.data());
        user_ = root_ + "/home/applications";
        system_ = root_ + "/usr/applications";
        fs::create_directories(user_);
        fs::create_directories(system_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    void write(const std::string& folder, const std::string& relative, const std::string& text) {
        fs::create_directories((fs::path(folder) / relative).parent_path());
        std::ofstream(fs::path(folder) / relative) << text;
    }
    std::optional<std::string> idFor(DesktopEntries& entries, const std::string& name) {
        auto entry = entries.entryForProgramName(name);
        if (!entry) return std::nullopt;
        return entry->desktopFileID;
    }
    std::string root_, user_, system_;
};

TEST_F(DesktopEntriesTest, MatchesExecTryExecAndWindowClass) {
    write(system_, "org.gnome.Nautilus.desktop",
          "[Desktop Entry]\nName=Files\nExec=nautilus --new-window %U\nType=Application\n");
    write(system_, "kde4/okular.desktop",
          "# comment\n[Desktop Entry]\nName=Okular\nTryExec=/usr/bin/okular\nExec=okular %U\n");
    write(system_, "firefox-esr.desktop",
          "[Desktop Entry]\nExec=env MOZ_X=1 \"/usr/lib/firefox esr/firefox-esr\" %u\n"
          "StartupWMClass=Firefox-esr\n");
    write(system_, "code.desktop",
          "[Desktop Entry]\nExec=/usr/share/code/code --unity-launch %F\n"
          "[Desktop Action new-empty-window]\nExec=something-else\n");
    DesktopEntries entries({user_, system_});
    EXPECT_EQ(idFor(entries, "nautilus"), "org.gnome.Nautilus");
    EXPECT_EQ(idFor(entries, "okular"), "kde4-okular");
    EXPECT_EQ(idFor(entries, "firefox-esr"), "firefox-esr");
    EXPECT_EQ(idFor(entries, "FIREFOX-ESR"), "firefox-esr") << "window class ignores case";
    EXPECT_EQ(idFor(entries, "code"), "code");
    EXPECT_EQ(idFor(entries, "something-else"), std::nullopt) << "only the main group counts";
    EXPECT_EQ(idFor(entries, "env"), std::nullopt);
    EXPECT_EQ(idFor(entries, ""), std::nullopt);
    auto path = entries.fullPathForApplication("okular");
    ASSERT_TRUE(path);
    EXPECT_EQ(entries.bundleIdentifierAtPath(*path), "kde4-okular");
    EXPECT_EQ(entries.bundleIdentifierAtPath("/elsewhere/okular.desktop"), std::nullopt);
}

TEST_F(DesktopEntriesTest, KernelTruncatedNamesMatchLongPrograms) {
    write(system_, "org.example.LongName.desktop", "[Desktop Entry]\nExec=gnome-control-center\n");
    DesktopEntries entries({system_});
    EXPECT_EQ(idFor(entries, "gnome-control-c"), "org.example.LongName");
    EXPECT_EQ(idFor(entries, "gnome-control"), std::nullopt) << "only the kernel's 15 bytes";
}

TEST_F(DesktopEntriesTest, EarlierFoldersHideLaterOnesAndHiddenEntriesDisappear) {
    write(system_, "org.example.Editor.desktop", "[Desktop Entry]\nExec=editor\n");
    write(user_, "org.example.Editor.desktop", "[Desktop Entry]\nExec=editor\nHidden=true\n");
    write(system_, "org.example.Viewer.desktop", "[Desktop Entry]\nExec=viewer\n");
    write(user_, "org.example.Viewer.desktop", "[Desktop Entry]\nExec=viewer2\n");
    DesktopEntries entries({user_, system_});
    EXPECT_EQ(idFor(entries, "editor"), std::nullopt) << "the user hid it";
    EXPECT_EQ(idFor(entries, "viewer"), std::nullopt);
    EXPECT_EQ(idFor(entries, "viewer2"), "org.example.Viewer");
    EXPECT_EQ(entries.entries().size(), 1u);
}

TEST_F(DesktopEntriesTest, MalformedFilesAreSkippedAndNewFilesAreSeen) {
    write(system_, "broken.desktop", "Exec=broken\nno group at all\n");
    write(system_, "binary.desktop", std::string("\0\xff\xfe[Desk", 9));
    write(system_, "ok.desktop", "[Desktop Entry]\nExec\n=\nExec=ok\n");
    DesktopEntries entries({system_});
    EXPECT_EQ(idFor(entries, "broken"), std::nullopt);
    EXPECT_EQ(idFor(entries, "ok"), "ok");
    EXPECT_EQ(idFor(entries, "later"), std::nullopt);
    write(system_, "later.desktop", "[Desktop Entry]\nExec=later\n");
    EXPECT_EQ(idFor(entries, "later"), "later") << "the folder changed, so it is read again";
}

TEST(DesktopExecTest, ProgramOfExec) {
    EXPECT_EQ(DesktopEntries::programOfExec("/usr/bin/gimp-2.10 %U"), "gimp-2.10");
    EXPECT_EQ(DesktopEntries::programOfExec("\"/opt/My App/run\" --x"), "run");
    EXPECT_EQ(DesktopEntries::programOfExec("/opt/My\\ App/run2"), "run2");
    EXPECT_EQ(DesktopEntries::programOfExec("env A=1 B=2 prog"), "prog");
    EXPECT_EQ(DesktopEntries::programOfExec("env -u X prog"), std::nullopt)
        << "an option argument is not guessed at";
    EXPECT_EQ(DesktopEntries::programOfExec(""), std::nullopt);
    EXPECT_EQ(DesktopEntries::programOfExec("%U"), std::nullopt);
}

TEST(DesktopFoldersTest, FollowTheXDGVariables) {
    const char* oldHome = std::getenv("XDG_DATA_HOME");
    const char* oldDirs = std::getenv("XDG_DATA_DIRS");
    std::string savedHome = oldHome ? oldHome : "", savedDirs = oldDirs ? oldDirs : "";
    ::setenv("XDG_DATA_HOME", "/h/share", 1);
    ::setenv("XDG_DATA_DIRS", "/a:relative:/b/", 1);
    EXPECT_EQ(
        DesktopEntries::defaultApplicationFolders(),
        (std::vector<std::string>{"/h/share/applications", "/a/applications", "/b//applications"}));
    ::unsetenv("XDG_DATA_DIRS");
    const auto folders = DesktopEntries::defaultApplicationFolders();
    EXPECT_EQ(folders.back(), "/usr/share/applications");
    oldHome ? (void)::setenv("XDG_DATA_HOME", savedHome.c_str(), 1)
            : (void)::unsetenv("XDG_DATA_HOME");
    oldDirs ? (void)::setenv("XDG_DATA_DIRS", savedDirs.c_str(), 1)
            : (void)::unsetenv("XDG_DATA_DIRS");
}

}  // namespace
}  // namespace zdr
