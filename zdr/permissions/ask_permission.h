// AskPermission: one way for a recording app to find out and ask for consent
// to use the microphone, the camera, the screen and the scripting of other
// applications, and to explain a refusal in an alert whose second button
// opens the right settings page (through Trust).
//
//   AskPermission::askPermissionForAudio(true, [](AskAuthorizationStatus s, auto error) {
//       if (s == AskAuthorizationStatus::authorized) startRecording();
//   });
//
// Providers come from the installed PermissionProviders (by default the Linux
// ones of linux_permission_providers.h); tests and hosts may install their own.
//
// Threads: call from any thread. A handler runs synchronously on the caller's
// thread when the status is already decided, else on the thread where the
// platform answers (a global queue). With prompt true the explaining alert
// runs through the installed AlertPresenter on the thread that calls the
// handler; callers that prompt should be on the main thread or hop to it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zdr/permissions/permission_types.h"

namespace zdr {

using PermissionHandler =
    std::function<void(AskAuthorizationStatus, std::optional<PermissionError>)>;

/// Makes the providers behind AskPermission.
class PermissionProviders {
 public:
    virtual ~PermissionProviders() = default;
    /// The provider for microphone, camera or screen (null for applescript).
    virtual std::shared_ptr<PermissionProvider> makeProvider(PermissionTarget target) = 0;
    /// The provider for scripting `targetAppName`; making it runs the
    /// auth-forcing script once.
    virtual std::shared_ptr<PermissionProvider> makeApplescriptProvider(
        const std::string& targetAppName) = 0;

    /// The installed providers; the Linux default when none was installed.
    static std::shared_ptr<PermissionProviders> installed();
    /// Installs (or, with null, puts the default back).
    static void install(std::shared_ptr<PermissionProviders> providers);
};

/// A capture device as askPermissionForDevice() needs it: its media type
/// decides whether it is the microphone or the camera.
struct CaptureDeviceDescription {
    enum class MediaType { audio, video };
    std::string uniqueID;
    MediaType mediaType = MediaType::audio;
};

class AskPermission {
 public:
    static void requestPermissionFor(PermissionTarget type, PermissionHandler handler);
    static void requestPermissionForApplescript(const std::string& targetAppName,
                                                PermissionHandler handler);
    static void continuePermissionWith(std::shared_ptr<PermissionProvider> provider,
                                       PermissionHandler handler);

    static void askPermissionForAudio(bool prompt, PermissionHandler handler);
    static void askPermissionForCamera(bool prompt, PermissionHandler handler);
    static void askPermissionForScreen(bool prompt, PermissionHandler handler);
    static void askPermissionForDevice(bool prompt, const CaptureDeviceDescription& device,
                                       PermissionHandler handler);
    static void applescriptAskPermission(bool prompt, const std::string& targetApp,
                                         PermissionHandler handler);

    /// A handler that explains a refusal of `type` before passing the answer on.
    static PermissionHandler wrapWithPrompt(PermissionTarget type, PermissionHandler handler);
    /// A handler that, for status 1 or 2, runs an alert with `title`,
    /// `message` and the buttons "OK" and "Privacy Settings" (the latter runs
    /// `privacyButton`), then passes the answer on; 0 and 3 pass straight on.
    static PermissionHandler usingAlertDialog(std::string title, std::string message,
                                              PermissionHandler handler,
                                              std::function<void()> privacyButton);

    static bool isGranted(const std::vector<PermissionTarget>& types);
    static PermissionResponse determinePermissionsFor(PermissionTarget type);
    /// Responses for screen, camera and microphone, in that order.
    static std::vector<PermissionResponse> determineExistingPermissions();

    /// The application name shown in the alerts ("<Unknown>" without one).
    static std::string applicationName();
    static std::string promptTitle(PermissionTarget type);
    static std::string promptMessage(PermissionTarget type);
};

}  // namespace zdr
