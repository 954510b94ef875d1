// The Linux providers against real parts: a private dbus-daemon with a
// scripted portal on it, and a scratch root with /dev nodes and /.flatpak-info.
#include "zdr/permissions/linux_permission_providers.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "zdr/logging/base_destination.h"
#include "zdr/logging/shared2.h"
#include "zdr/permissions/permissions_test_support.h"
#include "zdr/runtime/user_defaults.h"
#include "zdr/testing/dbus_session_fixture.h"
#include "zdr/testing/eventually.h"
#include "zdr/testing/mock_portal.h"
#include "zdr/testing/xvfb_fixture.h"

namespace zdr {
namespace {

namespace fs = std::filesystem;
using S = AskAuthorizationStatus;
using Answer = testing::MockPortal::Answer;
using namespace std::chrono_literals;

constexpr const char* kApp = "org.example.Recorder";
constexpr const char* kScriptedApp = "org.example.Editor";

struct Outcome {
    std::mutex mutex;
    bool done = false;
    S status = S::notDetermined;
    std::optional<PermissionError> error;
    PermissionHandler handler() {
        return [this](S s, std::optional<PermissionError> e) {
            std::lock_guard lock(mutex);
            status = s;
            error = e;
            done = true;
        };
    }
    bool wait() {
        return testing::eventually(
            [&] {
                std::lock_guard lock(mutex);
                return done;
            },
            10000ms);
    }
};

class ScratchRoot {
 public:
    ScratchRoot() {
        char pattern[] = "/tmp/zdr-root-XXXXXX";
        root_ = ::mkdtemp(pattern);
        fs::create_directories(root_ / "dev/snd");
    }
    ~ScratchRoot() {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    const fs::path& path() const { return root_; }
    void sandbox(const std::string& appId) {
        std::ofstream(root_ / ".flatpak-info")
            << "[Application]\nname=" << appId << "\nruntime=runtime/x\n";
    }
    void file(const std::string& relative) { std::ofstream(root_ / relative) << ""; }
    void directory(const std::string& relative) { fs::create_directories(root_ / relative); }

 private:
    fs::path root_;
};

class PortalProvidersTest : public ::testing::Test {
 protected:
    void SetUp() override {
        if (!testing::DbusSessionBus::executable()) GTEST_SKIP() << "dbus-daemon is not installed";
        std::string error;
        ASSERT_TRUE(bus_.start(&error)) << error;
        portal_ = std::make_unique<testing::MockPortal>(bus_.address());
        ASSERT_TRUE(portal_->start(&error, kScriptedApp)) << error;
        defaults_ = std::make_shared<UserDefaults>(root_.path() / "defaults.json");
        options_.root = root_.path();
        options_.sessionBusAddress = bus_.address();
        options_.callTimeout = 2000ms;
        options_.responseTimeout = 3000ms;
        options_.defaults = defaults_;
        options_.audioServerReachable = [] { return false; };
    }
    void TearDown() override {
        PermissionProviders::install(nullptr);
        ScriptRunner::install(nullptr);
        AlertPresenter::install(nullptr);
        Trust::setWorkspace(nullptr);
        if (portal_) portal_->stop();
    }
    S statusOf(PermissionTarget target) {
        return LinuxPermissionProviders(options_).makeProvider(target)->authorizationStatus();
    }
    S request(PermissionTarget target) {
        PermissionProviders::install(std::make_shared<LinuxPermissionProviders>(options_));
        Outcome outcome;
        AskPermission::requestPermissionFor(target, outcome.handler());
        EXPECT_TRUE(outcome.wait());
        std::lock_guard lock(outcome.mutex);
        return outcome.status;
    }

    ScratchRoot root_;
    testing::DbusSessionBus bus_;
    std::unique_ptr<testing::MockPortal> portal_;
    std::shared_ptr<UserDefaults> defaults_;
    LinuxPermissionOptions options_;
};

TEST_F(PortalProvidersTest, SandboxedStatusComesFromThePermissionStore) {
    root_.sandbox(kApp);
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);  // no entry at all
    portal_->setStoreEntry("devices", "camera", kApp, {"yes"});
    portal_->setStoreEntry("devices", "microphone", kApp, {"no"});
    portal_->setStoreEntry("devices", "camera", "org.other.App", {"no"});
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::authorized);
    EXPECT_EQ(statusOf(PermissionTarget::microphone), S::denied);
    portal_->setStoreEntry("devices", "camera", kApp, {"ask"});
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);
    portal_->setStoreEntry("devices", "camera", kApp, {"perhaps"});
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);
    portal_->setStoreEntry("devices", "camera", kApp, {});
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);
    EXPECT_EQ(LinuxPermissionProviders(options_).makeProvider(PermissionTarget::camera)->source(),
              "portal");
}

TEST_F(PortalProvidersTest, BrokenStoreAnswersAreNotDetermined) {
    root_.sandbox(kApp);
    portal_->setStoreEntry("devices", "camera", kApp, {"yes"});
    portal_->setStoreAnswer(Answer::error);
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);
    portal_->setStoreAnswer(Answer::garbage);
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);
    portal_->setStoreAnswer(Answer::noAnswer);
    options_.callTimeout = 300ms;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(PortalProvidersTest, NoBusOrNoPortalIsNotDetermined) {
    root_.sandbox(kApp);
    options_.sessionBusAddress = "unix:path=" + (root_.path() / "no-such-socket").string();
    EXPECT_EQ(statusOf(PermissionTarget::microphone), S::notDetermined);
    EXPECT_EQ(request(PermissionTarget::microphone), S::notDetermined);
    options_.sessionBusAddress = bus_.address();
    portal_->stop();  // the bus is there, nobody owns the portal names
    EXPECT_EQ(statusOf(PermissionTarget::camera), S::notDetermined);
    EXPECT_EQ(request(PermissionTarget::camera), S::notDetermined);
}

TEST_F(PortalProvidersTest, SandboxedRequestsGoThroughTheCameraAndDevicePortals) {
    root_.sandbox(kApp);
    portal_->setDeviceAnswer(Answer::yes);
    EXPECT_EQ(request(PermissionTarget::camera), S::authorized);
    EXPECT_EQ(portal_->storeEntry("devices", "camera", kApp), std::vector<std::string>{"yes"});
    portal_->setDeviceAnswer(Answer::no);
    EXPECT_EQ(request(PermissionTarget::microphone), S::denied);
    auto calls = portal_->calls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "Camera.AccessCamera"), calls.end());
    EXPECT_NE(std::find(calls.begin(), calls.end(), "Device.AccessDevice:microphone"), calls.end());
    // Already decided: asked no more.
    const int dialogs = portal_->dialogs();
    EXPECT_EQ(request(PermissionTarget::camera), S::authorized);
    EXPECT_EQ(portal_->dialogs(), dialogs);
}

TEST_F(PortalProvidersTest, CancelledFailedOrUnansweredRequestsStayUndecided) {
    root_.sandbox(kApp);
    for (auto answer : {Answer::cancel, Answer::error, Answer::noAnswer, Answer::garbage}) {
        portal_->setDeviceAnswer(answer);
        options_.responseTimeout = 300ms;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(request(PermissionTarget::camera), S::notDetermined);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 8s);
    }
    EXPECT_EQ(portal_->dialogs(), 4);
    EXPECT_TRUE(portal_->storeEntry("devices", "camera", kApp).empty());
}

TEST_F(PortalProvidersTest, DeniedSandboxedCameraWithPromptExplainsOnce) {
    root_.sandbox(kApp);
    portal_->setStoreEntry("devices", "camera", kApp, {"no"});
    auto alerts = std::make_shared<testing::ScriptedAlertPresenter>();
    auto workspace = std::make_shared<testing::RecordingWorkspace>();
    AlertPresenter::install(alerts);
    Trust::setWorkspace(workspace);
    alerts->answerWith(kAlertSecondButtonReturn);
    PermissionProviders::install(std::make_shared<LinuxPermissionProviders>(options_));
    Outcome outcome;
    AskPermission::askPermissionForCamera(true, outcome.handler());
    ASSERT_TRUE(outcome.wait());
    EXPECT_EQ(outcome.status, S::denied);
    EXPECT_EQ(alerts->shown().size(), 1u);
    EXPECT_EQ(portal_->dialogs(), 0);
    EXPECT_EQ(workspace->opened(),
              std::vector<std::string>{
                  "x-apple.systempreferences:com.apple.preference.security?Privacy_Camera"});
}

TEST_F(PortalProvidersTest, WaylandScreenKeepsAndReusesTheRestoreToken) {
    options_.sessionType = "wayland";
    // No token kept: undecided, and nothing asked on the bus.
    EXPECT_EQ(statusOf(PermissionTarget::screen), S::notDetermined);
    EXPECT_TRUE(portal_->calls().empty());

    portal_->setScreenCastAnswer(Answer::yes);
    EXPECT_EQ(request(PermissionTarget::screen), S::authorized);
    EXPECT_EQ(portal_->dialogs(), 1);
    auto token = defaults_->stringForKey(kScreenCastRestoreTokenKey);
    ASSERT_TRUE(token);

    // A new provider: the kept token is accepted without a dialog, and the
    // portal's fresh token replaces it.
    auto provider = LinuxPermissionProviders(options_).makeProvider(PermissionTarget::screen);
    EXPECT_EQ(provider->authorizationStatus(), S::authorized);
    EXPECT_EQ(portal_->dialogs(), 1);
    EXPECT_NE(defaults_->stringForKey(kScreenCastRestoreTokenKey), token);
    // Decided once: reading again asks the bus nothing.
    const auto calls = portal_->calls().size();
    EXPECT_EQ(provider->authorizationStatus(), S::authorized);
    EXPECT_EQ(portal_->calls().size(), calls);
}

TEST_F(PortalProvidersTest, WaylandScreenRefusedOrUnknownToken) {
    options_.sessionType = "wayland";
    defaults_->setString("stale", kScreenCastRestoreTokenKey);
    portal_->setScreenCastAnswer(Answer::cancel);
    // The stale token is not accepted: the portal would ask, which does not count.
    EXPECT_EQ(statusOf(PermissionTarget::screen), S::notDetermined);
    EXPECT_EQ(request(PermissionTarget::screen), S::denied);
    portal_->setScreenCastAnswer(Answer::error);
    EXPECT_EQ(request(PermissionTarget::screen), S::notDetermined);
}

TEST_F(PortalProvidersTest, X11ScreenWithoutADisplayIsDeniedWithoutTheBus) {
    options_.sessionType = "x11";
    options_.display = ":4242";  // nobody answers there
    auto provider = LinuxPermissionProviders(options_).makeProvider(PermissionTarget::screen);
    EXPECT_EQ(provider->authorizationStatus(), S::denied);
    EXPECT_EQ(provider->source(), "session");
    EXPECT_TRUE(portal_->calls().empty());
}

class X11ScreenTest : public testing::XvfbTest {};

TEST_F(X11ScreenTest, AuthorizedWhileTheDisplayAnswersDecidedOnce) {
    LinuxPermissionOptions options;
    options.sessionType = "x11";
    options.display = server().displayName();
    options.sessionBusAddress = "unix:path=/nonexistent/zdr-bus";
    auto provider = LinuxPermissionProviders(options).makeProvider(PermissionTarget::screen);
    EXPECT_EQ(provider->authorizationStatus(), S::authorized);
    server().stop();
    // Decided when made: the old provider keeps its answer, a new one tries again.
    EXPECT_EQ(provider->authorizationStatus(), S::authorized);
    EXPECT_EQ(LinuxPermissionProviders(options)
                  .makeProvider(PermissionTarget::screen)
                  ->authorizationStatus(),
              S::denied);
    bool answered = true;
    provider->requestPermission([&](bool ok) { answered = ok; });
    EXPECT_FALSE(answered);
}

TEST_F(PortalProvidersTest, ScriptingActivatesTheApplication) {
    ScriptRunner::install(std::make_shared<DBusActivateScriptRunner>(options_));
    EXPECT_EQ(ApplescriptPermissions(kScriptedApp).authorizationStatus(), S::authorized);
    EXPECT_EQ(portal_->calls(), std::vector<std::string>{"Application.Activate"});
    portal_->setApplicationAnswer(Answer::error);
    EXPECT_EQ(ApplescriptPermissions(kScriptedApp).authorizationStatus(), S::denied);
    // Not running and not activatable on this bus.
    EXPECT_EQ(ApplescriptPermissions("org.example.Missing").authorizationStatus(), S::denied);
    // Names that are no application id never reach the bus.
    const auto calls = portal_->calls().size();
    EXPECT_EQ(ApplescriptPermissions("Evil\" \n do shell script \"rm").authorizationStatus(),
              S::denied);
    EXPECT_EQ(ApplescriptPermissions("").authorizationStatus(), S::denied);
    EXPECT_EQ(portal_->calls().size(), calls);
    portal_->setApplicationAnswer(Answer::noAnswer);
    options_.callTimeout = 300ms;
    ScriptRunner::install(std::make_shared<DBusActivateScriptRunner>(options_));
    EXPECT_EQ(ApplescriptPermissions(kScriptedApp).authorizationStatus(), S::denied);
}

class RecordingDestination : public BaseDestination {
 public:
    using BaseDestination::BaseDestination;
    void output(const LogDetails& details, std::string_view) override {
        std::lock_guard lock(mutex_);
        messages_.emplace_back(details.message);
    }
    std::vector<std::string> messages() const {
        std::lock_guard lock(mutex_);
        return messages_;
    }

 private:
    mutable std::mutex mutex_;
    std::vector<std::string> messages_;
};

TEST(ApplescriptPermissionsTest, ScriptTextAndRunnerSeeTheName) {
    auto logger = XCGLogger::make("general", false);
    auto destination = std::make_shared<RecordingDestination>("record");
    logger->add(destination);
    Shared2::setGeneral(logger);

    struct Recorder : ScriptRunner {
        std::vector<std::pair<std::string, std::string>> runs;
        bool run(const std::string& text, const std::string& app, std::string* info) override {
            runs.emplace_back(text, app);
            *info = "refused";
            return false;
        }
    };
    auto recorder = std::make_shared<Recorder>();
    ScriptRunner::install(recorder);
    ApplescriptPermissions provider("Notes");
    EXPECT_EQ(provider.authorizationStatus(), S::denied);
    bool answer = true;
    provider.requestPermission([&](bool ok) { answer = ok; });
    EXPECT_FALSE(answer);
    ScriptRunner::install(nullptr);
    ASSERT_EQ(recorder->runs.size(), 2u);
    EXPECT_EQ(recorder->runs[0].first, "tell application \"Notes\"\n  activate\nend tell");
    EXPECT_EQ(recorder->runs[0].second, "Notes");
    const auto messages = destination->messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Got an auth error: refused"), 2)
        << ::testing::PrintToString(messages);
}

TEST(DeviceProvidersTest, CameraFromVideoNodes) {
    ScratchRoot root;
    EXPECT_EQ(LinuxPermissionProviders::videoDeviceStatus(root.path()), S::restricted);
    root.directory("dev/video0");  // present, but cannot be opened
    EXPECT_EQ(LinuxPermissionProviders::videoDeviceStatus(root.path()), S::denied);
    root.file("dev/video1");
    EXPECT_EQ(LinuxPermissionProviders::videoDeviceStatus(root.path()), S::authorized);
    LinuxPermissionOptions options;
    options.root = root.path();
    auto provider = LinuxPermissionProviders(options).makeProvider(PermissionTarget::camera);
    EXPECT_EQ(provider->authorizationStatus(), S::authorized);
    EXPECT_EQ(provider->source(), "device");
}

TEST(DeviceProvidersTest, MicrophoneFromAudioServerOrCaptureNodes) {
    ScratchRoot root;
    LinuxPermissionOptions options;
    options.root = root.path();
    bool server = false;
    options.audioServerReachable = [&] { return server; };
    LinuxPermissionProviders providers(options);
    EXPECT_EQ(providers.makeProvider(PermissionTarget::microphone)->authorizationStatus(),
              S::restricted);
    root.file("dev/snd/pcmC0D0p");  // playback only
    EXPECT_EQ(providers.makeProvider(PermissionTarget::microphone)->authorizationStatus(),
              S::restricted);
    root.directory("dev/snd/pcmC0D0c");
    EXPECT_EQ(providers.makeProvider(PermissionTarget::microphone)->authorizationStatus(),
              S::denied);
    server = true;
    EXPECT_EQ(providers.makeProvider(PermissionTarget::microphone)->authorizationStatus(),
              S::authorized);
    // Outside a sandbox a request asks nobody and reports what the device allows.
    bool answer = false;
    providers.makeProvider(PermissionTarget::microphone)->requestPermission([&](bool ok) {
        answer = ok;
    });
    EXPECT_TRUE(answer);
}

TEST(DeviceProvidersTest, SandboxMarkerAndAppId) {
    ScratchRoot root;
    EXPECT_FALSE(LinuxPermissionProviders::isSandboxed(root.path()));
    EXPECT_FALSE(LinuxPermissionProviders::sandboxAppId(root.path()));
    root.sandbox(kApp);
    EXPECT_TRUE(LinuxPermissionProviders::isSandboxed(root.path()));
    EXPECT_EQ(LinuxPermissionProviders::sandboxAppId(root.path()), kApp);
}

}  // namespace
}  // namespace zdr
