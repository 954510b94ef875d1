#include "zdr/permissions/ask_permission.h"

#include <mutex>

#include "zdr/audio/alert_presenter.h"
#include "zdr/logging/shared2.h"
#include "zdr/permissions/linux_permission_providers.h"
#include "zdr/runtime/bundle.h"

namespace zdr {
namespace {

std::mutex& providersMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<PermissionProviders>& providersSlot() {
    static std::shared_ptr<PermissionProviders> slot;
    return slot;
}

void answer(const PermissionHandler& handler, AskAuthorizationStatus status,
            std::optional<PermissionError> error = std::nullopt) {
    if (handler) handler(status, error);
}

// A decided status is the answer at once; only an undecided one asks.
void answerOrRequest(std::shared_ptr<PermissionProvider> provider, PermissionHandler handler) {
    const auto status = provider->authorizationStatus();
    if (status != AskAuthorizationStatus::notDetermined) {
        answer(handler, status);
        return;
    }
    AskPermission::continuePermissionWith(std::move(provider), std::move(handler));
}
}  // namespace

std::shared_ptr<PermissionProviders> PermissionProviders::installed() {
    std::lock_guard lock(providersMutex());
    if (!providersSlot()) providersSlot() = std::make_shared<LinuxPermissionProviders>();
    return providersSlot();
}

void PermissionProviders::install(std::shared_ptr<PermissionProviders> providers) {
    std::lock_guard lock(providersMutex());
    providersSlot() = std::move(providers);
}

void AskPermission::requestPermissionFor(PermissionTarget type, PermissionHandler handler) {
    if (type == PermissionTarget::applescript) {
        answer(handler, AskAuthorizationStatus::notDetermined,
               PermissionError::noTargetNameSpecified);
        return;
    }
    auto provider = PermissionProviders::installed()->makeProvider(type);
    if (!provider) {
        Shared2::general()->error("No permission provider for {}", permissionTargetName(type));
        answer(handler, AskAuthorizationStatus::notDetermined);
        return;
    }
    answerOrRequest(std::move(provider), std::move(handler));
}

void AskPermission::requestPermissionForApplescript(const std::string& targetAppName,
                                                    PermissionHandler handler) {
    auto provider = PermissionProviders::installed()->makeApplescriptProvider(targetAppName);
    if (!provider) {
        answer(handler, AskAuthorizationStatus::notDetermined,
               PermissionError::noTargetNameSpecified);
        return;
    }
    answerOrRequest(std::move(provider), std::move(handler));
}

void AskPermission::continuePermissionWith(std::shared_ptr<PermissionProvider> provider,
                                           PermissionHandler handler) {
    if (!provider) {
        answer(handler, AskAuthorizationStatus::notDetermined);
        return;
    }
    auto* raw = provider.get();
    // The provider stays alive until it has answered; its answer itself is
    // not trusted: the status is read again.
    raw->requestPermission([provider = std::move(provider), handler = std::move(handler)](bool) {
        answer(handler, provider->authorizationStatus());
    });
}

void AskPermission::askPermissionForAudio(bool prompt, PermissionHandler handler) {
    requestPermissionFor(PermissionTarget::microphone,
                         prompt ? wrapWithPrompt(PermissionTarget::microphone, std::move(handler))
                                : std::move(handler));
}

void AskPermission::askPermissionForCamera(bool prompt, PermissionHandler handler) {
    requestPermissionFor(
        PermissionTarget::camera,
        prompt ? wrapWithPrompt(PermissionTarget::camera, std::move(handler)) : std::move(handler));
}

void AskPermission::askPermissionForScreen(bool prompt, PermissionHandler handler) {
    auto wrapped =
        prompt ? wrapWithPrompt(PermissionTarget::screen, std::move(handler)) : std::move(handler);
    auto provider = PermissionProviders::installed()->makeProvider(PermissionTarget::screen);
    if (!provider) {
        answer(wrapped, AskAuthorizationStatus::notDetermined);
        return;
    }
    answerOrRequest(std::move(provider), std::move(wrapped));
}

void AskPermission::askPermissionForDevice(bool prompt, const CaptureDeviceDescription& device,
                                           PermissionHandler handler) {
    if (device.mediaType == CaptureDeviceDescription::MediaType::video) {
        askPermissionForCamera(prompt, std::move(handler));
    } else {
        askPermissionForAudio(prompt, std::move(handler));
    }
}

void AskPermission::applescriptAskPermission(bool prompt, const std::string& targetApp,
                                             PermissionHandler handler) {
    requestPermissionForApplescript(
        targetApp, prompt ? wrapWithPrompt(PermissionTarget::applescript, std::move(handler))
                          : std::move(handler));
}

std::string AskPermission::applicationName() {
    auto name = Bundle::main().name();
    return name && !name->empty() ? *name : std::string("<Unknown>");
}

std::string AskPermission::promptTitle(PermissionTarget type) {
    return applicationName() + " needs your permission to record " + std::string(dialogWhat(type));
}

std::string AskPermission::promptMessage(PermissionTarget type) {
    return "Please go to System Preferences, Security & Privacy, and give " + applicationName() +
           " access to " + std::string(dialogPermissionDesc(type));
}

PermissionHandler AskPermission::wrapWithPrompt(PermissionTarget type, PermissionHandler handler) {
    return usingAlertDialog(promptTitle(type), promptMessage(type), std::move(handler),
                            [type] { openPreferences(type); });
}

PermissionHandler AskPermission::usingAlertDialog(std::string title, std::string message,
                                                  PermissionHandler handler,
                                                  std::function<void()> privacyButton) {
    return [title = std::move(title), message = std::move(message), handler = std::move(handler),
            privacyButton = std::move(privacyButton)](AskAuthorizationStatus status,
                                                      std::optional<PermissionError> error) {
        if (status == AskAuthorizationStatus::restricted ||
            status == AskAuthorizationStatus::denied) {
            if (auto presenter = AlertPresenter::installed()) {
                AlertRequest request;
                request.title = title;
                request.message = message;
                request.buttonText = "OK";
                request.otherButtons = {"Privacy Settings"};
                const auto response = presenter->runModal(request);
                if (response.modalResponse == kAlertSecondButtonReturn && privacyButton) {
                    privacyButton();
                }
            } else {
                // Nobody to ask: the safe answer is to open nothing.
                Shared2::general()->warning("No alert presenter installed; not shown: {} — {}",
                                            title, message);
            }
        }
        answer(handler, status, error);
    };
}

bool AskPermission::isGranted(const std::vector<PermissionTarget>& types) {
    for (auto type : types) {
        if (!determinePermissionsFor(type).granted()) return false;
    }
    return true;
}

PermissionResponse AskPermission::determinePermissionsFor(PermissionTarget type) {
    PermissionResponse response;
    response.type = type;
    if (type == PermissionTarget::applescript) {
        response.error = PermissionError::noTargetNameSpecified;
        return response;
    }
    if (auto provider = PermissionProviders::installed()->makeProvider(type)) {
        response.result = provider->authorizationStatus();
    }
    return response;
}

std::vector<PermissionResponse> AskPermission::determineExistingPermissions() {
    return {determinePermissionsFor(PermissionTarget::screen),
            determinePermissionsFor(PermissionTarget::camera),
            determinePermissionsFor(PermissionTarget::microphone)};
}

}  // namespace zdr
