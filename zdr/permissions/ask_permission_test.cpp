#include "zdr/permissions/ask_permission.h"

#include <gtest/gtest.h>

#include "zdr/permissions/permissions_test_support.h"
#include "zdr/runtime/bundle.h"

namespace zdr {
namespace {

using S = AskAuthorizationStatus;
using testing::RecordingWorkspace;
using testing::ScriptedAlertPresenter;
using testing::ScriptedProviders;

struct Answer {
    int calls = 0;
    S status = S::notDetermined;
    std::optional<PermissionError> error;
    PermissionHandler handler() {
        return [this](S s, std::optional<PermissionError> e) {
            ++calls;
            status = s;
            error = e;
        };
    }
};

class AskPermissionTest : public ::testing::Test {
 protected:
    void SetUp() override {
        PermissionProviders::install(providers_);
        AlertPresenter::install(alerts_);
        Trust::setWorkspace(workspace_);
        Bundle::main().setInfo(kCFBundleNameKey, "Recorder");
    }
    void TearDown() override {
        PermissionProviders::install(nullptr);
        AlertPresenter::install(nullptr);
        Trust::setWorkspace(nullptr);
        Bundle::main().setInfo(kCFBundleNameKey, std::nullopt);
    }
    std::shared_ptr<ScriptedProviders> providers_ = std::make_shared<ScriptedProviders>();
    std::shared_ptr<ScriptedAlertPresenter> alerts_ = std::make_shared<ScriptedAlertPresenter>();
    std::shared_ptr<RecordingWorkspace> workspace_ = std::make_shared<RecordingWorkspace>();
};

TEST(PermissionTargetTest, DialogTextsLinksAndNames) {
    EXPECT_EQ(dialogWhat(PermissionTarget::microphone), "audio");
    EXPECT_EQ(dialogWhat(PermissionTarget::camera), "the camera");
    EXPECT_EQ(dialogWhat(PermissionTarget::screen), "the screen");
    EXPECT_EQ(dialogWhat(PermissionTarget::applescript), "scripting");
    EXPECT_EQ(dialogPermissionDesc(PermissionTarget::microphone), "microphone");
    EXPECT_EQ(dialogPermissionDesc(PermissionTarget::applescript), "scripting to apps");
    EXPECT_EQ(preferencesLink(PermissionTarget::screen),
              "x-apple.systempreferences:com.apple.preference.security?Privacy_ScreenCapture");
    EXPECT_EQ(preferencesLink(PermissionTarget::applescript),
              "x-apple.systempreferences:com.apple.preference.security?Privacy_Automation");
    for (auto target : kAllPermissionTargets) {
        EXPECT_EQ(permissionTargetFromName(permissionTargetName(target)), target);
        EXPECT_FALSE(image(target).empty());
    }
    EXPECT_FALSE(permissionTargetFromName("keyboard"));
    EXPECT_EQ(static_cast<int>(PermissionError::useAppleScriptDirectly), 1);
    PermissionResponse r{PermissionTarget::camera, S::authorized, std::nullopt};
    EXPECT_TRUE(r.granted());
    r.result = S::restricted;
    EXPECT_FALSE(r.granted());
}

TEST_F(AskPermissionTest, AuthorizedMicrophoneAnswersAtOnceWithoutAlertEvenWithPrompt) {
    providers_->set(PermissionTarget::microphone, {S::authorized, S::authorized, true});
    Answer a;
    AskPermission::askPermissionForAudio(true, a.handler());
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(a.status, S::authorized);
    EXPECT_FALSE(a.error);
    EXPECT_TRUE(alerts_->shown().empty());
    ASSERT_EQ(providers_->providers().size(), 1u);
    EXPECT_EQ(providers_->providers()[0]->requests, 0);
}

TEST_F(AskPermissionTest, DeniedCameraWithPromptShowsAlertOnceAndOkOpensNothing) {
    providers_->set(PermissionTarget::camera, {S::denied, S::denied, false});
    alerts_->answerWith(kAlertFirstButtonReturn);
    Answer a;
    AskPermission::askPermissionForCamera(true, a.handler());
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(a.status, S::denied);
    auto shown = alerts_->shown();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].title, "Recorder needs your permission to record the camera");
    EXPECT_EQ(shown[0].message,
              "Please go to System Preferences, Security & Privacy, and give Recorder access to "
              "the camera");
    EXPECT_EQ(shown[0].buttonText, "OK");
    EXPECT_EQ(shown[0].otherButtons, std::vector<std::string>{"Privacy Settings"});
    EXPECT_TRUE(workspace_->opened().empty());
}

TEST_F(AskPermissionTest, DeniedCameraPrivacySettingsOpensTheCameraPage) {
    providers_->set(PermissionTarget::camera, {S::denied, S::denied, false});
    alerts_->answerWith(kAlertSecondButtonReturn);
    Answer a;
    AskPermission::askPermissionForCamera(true, a.handler());
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(a.status, S::denied);
    EXPECT_EQ(alerts_->shown().size(), 1u);
    EXPECT_EQ(workspace_->opened(),
              std::vector<std::string>{
                  "x-apple.systempreferences:com.apple.preference.security?Privacy_Camera"});
}

TEST_F(AskPermissionTest, RestrictedAlsoPromptsButNotDeterminedDoesNot) {
    providers_->set(PermissionTarget::microphone, {S::restricted, S::restricted, false});
    Answer a;
    AskPermission::askPermissionForAudio(true, a.handler());
    EXPECT_EQ(a.status, S::restricted);
    EXPECT_EQ(alerts_->shown().size(), 1u);
    EXPECT_EQ(alerts_->shown()[0].title, "Recorder needs your permission to record audio");

    // A request that stays undecided passes straight on.
    providers_->set(PermissionTarget::microphone, {S::notDetermined, S::notDetermined, false});
    Answer b;
    AskPermission::askPermissionForAudio(true, b.handler());
    EXPECT_EQ(b.calls, 1);
    EXPECT_EQ(b.status, S::notDetermined);
    EXPECT_EQ(alerts_->shown().size(), 1u);
}

TEST_F(AskPermissionTest, WithoutPromptNoAlertEvenWhenDenied) {
    providers_->set(PermissionTarget::camera, {S::denied, S::denied, false});
    Answer a;
    AskPermission::askPermissionForCamera(false, a.handler());
    EXPECT_EQ(a.status, S::denied);
    EXPECT_TRUE(alerts_->shown().empty());
}

TEST_F(AskPermissionTest, UndecidedAsksThenReportsTheStatusReadAgainNotTheAnswer) {
    // The provider answers "true" but its status afterwards says denied: the
    // status wins.
    providers_->set(PermissionTarget::microphone, {S::notDetermined, S::denied, true});
    Answer a;
    AskPermission::requestPermissionFor(PermissionTarget::microphone, a.handler());
    ASSERT_EQ(providers_->providers().size(), 1u);
    EXPECT_EQ(providers_->providers()[0]->requests, 1);
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(a.status, S::denied);
    EXPECT_FALSE(a.error);

    providers_->set(PermissionTarget::camera, {S::notDetermined, S::authorized, false});
    Answer b;
    AskPermission::requestPermissionFor(PermissionTarget::camera, b.handler());
    EXPECT_EQ(b.status, S::authorized);
}

TEST_F(AskPermissionTest, ApplescriptThroughRequestForRunsNothingAndReportsNoTargetName) {
    providers_->set(PermissionTarget::applescript, {S::authorized, S::authorized, true});
    Answer a;
    AskPermission::requestPermissionFor(PermissionTarget::applescript, a.handler());
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(a.status, S::notDetermined);
    EXPECT_EQ(a.error, PermissionError::noTargetNameSpecified);
    EXPECT_TRUE(providers_->made().empty());
    EXPECT_TRUE(providers_->appNames().empty());

    auto response = AskPermission::determinePermissionsFor(PermissionTarget::applescript);
    EXPECT_EQ(response.error, PermissionError::noTargetNameSpecified);
    EXPECT_EQ(response.result, S::notDetermined);
    EXPECT_FALSE(AskPermission::isGranted({PermissionTarget::applescript}));
}

TEST_F(AskPermissionTest, ApplescriptWithNameUsesItsProviderAndPrompts) {
    providers_->set(PermissionTarget::applescript, {S::denied, S::denied, false});
    alerts_->answerWith(kAlertSecondButtonReturn);
    Answer a;
    AskPermission::applescriptAskPermission(true, "org.example.Editor", a.handler());
    EXPECT_EQ(providers_->appNames(), std::vector<std::string>{"org.example.Editor"});
    EXPECT_EQ(a.status, S::denied);
    ASSERT_EQ(alerts_->shown().size(), 1u);
    EXPECT_EQ(alerts_->shown()[0].title, "Recorder needs your permission to record scripting");
    EXPECT_EQ(workspace_->opened(),
              std::vector<std::string>{
                  "x-apple.systempreferences:com.apple.preference.security?Privacy_Automation"});

    // Undecided: asks once more and reports the new status.
    providers_->set(PermissionTarget::applescript, {S::notDetermined, S::authorized, true});
    Answer b;
    AskPermission::requestPermissionForApplescript("org.example.Editor", b.handler());
    EXPECT_EQ(b.status, S::authorized);
    EXPECT_EQ(providers_->providers().back()->requests, 1);
}

TEST_F(AskPermissionTest, ScreenDecidedAnswersAtOnceUndecidedContinues) {
    providers_->set(PermissionTarget::screen, {S::authorized, S::authorized, false});
    Answer a;
    AskPermission::askPermissionForScreen(true, a.handler());
    EXPECT_EQ(a.status, S::authorized);
    EXPECT_EQ(providers_->providers().back()->requests, 0);

    providers_->set(PermissionTarget::screen, {S::notDetermined, S::denied, false});
    alerts_->answerWith(kAlertFirstButtonReturn);
    Answer b;
    AskPermission::askPermissionForScreen(true, b.handler());
    EXPECT_EQ(b.status, S::denied);
    EXPECT_EQ(providers_->providers().back()->requests, 1);
    ASSERT_EQ(alerts_->shown().size(), 1u);
    EXPECT_EQ(alerts_->shown()[0].message,
              "Please go to System Preferences, Security & Privacy, and give Recorder access to "
              "the screen");
}

TEST_F(AskPermissionTest, DeviceMapsByMediaType) {
    providers_->set(PermissionTarget::camera, {S::authorized, S::authorized, true});
    providers_->set(PermissionTarget::microphone, {S::denied, S::denied, false});
    Answer video, audio;
    AskPermission::askPermissionForDevice(
        false, {"cam0", CaptureDeviceDescription::MediaType::video}, video.handler());
    AskPermission::askPermissionForDevice(
        false, {"mic0", CaptureDeviceDescription::MediaType::audio}, audio.handler());
    EXPECT_EQ(video.status, S::authorized);
    EXPECT_EQ(audio.status, S::denied);
    EXPECT_EQ(providers_->made(), (std::vector<PermissionTarget>{PermissionTarget::camera,
                                                                 PermissionTarget::microphone}));
}

TEST_F(AskPermissionTest, StatusQueriesNeverAsk) {
    providers_->set(PermissionTarget::microphone, {S::authorized, S::authorized, true});
    providers_->set(PermissionTarget::camera, {S::notDetermined, S::authorized, true});
    providers_->set(PermissionTarget::screen, {S::authorized, S::authorized, true});
    auto all = AskPermission::determineExistingPermissions();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0], (PermissionResponse{PermissionTarget::screen, S::authorized, std::nullopt}));
    EXPECT_EQ(all[1],
              (PermissionResponse{PermissionTarget::camera, S::notDetermined, std::nullopt}));
    EXPECT_EQ(all[2].type, PermissionTarget::microphone);
    EXPECT_TRUE(AskPermission::isGranted({PermissionTarget::microphone, PermissionTarget::screen}));
    EXPECT_FALSE(
        AskPermission::isGranted({PermissionTarget::microphone, PermissionTarget::camera}));
    EXPECT_TRUE(AskPermission::isGranted({}));
    for (const auto& p : providers_->providers()) EXPECT_EQ(p->requests, 0);
}

TEST_F(AskPermissionTest, UsingAlertDialogRunsTheGivenActionAndPassesErrorsOn) {
    int pressed = 0;
    Answer a;
    auto handler = AskPermission::usingAlertDialog("T", "M", a.handler(), [&] { ++pressed; });
    alerts_->answerWith(kAlertSecondButtonReturn);
    handler(S::denied, PermissionError::useAppleScriptDirectly);
    EXPECT_EQ(pressed, 1);
    EXPECT_EQ(a.error, PermissionError::useAppleScriptDirectly);
    EXPECT_EQ(alerts_->shown().at(0).title, "T");
    handler(S::authorized, std::nullopt);
    handler(S::notDetermined, std::nullopt);
    EXPECT_EQ(alerts_->shown().size(), 1u);
    EXPECT_EQ(a.calls, 3);
}

TEST_F(AskPermissionTest, WithoutPresenterOrBundleNameTheSafeAnswer) {
    AlertPresenter::install(nullptr);
    Bundle::main().setInfo(kCFBundleNameKey, std::nullopt);
    EXPECT_EQ(AskPermission::promptTitle(PermissionTarget::screen),
              "<Unknown> needs your permission to record the screen");
    providers_->set(PermissionTarget::camera, {S::denied, S::denied, false});
    Answer a;
    AskPermission::askPermissionForCamera(true, a.handler());
    EXPECT_EQ(a.status, S::denied);
    EXPECT_TRUE(workspace_->opened().empty());
}

}  // namespace
}  // namespace zdr
