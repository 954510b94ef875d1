#include "zdr/permissions/trust.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <thread>

#include "zdr/logging/shared2.h"
#include "zdr/permissions/permission_types.h"

extern char** environ;

namespace zdr {
namespace {

std::mutex& workspaceMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<Workspace>& workspaceSlot() {
    static std::shared_ptr<Workspace> slot;
    return slot;
}

constexpr std::string_view kSettingsScheme = "x-apple.systempreferences:";

// Pages are the last part of the link: "...security?Privacy_Camera" or
// "...preference.sound".
std::string settingsPage(const std::string& url) {
    auto query = url.find('?');
    if (query != std::string::npos) return url.substr(query + 1);
    auto dot = url.rfind('.');
    return dot == std::string::npos ? std::string() : "sound:" + url.substr(dot + 1);
}

bool desktopListHas(const std::string& list, std::string_view name) {
    std::stringstream in(list);
    std::string item;
    while (std::getline(in, item, ':')) {
        if (item.size() == name.size()) {
            bool same = true;
            for (std::size_t i = 0; i < item.size(); ++i) {
                if (std::tolower(static_cast<unsigned char>(item[i])) !=
                    std::tolower(static_cast<unsigned char>(name[i]))) {
                    same = false;
                    break;
                }
            }
            if (same) return true;
        }
    }
    return false;
}

}  // namespace

std::optional<std::vector<std::string>> LinuxWorkspace::commandFor(const std::string& url,
                                                                   const std::string& desktop) {
    if (url.rfind(kSettingsScheme, 0) != 0) return std::vector<std::string>{"xdg-open", url};
    const std::string page = settingsPage(url);
    // GNOME and the desktops built on its control center.
    if (desktopListHas(desktop, "GNOME") || desktopListHas(desktop, "Unity") ||
        desktopListHas(desktop, "Budgie") || desktopListHas(desktop, "Pantheon")) {
        static const std::map<std::string, std::string, std::less<>> panels{
            {"Privacy_Microphone", "microphone"},
            {"Privacy_Camera", "camera"},
            {"Privacy_ScreenCapture", "privacy"},
            {"Privacy_Automation", "applications"},
            {"sound:sound", "sound"}};
        auto it = panels.find(page);
        if (it == panels.end()) return std::nullopt;
        return std::vector<std::string>{"gnome-control-center", it->second};
    }
    if (desktopListHas(desktop, "KDE")) {
        // Portal grants of sandboxed apps live in the Flatpak permissions module;
        // the microphone and sound in the audio module.
        static const std::map<std::string, std::string, std::less<>> modules{
            {"Privacy_Microphone", "kcm_pulseaudio"},
            {"Privacy_Camera", "kcm_flatpak"},
            {"Privacy_ScreenCapture", "kcm_flatpak"},
            {"Privacy_Automation", "kcm_flatpak"},
            {"sound:sound", "kcm_pulseaudio"}};
        auto it = modules.find(page);
        if (it == modules.end()) return std::nullopt;
        return std::vector<std::string>{"systemsettings", it->second};
    }
    return std::nullopt;
}

bool LinuxWorkspace::open(const std::string& url) {
    std::string desktop;
    if (options_.currentDesktop) {
        desktop = *options_.currentDesktop;
    } else if (const char* env = std::getenv("XDG_CURRENT_DESKTOP")) {
        desktop = env;
    }
    auto command = commandFor(url, desktop);
    if (!command) {
        Shared2::general()->warning("No settings page for {} on desktop \"{}\"; nothing opened",
                                    url, desktop);
        return false;
    }
    const bool started = options_.launcher ? options_.launcher(*command) : spawnDetached(*command);
    if (!started) Shared2::general()->error("Could not start {} to open {}", (*command)[0], url);
    return started;
}

bool LinuxWorkspace::spawnDetached(const std::vector<std::string>& argv) {
    if (argv.empty()) return false;
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ);
    if (rc != 0) {
        Shared2::general()->error("posix_spawnp {} failed: errno {}", argv[0], rc);
        return false;
    }
    std::thread([pid] {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }).detach();
    return true;
}

std::shared_ptr<Workspace> Trust::workspace() {
    std::lock_guard lock(workspaceMutex());
    if (!workspaceSlot()) workspaceSlot() = std::make_shared<LinuxWorkspace>();
    return workspaceSlot();
}

void Trust::setWorkspace(std::shared_ptr<Workspace> workspace) {
    std::lock_guard lock(workspaceMutex());
    workspaceSlot() = std::move(workspace);
}

bool Trust::parsesAsURL(const std::string& link) {
    auto colon = link.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    if (!std::isalpha(static_cast<unsigned char>(link[0]))) return false;
    for (std::size_t i = 1; i < colon; ++i) {
        const unsigned char c = static_cast<unsigned char>(link[i]);
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
    }
    for (unsigned char c : link) {
        if (c <= 0x20 || c == 0x7f) return false;
    }
    return true;
}

bool Trust::openLink(const std::string& link) {
    if (!parsesAsURL(link)) return false;
    return workspace()->open(link);
}

void Trust::openMicrophonePrivacySettings() { openPreferences(PermissionTarget::microphone); }
void Trust::openCameraPrivacySettings() { openPreferences(PermissionTarget::camera); }
void Trust::openScreenPrivacySettings() { openPreferences(PermissionTarget::screen); }
void Trust::openApplescriptSettings() { openPreferences(PermissionTarget::applescript); }
void Trust::openSoundSettings() { openLink(kSoundPreferencesLink); }

}  // namespace zdr
