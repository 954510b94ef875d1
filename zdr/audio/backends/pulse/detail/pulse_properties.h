// How a PulseAudio sink or source reads as a hardware-layer device: transport
// type, stream format, channel layout, volume scalars, ports as data sources,
// buffer sizes, and which property addresses a change between two sightings
// of one device touches.
//
// Pure functions over PulseDevice values; callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "zdr/audio/backends/pulse/detail/pulse_connection.h"
#include "zdr/audio/hal/hal_types.h"

namespace zdr::detail {

/// The scope a device's streams, volumes and mute live in.
hal::AudioObjectPropertyScope pulseScope(const PulseDevice& device);

/// USB, Bluetooth, built-in (PCI), HDMI, AirPlay (RAOP sinks), virtual (null,
/// remap, combine, monitor...) or unknown.
hal::UInt32 pulseTransportType(const PulseDevice& device);
/// `device.vendor.name`, if the server knows it.
std::optional<std::string> pulseManufacturer(const PulseDevice& device);
/// Product name or driver: a model UID that stays the same for the same kind of device.
std::string pulseModelUID(const PulseDevice& device);

/// Linear PCM in the device's sample format, interleaved.
hal::AudioStreamBasicDescription pulseStreamFormat(const PulseDevice& device);
/// One description per channel, labelled from the channel map.
hal::AudioChannelLayout pulseChannelLayout(const PulseDevice& device);
/// The layout label of one pa_channel_position_t.
hal::AudioChannelLabel pulseChannelLabel(int position);

/// pa_volume_t <-> scalar: PA_VOLUME_NORM (100 % in pactl) is 1.0; louder
/// values read as 1.0.
hal::Float32 pulseVolumeToScalar(uint32_t volume);
uint32_t pulseScalarToVolume(hal::Float32 scalar);
hal::Float32 pulseVolumeToDecibels(uint32_t volume);
/// The main element: the loudest channel.
hal::Float32 pulseMainVolume(const PulseDevice& device);
/// Channel volumes after setting the main element: every channel is scaled so
/// the loudest reaches `scalar` and the balance between them stays.
std::vector<uint32_t> pulseWithMainVolume(const PulseDevice& device, hal::Float32 scalar);
/// Channel volumes after setting one channel element (1-based).
std::vector<uint32_t> pulseWithChannelVolume(const PulseDevice& device, hal::UInt32 element,
                                             hal::Float32 scalar);

/// Ports as data sources: ID = 1-based position in the device's port list.
std::vector<hal::UInt32> pulseDataSourceIDs(const PulseDevice& device);
std::optional<hal::UInt32> pulseDataSourceID(const PulseDevice& device, const std::string& port);
std::optional<std::string> pulsePortName(const PulseDevice& device, hal::UInt32 id);
std::optional<std::string> pulsePortDescription(const PulseDevice& device, hal::UInt32 id);

/// Buffer size in frames (configured latency, else current latency, else 512).
hal::UInt32 pulseBufferFrames(const PulseDevice& device);
hal::UInt32 pulseLatencyFrames(const PulseDevice& device);

/// The addresses whose values differ between two sightings of one device.
std::vector<hal::AudioObjectPropertyAddress> pulseChangedAddresses(const PulseDevice& before,
                                                                   const PulseDevice& after);

}  // namespace zdr::detail
