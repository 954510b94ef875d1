// DesktopEntries: the installed applications as their .desktop files describe
// them, and the desktop-file ID (the Linux counterpart of a bundle identifier)
// of a running program's name.
//
// The folders are the "applications" folders of $XDG_DATA_HOME (default
// ~/.local/share) and then of each $XDG_DATA_DIRS entry (default
// /usr/local/share:/usr/share); a file in an earlier folder hides one with the
// same ID in a later one. The ID of "<folder>/kde4/okular.desktop" is
// "kde4-okular" (subfolders joined with "-", the extension dropped).
//
// A program name matches an entry when it equals the file name of the
// entry's TryExec or of the program its Exec line starts (after an "env
// VAR=value" prefix), or its StartupWMClass (ignoring letter case). The kernel
// keeps only 15 bytes of a name, so a 15-byte name also matches a longer
// program whose first 15 bytes it is. Hidden entries are skipped.
//
// The index is read on first use and read again when one of the folders'
// modification times changes. A file that cannot be read or has no
// [Desktop Entry] group is skipped with a logged warning.
//
// Threads: every member may be called from any thread.
#pragma once

#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zdr/system/bsd_proc_utils.h"

namespace zdr {

class DesktopEntries : public ApplicationLocator {
 public:
    struct Entry {
        std::string desktopFileID;
        std::string path;
        std::string name;                           // Name=
        std::optional<std::string> program;         // file name of Exec's program
        std::optional<std::string> tryExec;         // file name of TryExec
        std::optional<std::string> startupWMClass;  // StartupWMClass=
        bool hidden = false;                        // Hidden=true
    };

    /// Folders in precedence order (each an "applications" folder).
    explicit DesktopEntries(std::vector<std::string> applicationFolders);
    /// The folders from the XDG variables of this process's environment.
    static std::vector<std::string> defaultApplicationFolders();
    static std::shared_ptr<DesktopEntries> shared();

    /// The entry a program called `name` belongs to, or none.
    std::optional<Entry> entryForProgramName(const std::string& name);
    /// Every visible entry, ordered by ID.
    std::vector<Entry> entries();

    std::optional<std::string> fullPathForApplication(const std::string& name) override;
    std::optional<std::string> bundleIdentifierAtPath(const std::string& path) override;

    /// Parses the text of one .desktop file (the [Desktop Entry] group only);
    /// none, with the reason in `error`, when it has no such group.
    static std::optional<Entry> parseDesktopFile(std::string_view text, std::string* error);
    /// The file name of the program an Exec value starts: quotes and
    /// backslash escapes undone, an "env VAR=value ..." prefix skipped.
    static std::optional<std::string> programOfExec(std::string_view exec);

 private:
    void refreshIfChanged();
    bool matches(const Entry& entry, const std::string& name, bool allowTruncated) const;

    std::vector<std::string> folders_;
    std::mutex mutex_;
    bool loaded_ = false;
    std::vector<std::timespec> stamps_;
    std::vector<Entry> entries_;  // visible and hidden, ordered by folder precedence then ID
};

}  // namespace zdr
