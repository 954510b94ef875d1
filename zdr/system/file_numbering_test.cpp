#include "zdr/system/file_numbering.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace zdr {
namespace {

namespace fs = std::filesystem;

class TempFolder {
 public:
    TempFolder() {
        char pattern[] = "/tmp/zdr-numbering-XXXXXX";
        path_ = ::mkdtemp(pattern);
    }
    ~TempFolder() {
        ::chmod(path_.c_str(), 0700);
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    void touch(const std::string& name) const { std::ofstream(path_ + "/" + name) << "x"; }

 private:
    std::string path_;
};

TEST(NextHighestNumber, FollowsTheNumbersFound) {
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {}), std::nullopt);
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Other.mov"}), std::nullopt);
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Recording.mov"}), 2);
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Recording 2.mov", "Recording 7.mov"}), 8);
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Recording 7.mov", "Recording.mov"}), 8);
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"recording.MOV"}), 2);
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Recording12.mov"}), 13);
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Recording \t 4.mov"}), 5);
}

TEST(NextHighestNumber, IsADeliberatelyLoosePattern) {
    // Unanchored: the base anywhere in the name counts.
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Old Recording 3.mov.bak"}), 4);
    // The dot before the extension is any character.
    EXPECT_EQ(nextHighestNumberFor("Recording.mov", {"Recording 5_mov"}), 6);
    // Pattern characters in the base act as a pattern would.
    EXPECT_EQ(nextHighestNumberFor("Take (1).mov", {"Take (1).mov"}), std::nullopt);
    // ... and their groups count: the first group is the base's own.
    EXPECT_EQ(nextHighestNumberFor("Take (1).mov", {"Take 1 3.mov"}), 2);
    EXPECT_EQ(nextHighestNumberFor("Take [.mov", {"Take [.mov"}), 2);  // "[[\s ]" is a class
    EXPECT_EQ(nextHighestNumberFor("Take (.mov", {"Take (.mov"}), std::nullopt);  // no compile
    EXPECT_EQ(nextHighestNumberFor("a.b.mov", {"aXb 9.mov"}), 10);
}

TEST(NextHighestNumber, UnicodeCaselessAndDigitsThatDoNotParse) {
    EXPECT_EQ(nextHighestNumberFor("Ελλάδα.mov", {"ΕΛΛΆΔΑ 3.MOV"}), 4);
    // Arabic-Indic digits match \d but are not a decimal integer here.
    EXPECT_EQ(nextHighestNumberFor("Rec.mov", {"Rec \u0663.mov"}), std::nullopt);
    EXPECT_EQ(nextHighestNumberFor("Rec.mov", {"Rec \u0663.mov", "Rec 2.mov"}), 3);
    // Too large for a number: skipped.
    EXPECT_EQ(nextHighestNumberFor("Rec.mov", {"Rec 99999999999999999999999.mov", "Rec.mov"}), 2);
}

TEST(NextHighestNumber, InvalidUTF8NamesNeverBreakTheMatch) {
    std::vector<std::string> names = {std::string("\xff\xfeRec 4.mov"),
                                      std::string("Rec \xc3\x28 9.mov"), "Rec 2.mov"};
    EXPECT_EQ(nextHighestNumberFor("Rec.mov", names), 5);
    EXPECT_EQ(nextHighestNumberFor(std::string("R\xff"
                                               "ec.mov"),
                                   names),
              std::nullopt);
}

TEST(NextHighestNumberDeathTest, OverflowStopsTheProgram) {
    EXPECT_DEATH(nextHighestNumberFor("Rec.mov", {"Rec " + std::to_string(LONG_MAX) + ".mov"}),
                 "overflows");
}

TEST(UniquelyNumbered, TheThreeFoldersAndTheCaseInsensitiveOne) {
    TempFolder empty, one, two, upper;
    EXPECT_EQ(uniquelyNumbered(empty.path(), "Recording.mov"), empty.path() + "/Recording.mov");

    one.touch("Recording.mov");
    EXPECT_EQ(uniquelyNumbered(one.path(), "Recording.mov"), one.path() + "/Recording 2.mov");

    two.touch("Recording 2.mov");
    two.touch("Recording 7.mov");
    EXPECT_EQ(uniquelyNumbered(two.path(), "Recording.mov"), two.path() + "/Recording 8.mov");

    upper.touch("recording.MOV");
    EXPECT_EQ(uniquelyNumbered(upper.path(), "Recording.mov"), upper.path() + "/Recording 2.mov");
}

TEST(UniquelyNumbered, ExpandsTildeAndTrimsTheParts) {
    TempFolder folder;
    const char* oldHome = std::getenv("HOME");
    std::string saved = oldHome ? oldHome : "";
    ::setenv("HOME", folder.path().c_str(), 1);
    folder.touch("Clip.mp4");
    std::string result = uniquelyNumbered("~", "Clip.mp4");
    ::setenv("HOME", saved.c_str(), 1);
    EXPECT_EQ(result, folder.path() + "/Clip 2.mp4");
    // The pattern keeps the space before the extension; the new name drops it.
    folder.touch("Clip 3.mp4");
    EXPECT_EQ(uniquelyNumbered(folder.path() + "/", "Clip .mp4"), folder.path() + "/Clip 4.mp4");
}

TEST(UniquelyNumbered, MissingFolderOrFileGivesThePlainName) {
    TempFolder folder;
    folder.touch("file");
    EXPECT_EQ(uniquelyNumbered(folder.path() + "/none", "A.mov"), folder.path() + "/none/A.mov");
    EXPECT_EQ(uniquelyNumbered(folder.path() + "/file", "A.mov"), folder.path() + "/file/A.mov");
}

TEST(UniquelyNumbered, NeverReturnsAnExistingPath) {
    TempFolder folder;
    // The pattern of this base does not compile: the plain rule would hand out
    // the existing name.
    folder.touch("Take (.mov");
    EXPECT_EQ(uniquelyNumbered(folder.path(), "Take (.mov"), folder.path() + "/Take ( 2.mov");
    // This base does not match itself as a pattern.
    folder.touch("a+b.mov");
    folder.touch("a+b 2.mov");
    EXPECT_EQ(uniquelyNumbered(folder.path(), "a+b.mov"), folder.path() + "/a+b 3.mov");
    // The pattern keeps the leading space, the new name is trimmed: "Rec 2.mov"
    // is invisible to the pattern but taken.
    folder.touch(" Rec.mov");
    folder.touch("Rec 2.mov");
    EXPECT_EQ(uniquelyNumbered(folder.path(), " Rec.mov"), folder.path() + "/Rec 3.mov");
    for (const auto& name : {"Take (.mov", "a+b.mov", " Rec.mov", "x.mov"}) {
        EXPECT_FALSE(fs::exists(uniquelyNumbered(folder.path(), name))) << name;
    }
}

// Runs in a child process that gives up root first (root lists any folder).
int listUnreadableFolder(const std::string& folder) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 10;
    try {
        (void)uniquelyNumbered(folder, "A.mov");
        return 11;
    } catch (const fs::filesystem_error& e) {
        if (e.code().value() != EACCES) return 12;
    }
    Error error;
    if (uniquelyNumbered(folder, "A.mov", &error) != std::nullopt) return 13;
    if (error.code != EACCES || error.localizedDescription().empty()) return 14;
    return 0;
}

TEST(UniquelyNumberedDeathTest, AFolderThatCannotBeListedReachesTheCaller) {
    TempFolder folder;
    ::chmod(folder.path().c_str(), 0311);  // searchable, not readable
    EXPECT_EXIT(std::_Exit(listUnreadableFolder(folder.path())), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zdr
