// Making a device the system's default output or input device, and the
// warning shown when an output device could not be put back.
//
// AudioDevice::makeDefaultOutputDevice / makeDefaultInputDevice and
// showMakeDefaultWarning forward here. Failures are logged, never reported to
// the caller: a device whose ID reads 0 is refused with an error line, and a
// HAL failure is logged with its status.
//
// The warning goes through the host's AlertPresenter: a single-button alert
// with a "Don't show this again" check box, whose state is stored under
// kDontShowPutBackOutputDeviceWarning in UserDefaults::standard() and saved at
// once. Without a presenter the message is logged and nothing is stored.
//
// Thread safety: makeDefaultAudioDevice from any thread; showMakeDefaultWarning
// on the thread that drives the user interface (it runs a modal alert).
#pragma once

#include <memory>
#include <string>

#include "zdr/audio/hal/audio_hardware.h"

namespace zdr {

/// User-defaults key (bool) written by the warning's check box.
inline constexpr const char* kDontShowPutBackOutputDeviceWarning =
    "dontShowPutBackOutputDeviceWarning";

/// Writes `deviceID` to the system object's default output (or input) device
/// property. `deviceDescription` names the device in log lines. Uses
/// AudioHardware::current() when no hardware is given.
void makeDefaultAudioDevice(hal::AudioObjectID deviceID, const std::string& deviceDescription,
                            bool isInput, std::shared_ptr<hal::AudioHardware> hardware = nullptr);

/// Shows the warning for `deviceDescription` with the `detail` text; answers
/// whether an alert was shown.
bool showMakeDefaultWarning(const std::string& deviceDescription, const std::string& detail);

}  // namespace zdr
