#include "zdr/permissions/permission_types.h"

#include "zdr/permissions/trust.h"

namespace zdr {

std::string_view dialogWhat(PermissionTarget target) {
    switch (target) {
        case PermissionTarget::microphone:
            return "audio";
        case PermissionTarget::camera:
            return "the camera";
        case PermissionTarget::screen:
            return "the screen";
        case PermissionTarget::applescript:
            return "scripting";
    }
    return {};
}

std::string_view dialogPermissionDesc(PermissionTarget target) {
    switch (target) {
        case PermissionTarget::microphone:
            return "microphone";
        case PermissionTarget::camera:
            return "the camera";
        case PermissionTarget::screen:
            return "the screen";
        case PermissionTarget::applescript:
            return "scripting to apps";
    }
    return {};
}

std::string_view preferencesLink(PermissionTarget target) {
    switch (target) {
        case PermissionTarget::microphone:
            return "x-apple.systempreferences:com.apple.preference.security?Privacy_Microphone";
        case PermissionTarget::camera:
            return "x-apple.systempreferences:com.apple.preference.security?Privacy_Camera";
        case PermissionTarget::screen:
            return "x-apple.systempreferences:com.apple.preference.security?Privacy_ScreenCapture";
        case PermissionTarget::applescript:
            return "x-apple.systempreferences:com.apple.preference.security?Privacy_Automation";
    }
    return {};
}

void openPreferences(PermissionTarget target) {
    Trust::openLink(std::string(preferencesLink(target)));
}

std::string_view image(PermissionTarget target) {
    switch (target) {
        case PermissionTarget::microphone:
            return "audio-input-microphone";
        case PermissionTarget::camera:
            return "camera-web";
        case PermissionTarget::screen:
            return "video-display";
        case PermissionTarget::applescript:
            return "applications-system";
    }
    return {};
}

std::string_view permissionTargetName(PermissionTarget target) {
    switch (target) {
        case PermissionTarget::microphone:
            return "microphone";
        case PermissionTarget::camera:
            return "camera";
        case PermissionTarget::screen:
            return "screen";
        case PermissionTarget::applescript:
            return "applescript";
    }
    return {};
}

std::optional<PermissionTarget> permissionTargetFromName(std::string_view name) {
    for (auto target : kAllPermissionTargets) {
        if (permissionTargetName(target) == name) return target;
    }
    return std::nullopt;
}

std::string_view permissionErrorName(PermissionError error) {
    switch (error) {
        case PermissionError::noTargetNameSpecified:
            return "noTargetNameSpecified";
        case PermissionError::useAppleScriptDirectly:
            return "useAppleScriptDirectly";
    }
    return {};
}

}  // namespace zdr
