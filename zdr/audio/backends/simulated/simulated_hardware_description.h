// Loading a description of a machine's audio hardware for the simulated
// backend from JSON, and writing one back out.
//
//   {
//     "devices": [
//       { "uid": "BuiltInSpeakerDevice",          (required, unique)
//         "name": "Built-in Speakers",            (required)
//         "manufacturer": "Apple Inc.",
//         "transport": "builtin",    builtin usb hdmi displayport airplay bluetooth
//                                    bluetoothle virtual aggregate pci firewire
//                                    thunderbolt avb unknown, or a four-character code
//         "sampleRate": 48000, "sampleRates": [44100, 48000],
//         "bufferFrameSize": 512, "bufferFrameSizeRange": [15, 4096],
//         "maxVariableBufferFrameSize": 1024,
//         "running": false, "hidden": false, "canBeDefault": true, "canBeDefaultSystem": true,
//         "output": {                           (and/or "input")
//           "streams": [2],                     channels per stream (or "channels": 2)
//           "bitsPerChannel": 32, "float": true,
//           "volume": 0.6,                      main control: a number, or
//                                               {"value": 0.6, "settable": false}
//           "channelVolumes": [0.6, 0.6],       controls on elements 1, 2, ...
//           "mute": false, "channelMutes": [false, false],
//           "dataSources": [{"id": "ispk", "name": "Internal Speakers"}],
//           "dataSource": "ispk", "dataSourceSettable": true,
//           "layout": ["Left", "Right"],        preferred layout: label names or numbers
//           "safetyOffset": 32, "latency": 24 } } ],
//     "defaults": { "output": "BuiltInSpeakerDevice", "input": "...", "systemOutput": "..." }
//   }
//
// Unknown keys, wrong types, duplicate UIDs, rates outside the device's list,
// controls on channels the device does not have, and defaults that name a
// device without streams in that direction are all errors: the message names
// the place ("devices[2].output.channelVolumes[3]") and the problem.
//
// Thread safety: free functions without shared state.
#pragma once

#include <optional>
#include <string>

#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"

namespace zdr::hal {

/// Parses a description; on failure answers none and sets *error.
std::optional<SimulatedHardwareDescription> parseHardwareDescription(const std::string& json,
                                                                     std::string* error);
/// Reads and parses a file; the error text starts with the file's path.
std::optional<SimulatedHardwareDescription> loadHardwareDescription(const std::string& path,
                                                                    std::string* error);
/// The JSON form of a description (what parseHardwareDescription reads).
std::string hardwareDescriptionToJSON(const SimulatedHardwareDescription& description);

}  // namespace zdr::hal
