// Permission targets, statuses, errors and the provider interface: the
// vocabulary of the permission requests (see ask_permission.h).
//
// Thread safety: the functions here are pure or go through Trust (any
// thread). PermissionProvider implementations document their own threads;
// the handler of requestPermission may arrive on any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zdr {

/// The platform's media authorization status. Only `authorized` is granted.
enum class AskAuthorizationStatus : std::int32_t {
    notDetermined = 0,
    restricted = 1,
    denied = 2,
    authorized = 3,
};

/// What a recording app may need consent for, in this order.
enum class PermissionTarget { microphone, camera, screen, applescript };

inline constexpr PermissionTarget kAllPermissionTargets[] = {
    PermissionTarget::microphone, PermissionTarget::camera, PermissionTarget::screen,
    PermissionTarget::applescript};

/// "audio", "the camera", "the screen", "scripting": what the app records.
std::string_view dialogWhat(PermissionTarget target);
/// "microphone", "the camera", "the screen", "scripting to apps".
std::string_view dialogPermissionDesc(PermissionTarget target);
/// The settings link that openPreferences() opens.
std::string_view preferencesLink(PermissionTarget target);
/// Opens the target's settings page through Trust::workspace().
void openPreferences(PermissionTarget target);
/// The resource name of the target's picture, for user interfaces (an icon
/// name from the freedesktop icon naming rules).
std::string_view image(PermissionTarget target);
/// "microphone", "camera", "screen", "applescript" (for logs and tools).
std::string_view permissionTargetName(PermissionTarget target);
/// The inverse of permissionTargetName().
std::optional<PermissionTarget> permissionTargetFromName(std::string_view name);

/// Errors of the permission requests. Only noTargetNameSpecified is produced
/// here; useAppleScriptDirectly is for callers.
enum class PermissionError { noTargetNameSpecified = 0, useAppleScriptDirectly = 1 };

std::string_view permissionErrorName(PermissionError error);

/// One target's status, as determinePermissionsFor() reports it.
struct PermissionResponse {
    PermissionTarget type = PermissionTarget::microphone;
    AskAuthorizationStatus result = AskAuthorizationStatus::notDetermined;
    std::optional<PermissionError> error;

    bool granted() const { return result == AskAuthorizationStatus::authorized; }
    bool operator==(const PermissionResponse&) const = default;
};

/// A source of one target's status that can also ask the person.
class PermissionProvider {
 public:
    virtual ~PermissionProvider() = default;
    /// The current status, without asking. May block briefly (bounded D-Bus
    /// calls) but never waits for a person.
    virtual AskAuthorizationStatus authorizationStatus() const = 0;
    /// Asks the person (or the system); the handler receives whether access
    /// was granted, once, on any thread.
    virtual void requestPermission(std::function<void(bool)> handler) = 0;
    /// Where the status came from ("portal", "device", "session"...), for tools.
    virtual std::string source() const { return {}; }
};

}  // namespace zdr
