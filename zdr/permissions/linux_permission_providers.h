// The Linux permission providers.
//
// - Microphone and camera in a sandbox (a Flatpak, marked by /.flatpak-info):
//   the status is the XDG portal permission store's entry for this app in
//   table "devices" (ids "microphone" and "camera": "yes" is authorized, "no"
//   denied, "ask" or none not determined); asking goes through the Camera
//   portal (AccessCamera) or the Device portal (AccessDevice "microphone").
// - Outside a sandbox, the device itself: the microphone is authorized when
//   an audio server's socket or an openable capture node (/dev/snd/pcmC*D*c)
//   is there; the camera when a /dev/video* node opens (present but none
//   opens: denied; none: restricted). Nothing asks a person there.
// - Screen: an X11 session is authorized when its display accepts a
//   connection (the trial capture), else denied. On Wayland (and in a sandbox) the
//   ScreenCast portal: authorized when the restore token kept in the user
//   defaults is accepted without a dialog, else not determined; asking runs
//   the portal's session handshake and keeps the new restore token. The status
//   is decided once, when the provider is made.
// - Scripting: the named application's org.freedesktop.Application.Activate on
//   the session bus (through the installed ScriptRunner).
//
// Every D-Bus call has a timeout. A missing bus or portal, a timeout or a
// malformed answer is logged on the general logger and reported as not
// determined (status) or not granted (request), never thrown.
//
// Threads: providers may be made and read from any thread; their
// requestPermission() answers on a global queue.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zdr/permissions/ask_permission.h"
#include "zdr/permissions/permission_types.h"

namespace zdr {

class UserDefaults;

/// The user-defaults key of the ScreenCast portal's restore token.
inline constexpr const char* kScreenCastRestoreTokenKey = "zdrScreenCastRestoreToken";

struct LinuxPermissionOptions {
    /// Root of the file system seen for /.flatpak-info, /dev/video* and /dev/snd.
    std::filesystem::path root = "/";
    /// The session bus address; none: $DBUS_SESSION_BUS_ADDRESS (the default
    /// session bus).
    std::optional<std::string> sessionBusAddress;
    /// "x11" or "wayland"; none: $XDG_SESSION_TYPE, else $WAYLAND_DISPLAY,
    /// else $DISPLAY.
    std::optional<std::string> sessionType;
    /// The X display for an X11 session (":0"); none: $DISPLAY.
    std::optional<std::string> display;
    /// Whether an audio server answers; none: look for its socket
    /// ($PULSE_SERVER, $XDG_RUNTIME_DIR/pulse/native or pipewire-0).
    std::function<bool()> audioServerReachable;
    /// Bound of every D-Bus method call.
    std::chrono::milliseconds callTimeout{5000};
    /// Bound of the wait for a portal dialog's answer.
    std::chrono::milliseconds responseTimeout{std::chrono::minutes(5)};
    /// Where the restore token is kept; null: UserDefaults::standard().
    std::shared_ptr<UserDefaults> defaults;
};

/// Runs the text that forces the scripting consent for an application.
class ScriptRunner {
 public:
    virtual ~ScriptRunner() = default;
    /// True when the application answered; else false with `errorInfo`.
    virtual bool run(const std::string& scriptText, const std::string& appName,
                     std::string* errorInfo) = 0;

    /// The installed runner; by default one that calls Activate over D-Bus.
    static std::shared_ptr<ScriptRunner> installed();
    static void install(std::shared_ptr<ScriptRunner> runner);
};

/// Calls org.freedesktop.Application.Activate on the application whose name
/// is its D-Bus name ("org.gnome.Nautilus"); a D-Bus-activatable application
/// starts if needed and comes to the front.
class DBusActivateScriptRunner : public ScriptRunner {
 public:
    DBusActivateScriptRunner() = default;
    explicit DBusActivateScriptRunner(LinuxPermissionOptions options)
        : options_(std::move(options)) {}
    bool run(const std::string& scriptText, const std::string& appName,
             std::string* errorInfo) override;

 private:
    LinuxPermissionOptions options_;
};

class ApplescriptPermissions : public PermissionProvider {
 public:
    /// Runs the auth-forcing script once: 3 on success, 2 on failure.
    explicit ApplescriptPermissions(std::string appName);
    AskAuthorizationStatus authorizationStatus() const override { return status_; }
    void requestPermission(std::function<void(bool)> handler) override;
    std::string source() const override { return "application"; }

    /// "tell application \"NAME\"\n  activate\nend tell".
    static std::string scriptText(const std::string& appName);
    /// Runs the script for `appTarget` through the installed ScriptRunner;
    /// a failure is logged as "Got an auth error: " and the error information.
    static void tryToForceAuth(const std::string& appTarget,
                               const std::function<void(bool)>& handler);

 private:
    std::string appName_;
    AskAuthorizationStatus status_ = AskAuthorizationStatus::notDetermined;
};

class LinuxPermissionProviders : public PermissionProviders {
 public:
    LinuxPermissionProviders() = default;
    explicit LinuxPermissionProviders(LinuxPermissionOptions options)
        : options_(std::move(options)) {}

    std::shared_ptr<PermissionProvider> makeProvider(PermissionTarget target) override;
    std::shared_ptr<PermissionProvider> makeApplescriptProvider(
        const std::string& targetAppName) override;

    const LinuxPermissionOptions& options() const { return options_; }

    /// Whether /.flatpak-info exists under `root`.
    static bool isSandboxed(const std::filesystem::path& root);
    /// The sandboxed application's id from /.flatpak-info ([Application] name=).
    static std::optional<std::string> sandboxAppId(const std::filesystem::path& root);
    /// The camera's status from the /dev/video* nodes under `root`.
    static AskAuthorizationStatus videoDeviceStatus(const std::filesystem::path& root);
    /// "x11", "wayland" or "" from the options and the environment.
    static std::string sessionType(const LinuxPermissionOptions& options);

 private:
    LinuxPermissionOptions options_;
};

}  // namespace zdr
