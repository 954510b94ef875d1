#include "zdr/permissions/linux_permission_providers.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <fstream>
#include <mutex>

#include "zdr/logging/shared2.h"
#include "zdr/permissions/portal_bus_internal.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/user_defaults.h"

namespace zdr {
namespace {

namespace fs = std::filesystem;
using detail::PortalBus;

std::mutex& runnerMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<ScriptRunner>& runnerSlot() {
    static std::shared_ptr<ScriptRunner> slot;
    return slot;
}

fs::path under(const fs::path& root, const char* absolute) { return root / (absolute + 1); }

std::unique_ptr<PortalBus> openBus(const LinuxPermissionOptions& options) {
    std::string error;
    auto bus = PortalBus::open(options.sessionBusAddress, options.callTimeout, &error);
    if (!bus) Shared2::general()->error("{}", error);
    return bus;
}

// Opens every path matching `pattern`; 3 when one opens, 2 when some exist
// but none opens, 1 when there are none.
AskAuthorizationStatus nodeStatus(const fs::path& pattern) {
    glob_t found{};
    const int rc = ::glob(pattern.c_str(), 0, nullptr, &found);
    AskAuthorizationStatus status = AskAuthorizationStatus::restricted;
    if (rc == 0) {
        status = AskAuthorizationStatus::denied;
        for (std::size_t i = 0; i < found.gl_pathc; ++i) {
            const int fd = ::open(found.gl_pathv[i], O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
            if (fd >= 0) {
                ::close(fd);
                status = AskAuthorizationStatus::authorized;
                break;
            }
        }
    }
    globfree(&found);
    return status;
}

bool defaultAudioServerReachable() {
    if (const char* server = std::getenv("PULSE_SERVER"); server && *server) return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime) return false;
    struct stat st {};
    const fs::path dir(runtime);
    for (const auto* name : {"pulse/native", "pipewire-0"}) {
        if (::stat((dir / name).c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
    }
    return false;
}

AskAuthorizationStatus storeValueStatus(const std::vector<std::string>& values,
                                        const std::string& id) {
    if (values.empty()) return AskAuthorizationStatus::notDetermined;
    const auto& v = values.front();
    if (v == "yes") return AskAuthorizationStatus::authorized;
    if (v == "no") return AskAuthorizationStatus::denied;
    if (v != "ask") {
        Shared2::general()->warning("Unknown permission store value \"{}\" for {}", v, id);
    }
    return AskAuthorizationStatus::notDetermined;
}

// Microphone or camera in a sandbox: the portal permission store and the
// Camera or Device portal.
class PortalDevicePermission : public PermissionProvider {
 public:
    PortalDevicePermission(PermissionTarget target, LinuxPermissionOptions options)
        : target_(target), options_(std::move(options)) {}

    AskAuthorizationStatus authorizationStatus() const override {
        const std::string id(permissionTargetName(target_));
        auto appId = LinuxPermissionProviders::sandboxAppId(options_.root);
        if (!appId) {
            Shared2::general()->error("Sandboxed, but no application id in /.flatpak-info");
            return AskAuthorizationStatus::notDetermined;
        }
        auto bus = openBus(options_);
        if (!bus) return AskAuthorizationStatus::notDetermined;
        std::string error;
        auto values = bus->lookupPermission("devices", id, *appId, &error);
        if (!values) {
            Shared2::general()->error("{}", error);
            return AskAuthorizationStatus::notDetermined;
        }
        return storeValueStatus(*values, id);
    }

    void requestPermission(std::function<void(bool)> handler) override {
        DispatchQueue::global().async(
            [target = target_, options = options_, handler = std::move(handler)] {
                bool granted = false;
                if (auto bus = openBus(options)) {
                    PortalBus::RequestCall call;
                    if (target == PermissionTarget::camera) {
                        call.interface = "org.freedesktop.portal.Camera";
                        call.method = "AccessCamera";
                    } else {
                        call.interface = "org.freedesktop.portal.Device";
                        call.method = "AccessDevice";
                        call.pid = static_cast<std::uint32_t>(::getpid());
                        call.devices = {"microphone"};
                    }
                    std::string error;
                    auto answer = bus->request(call, options.responseTimeout, &error);
                    if (!answer) {
                        Shared2::general()->error("{}", error);
                    } else {
                        granted = answer->response == 0;
                    }
                }
                if (handler) handler(granted);
            });
    }
    std::string source() const override { return "portal"; }

 private:
    PermissionTarget target_;
    LinuxPermissionOptions options_;
};

// Outside a sandbox nobody is asked: access is what the device allows.
class DevicePermission : public PermissionProvider {
 public:
    DevicePermission(PermissionTarget target, LinuxPermissionOptions options)
        : target_(target), options_(std::move(options)) {}

    AskAuthorizationStatus authorizationStatus() const override {
        if (target_ == PermissionTarget::camera) {
            return LinuxPermissionProviders::videoDeviceStatus(options_.root);
        }
        const bool server = options_.audioServerReachable ? options_.audioServerReachable()
                                                          : defaultAudioServerReachable();
        if (server) return AskAuthorizationStatus::authorized;
        return nodeStatus(under(options_.root, "/dev/snd/pcmC*D*c"));
    }
    void requestPermission(std::function<void(bool)> handler) override {
        const bool granted = authorizationStatus() == AskAuthorizationStatus::authorized;
        if (handler) handler(granted);
    }
    std::string source() const override { return "device"; }

 private:
    PermissionTarget target_;
    LinuxPermissionOptions options_;
};

// An X11 client may read the whole screen once it is connected; the
// connection is the trial, made once when the provider is made.
class X11ScreenPermission : public PermissionProvider {
 public:
    explicit X11ScreenPermission(const LinuxPermissionOptions& options) {
        std::optional<std::string> display = options.display;
        if (!display) {
            if (const char* env = std::getenv("DISPLAY")) display = env;
        }
        if (!display || display->empty()) {
            Shared2::general()->error("X11 session without a display to capture");
            return;
        }
        xcb_connection_t* connection = xcb_connect(display->c_str(), nullptr);
        const int failure = xcb_connection_has_error(connection);
        xcb_disconnect(connection);
        if (failure != 0) {
            Shared2::general()->error("Cannot connect to X display {}: xcb error {}", *display,
                                      failure);
            return;
        }
        status_ = AskAuthorizationStatus::authorized;
    }
    AskAuthorizationStatus authorizationStatus() const override { return status_; }
    void requestPermission(std::function<void(bool)> handler) override {
        if (handler) handler(false);
    }
    std::string source() const override { return "session"; }

 private:
    AskAuthorizationStatus status_ = AskAuthorizationStatus::denied;
};

// The ScreenCast portal's session handshake; true with the new restore token
// when the portal started a stream.
struct ScreenCastOutcome {
    std::optional<std::uint32_t> response;  // none: failure before an answer
    std::optional<std::string> restoreToken;
};

ScreenCastOutcome screenCastHandshake(const LinuxPermissionOptions& options,
                                      const std::optional<std::string>& restoreToken) {
    ScreenCastOutcome outcome;
    auto bus = openBus(options);
    if (!bus) return outcome;
    std::string error;
    auto fail = [&](const char* step) {
        Shared2::general()->error("ScreenCast {}: {}", step, error);
        return outcome;
    };
    PortalBus::RequestCall create{"org.freedesktop.portal.ScreenCast", "CreateSession"};
    create.options = {{"session_handle_token", std::string("zdrsession")}};
    auto created = bus->request(create, options.callTimeout, &error);
    if (!created) return fail("CreateSession");
    if (created->response != 0) {
        outcome.response = created->response;
        return outcome;
    }
    auto it = created->results.find("session_handle");
    const auto* session =
        it == created->results.end() ? nullptr : std::get_if<std::string>(&it->second);
    if (!session || session->empty()) {
        error = "no session_handle";
        return fail("CreateSession");
    }
    PortalBus::RequestCall select{"org.freedesktop.portal.ScreenCast", "SelectSources"};
    select.sessionPath = *session;
    select.options = {{"types", std::uint32_t{1}}, {"persist_mode", std::uint32_t{2}}};
    if (restoreToken) select.options.push_back({"restore_token", *restoreToken});
    auto selected = bus->request(select, options.responseTimeout, &error);
    if (!selected) return fail("SelectSources");
    if (selected->response != 0) {
        outcome.response = selected->response;
        return outcome;
    }
    PortalBus::RequestCall start{"org.freedesktop.portal.ScreenCast", "Start"};
    start.sessionPath = *session;
    start.parentWindow = "";
    auto started = bus->request(start, options.responseTimeout, &error);
    if (!started) return fail("Start");
    outcome.response = started->response;
    auto token = started->results.find("restore_token");
    if (token != started->results.end()) {
        if (const auto* s = std::get_if<std::string>(&token->second)) outcome.restoreToken = *s;
    }
    return outcome;
}

class PortalScreenPermission : public PermissionProvider,
                               public std::enable_shared_from_this<PortalScreenPermission> {
 public:
    explicit PortalScreenPermission(LinuxPermissionOptions options) : options_(std::move(options)) {
        // Decided once: a kept restore token the portal accepts without asking.
        auto defaults = this->defaults();
        auto token = defaults->stringForKey(kScreenCastRestoreTokenKey);
        if (!token || token->empty()) return;
        // Only a token that is accepted quickly counts: it must not wait for a person.
        auto quick = options_;
        quick.responseTimeout = options_.callTimeout;
        auto outcome = screenCastHandshake(quick, token);
        if (outcome.response == 0u) {
            status_ = AskAuthorizationStatus::authorized;
            if (outcome.restoreToken)
                defaults->setString(*outcome.restoreToken, kScreenCastRestoreTokenKey);
        }
    }

    AskAuthorizationStatus authorizationStatus() const override {
        std::lock_guard lock(mutex_);
        return status_;
    }

    void requestPermission(std::function<void(bool)> handler) override {
        DispatchQueue::global().async([self = shared_from_this(), handler = std::move(handler)] {
            self->answerRequest(handler);
        });
    }

    void answerRequest(const std::function<void(bool)>& handler) {
        {
            auto outcome = screenCastHandshake(options_, std::nullopt);
            const bool granted = outcome.response == 0u;
            {
                std::lock_guard lock(mutex_);
                if (granted) {
                    status_ = AskAuthorizationStatus::authorized;
                } else if (outcome.response == 1u || outcome.response == 2u) {
                    status_ = AskAuthorizationStatus::denied;
                }
            }
            if (granted && outcome.restoreToken) {
                defaults()->setString(*outcome.restoreToken, kScreenCastRestoreTokenKey);
            }
            if (handler) handler(granted);
        }
    }
    std::string source() const override { return "portal"; }

 private:
    std::shared_ptr<UserDefaults> defaults() const {
        return options_.defaults ? options_.defaults : UserDefaults::standard();
    }
    LinuxPermissionOptions options_;
    mutable std::mutex mutex_;
    AskAuthorizationStatus status_ = AskAuthorizationStatus::notDetermined;
};

}  // namespace

std::shared_ptr<ScriptRunner> ScriptRunner::installed() {
    std::lock_guard lock(runnerMutex());
    if (!runnerSlot()) runnerSlot() = std::make_shared<DBusActivateScriptRunner>();
    return runnerSlot();
}

void ScriptRunner::install(std::shared_ptr<ScriptRunner> runner) {
    std::lock_guard lock(runnerMutex());
    runnerSlot() = std::move(runner);
}

bool DBusActivateScriptRunner::run(const std::string& scriptText, const std::string& appName,
                                   std::string* errorInfo) {
    auto describe = [&](const std::string& what) {
        if (errorInfo) *errorInfo = "{script: \"" + scriptText + "\", error: \"" + what + "\"}";
        return false;
    };
    if (!detail::isApplicationBusName(appName)) {
        return describe("not an application id (reverse-DNS D-Bus name)");
    }
    std::string error;
    auto bus = PortalBus::open(options_.sessionBusAddress, options_.callTimeout, &error);
    if (!bus) return describe(error);
    if (!bus->activateApplication(appName, detail::applicationObjectPath(appName), &error)) {
        return describe(error);
    }
    return true;
}

std::string ApplescriptPermissions::scriptText(const std::string& appName) {
    return "tell application \"" + appName + "\"\n  activate\nend tell";
}

void ApplescriptPermissions::tryToForceAuth(const std::string& appTarget,
                                            const std::function<void(bool)>& handler) {
    std::string errorInfo;
    const bool ok = ScriptRunner::installed()->run(scriptText(appTarget), appTarget, &errorInfo);
    if (!ok) Shared2::general()->error("Got an auth error: {}", errorInfo);
    if (handler) handler(ok);
}

ApplescriptPermissions::ApplescriptPermissions(std::string appName) : appName_(std::move(appName)) {
    tryToForceAuth(appName_, [this](bool ok) {
        status_ = ok ? AskAuthorizationStatus::authorized : AskAuthorizationStatus::denied;
    });
}

void ApplescriptPermissions::requestPermission(std::function<void(bool)> handler) {
    tryToForceAuth(appName_, handler);
}

bool LinuxPermissionProviders::isSandboxed(const fs::path& root) {
    std::error_code ec;
    return fs::exists(under(root, "/.flatpak-info"), ec);
}

std::optional<std::string> LinuxPermissionProviders::sandboxAppId(const fs::path& root) {
    std::ifstream in(under(root, "/.flatpak-info"));
    std::string line;
    bool inApplication = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.front() == '[') {
            inApplication = line == "[Application]";
        } else if (inApplication && line.rfind("name=", 0) == 0) {
            auto name = line.substr(5);
            if (!name.empty()) return name;
        }
    }
    return std::nullopt;
}

AskAuthorizationStatus LinuxPermissionProviders::videoDeviceStatus(const fs::path& root) {
    return nodeStatus(under(root, "/dev/video*"));
}

std::string LinuxPermissionProviders::sessionType(const LinuxPermissionOptions& options) {
    if (options.sessionType) return *options.sessionType;
    if (const char* t = std::getenv("XDG_SESSION_TYPE");
        t && (std::string(t) == "x11" || std::string(t) == "wayland")) {
        return t;
    }
    if (const char* w = std::getenv("WAYLAND_DISPLAY"); w && *w) return "wayland";
    if (const char* d = std::getenv("DISPLAY"); d && *d) return "x11";
    return "";
}

std::shared_ptr<PermissionProvider> LinuxPermissionProviders::makeProvider(
    PermissionTarget target) {
    const bool sandboxed = isSandboxed(options_.root);
    switch (target) {
        case PermissionTarget::microphone:
        case PermissionTarget::camera:
            if (sandboxed) return std::make_shared<PortalDevicePermission>(target, options_);
            return std::make_shared<DevicePermission>(target, options_);
        case PermissionTarget::screen:
            if (!sandboxed && sessionType(options_) == "x11") {
                return std::make_shared<X11ScreenPermission>(options_);
            }
            return std::make_shared<PortalScreenPermission>(options_);
        case PermissionTarget::applescript:
            return nullptr;
    }
    return nullptr;
}

std::shared_ptr<PermissionProvider> LinuxPermissionProviders::makeApplescriptProvider(
    const std::string& targetAppName) {
    return std::make_shared<ApplescriptPermissions>(targetAppName);
}

}  // namespace zdr
