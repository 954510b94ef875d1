// Trust opens the settings pages where a person grants or withdraws a
// permission, through a replaceable Workspace so that the logic runs without
// a desktop (tests install one that records what it was asked).
//
// LinuxWorkspace, the default, maps the settings links to the running
// desktop's own pages (GNOME's gnome-control-center panels, KDE's
// systemsettings modules, chosen by $XDG_CURRENT_DESKTOP) and opens every
// other URL with xdg-open. Programs are started with posix_spawnp and an
// argument vector, never through a shell, and reaped on a background thread.
// A settings link on a desktop it does not know is logged and opens nothing.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zdr {

class Workspace {
 public:
    virtual ~Workspace() = default;
    /// Opens a URL; false when nothing could be opened.
    virtual bool open(const std::string& url) = 0;
};

class LinuxWorkspace : public Workspace {
 public:
    /// Starts a program (argv[0] looked up on $PATH); false when it could not.
    using Launcher = std::function<bool(const std::vector<std::string>& argv)>;

    struct Options {
        /// The desktop list as in $XDG_CURRENT_DESKTOP ("ubuntu:GNOME");
        /// none: read the environment at each open().
        std::optional<std::string> currentDesktop;
        /// How programs start; none: spawnDetached().
        Launcher launcher;
    };

    LinuxWorkspace() = default;
    explicit LinuxWorkspace(Options options) : options_(std::move(options)) {}

    bool open(const std::string& url) override;

    /// The command that open() runs for `url` on `desktop`, or none when the
    /// link is a settings link the desktop has no page for.
    static std::optional<std::vector<std::string>> commandFor(const std::string& url,
                                                              const std::string& desktop);

    /// posix_spawnp of argv with the process's environment; the child is
    /// reaped on a detached thread.
    static bool spawnDetached(const std::vector<std::string>& argv);

 private:
    Options options_;
};

class Trust {
 public:
    static std::shared_ptr<Workspace> workspace();
    /// Replaces the workspace; null puts the default LinuxWorkspace back.
    static void setWorkspace(std::shared_ptr<Workspace> workspace);

    static void openMicrophonePrivacySettings();
    static void openCameraPrivacySettings();
    static void openScreenPrivacySettings();
    static void openApplescriptSettings();
    static void openSoundSettings();

    /// Opens `link` through workspace() when it parses as a URL (a scheme
    /// followed by ':' and no blanks or control characters); a link that does
    /// not parse is skipped silently. True when the workspace opened it.
    static bool openLink(const std::string& link);
    /// Whether `link` parses as a URL in the sense of openLink().
    static bool parsesAsURL(const std::string& link);
};

inline constexpr const char* kSoundPreferencesLink =
    "x-apple.systempreferences:com.apple.preference.sound";

}  // namespace zdr
