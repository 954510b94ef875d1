// zdrctl's channel commands: volume, mute, default, and the per-channel view
// of `devices --channels`.
//
// DEVICE is a device UID, else a device name (any letter case); "default"
// stands for the current default output device.
//
// Threads: call from the main thread.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/audio/audio_device.h"

namespace zdr::zdrctl {

/// The device DEVICE names, or null.
std::shared_ptr<AudioDevice> findDevice(const std::string& nameOrUID);

/// volume DEVICE [VALUE]: shows the output and input volumes, or sets the
/// output volume (the input volume for a device without outputs). VALUE is
/// 0...1 or a percentage ("40%").
int runVolume(const Options& options, std::ostream& out, std::ostream& err);
/// mute DEVICE [on|off]: shows or sets the device's main output mute.
int runMute(const Options& options, std::ostream& out, std::ostream& err);
/// default [output|input] [DEVICE]: shows the default devices, or makes
/// DEVICE the default output (or input).
int runDefault(const Options& options, std::ostream& out, std::ostream& err);

/// One line per channel of each device, indented under its device.
void printChannels(std::ostream& out, const std::vector<std::shared_ptr<AudioDevice>>& devices);
/// The channels of one device for `devices --json --channels`.
nlohmann::json channelsJSON(const std::shared_ptr<AudioDevice>& device);

}  // namespace zdr::zdrctl
