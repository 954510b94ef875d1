#include "zdr/audio/default_devices.h"

#include <cstdio>

#include "zdr/audio/alert_presenter.h"
#include "zdr/audio/detail/channel_log.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"
#include "zdr/runtime/error.h"
#include "zdr/runtime/user_defaults.h"

namespace zdr {

void makeDefaultAudioDevice(hal::AudioObjectID deviceID, const std::string& deviceDescription,
                            bool isInput, std::shared_ptr<hal::AudioHardware> hardware) {
    if (deviceID == 0) {
        if (isInput) {
            ZDR_CHANNEL_LOG(error,
                            "We couldn't make %s the default input device - the device ID is zero",
                            deviceDescription.c_str());
        } else {
            ZDR_CHANNEL_LOG(error,
                            "We couldn't make %s the default output device - the device ID is "
                            "zero",
                            deviceDescription.c_str());
        }
        return;
    }
    try {
        try {
            hal::CAHALAudioSystemObject system(std::move(hardware));
            system.SetDefaultAudioDevice(isInput, false, deviceID);
        } catch (const hal::CAException& e) {
            // Reported the way the rest of the application reports platform
            // exceptions, so the log line carries the same text everywhere.
            char reason[64];
            std::snprintf(reason, sizeof reason, "CoreAudio exception , code %d",
                          static_cast<int>(e.GetError()));
            throw Exception("Audio", reason);
        }
    } catch (const Exception& e) {
        // "occured" and "occurred" differ between the two lines on purpose:
        // log searches written against either keep working.
        if (isInput) {
            ZDR_CHANNEL_LOG(error,
                            "Exception occurred while attempting to set %s as the default input "
                            "device. %s",
                            deviceDescription.c_str(), e.reason().c_str());
        } else {
            ZDR_CHANNEL_LOG(error,
                            "Exception occured while attempting to set %s as the default output "
                            "device. %s",
                            deviceDescription.c_str(), e.reason().c_str());
        }
    }
}

bool showMakeDefaultWarning(const std::string& deviceDescription, const std::string& detail) {
    const std::string message = "Unable to set the default output device to " + deviceDescription +
                                " (" + detail +
                                ").  If you don't hear sound any more please check your system "
                                "preferences";
    auto presenter = AlertPresenter::installed();
    if (!presenter) {
        ZDR_CHANNEL_LOG(warning, "%s", message.c_str());
        return false;
    }
    AlertRequest request;
    request.title = "Unable to restore sound setting";
    request.message = message;
    request.buttonText = "OK";
    request.suppressionCheckboxTitle = "Don't show this again";
    const AlertResponse response = presenter->runModal(request);
    auto defaults = UserDefaults::standard();
    defaults->setBool(response.suppressionChecked, kDontShowPutBackOutputDeviceWarning);
    defaults->synchronize();
    return true;
}

}  // namespace zdr
