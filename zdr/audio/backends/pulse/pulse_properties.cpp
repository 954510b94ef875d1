#include "zdr/audio/backends/pulse/detail/pulse_properties.h"

#include <pulse/channelmap.h>
#include <pulse/sample.h>
#include <pulse/volume.h>

#include <algorithm>
#include <cmath>

namespace zdr::detail {
namespace {

std::string prop(const PulseDevice& d, const char* key) {
    auto it = d.properties.find(key);
    return it == d.properties.end() ? std::string() : it->second;
}

bool contains(const std::string& haystack, const char* needle) {
    return haystack.find(needle) != std::string::npos;
}

using hal::AudioObjectPropertyAddress;

}  // namespace

hal::AudioObjectPropertyScope pulseScope(const PulseDevice& device) {
    return device.isInput() ? hal::kAudioObjectPropertyScopeInput
                            : hal::kAudioObjectPropertyScopeOutput;
}

hal::UInt32 pulseTransportType(const PulseDevice& device) {
    const std::string api = prop(device, "device.api");
    const std::string bus = prop(device, "device.bus");
    // RAOP sinks are AirPlay whatever else they claim.
    if (contains(device.driver, "raop") || api == "raop" || contains(device.name, "raop")) {
        return hal::kAudioDeviceTransportTypeAirPlay;
    }
    if (device.isMonitor || prop(device, "device.class") == "monitor") {
        return hal::kAudioDeviceTransportTypeVirtual;
    }
    if (bus == "usb") return hal::kAudioDeviceTransportTypeUSB;
    if (bus == "bluetooth" || api == "bluez") return hal::kAudioDeviceTransportTypeBluetooth;
    if (bus == "firewire" || bus == "ieee1394") return hal::kAudioDeviceTransportTypeFireWire;
    if (bus == "thunderbolt") return hal::kAudioDeviceTransportTypeThunderbolt;
    if (bus == "pci" || bus == "isa" || bus == "platform") {
        // A card's HDMI or DisplayPort output reports the card's bus; its
        // form factor or active port tells the connector.
        const std::string form = prop(device, "device.form_factor");
        if (contains(device.activePort, "hdmi") || form == "hdmi") {
            return hal::kAudioDeviceTransportTypeHDMI;
        }
        if (contains(device.activePort, "displayport")) {
            return hal::kAudioDeviceTransportTypeDisplayPort;
        }
        return hal::kAudioDeviceTransportTypeBuiltIn;
    }
    if (contains(device.driver, "null") || contains(device.driver, "remap") ||
        contains(device.driver, "combine") || contains(device.driver, "loopback") ||
        contains(device.driver, "virtual") || contains(device.driver, "pipe") ||
        prop(device, "device.class") == "abstract" || prop(device, "media.class") == "Audio/Sink" ||
        bus.empty()) {
        return hal::kAudioDeviceTransportTypeVirtual;
    }
    return hal::kAudioDeviceTransportTypeUnknown;
}

std::optional<std::string> pulseManufacturer(const PulseDevice& device) {
    std::string vendor = prop(device, "device.vendor.name");
    if (vendor.empty()) return std::nullopt;
    return vendor;
}

std::string pulseModelUID(const PulseDevice& device) {
    std::string product = prop(device, "device.product.name");
    if (!product.empty()) return product;
    return device.driver.empty() ? device.name : device.driver;
}

hal::AudioStreamBasicDescription pulseStreamFormat(const PulseDevice& device) {
    hal::AudioStreamBasicDescription f;
    f.mSampleRate = device.rate;
    f.mFormatID = hal::kAudioFormatLinearPCM;
    f.mChannelsPerFrame = device.channels;
    f.mFramesPerPacket = 1;
    switch (device.sampleFormat) {
        case PA_SAMPLE_U8:
            f.mBitsPerChannel = 8;
            f.mFormatFlags = hal::kAudioFormatFlagIsPacked;
            break;
        case PA_SAMPLE_S16LE:
        case PA_SAMPLE_S16BE:
            f.mBitsPerChannel = 16;
            f.mFormatFlags = hal::kAudioFormatFlagIsSignedInteger | hal::kAudioFormatFlagIsPacked;
            break;
        case PA_SAMPLE_S24LE:
        case PA_SAMPLE_S24BE:
            f.mBitsPerChannel = 24;
            f.mFormatFlags = hal::kAudioFormatFlagIsSignedInteger | hal::kAudioFormatFlagIsPacked;
            break;
        case PA_SAMPLE_S24_32LE:
        case PA_SAMPLE_S24_32BE:
            // 24 significant bits in a 32-bit container, aligned low.
            f.mBitsPerChannel = 24;
            f.mFormatFlags = hal::kAudioFormatFlagIsSignedInteger;
            break;
        case PA_SAMPLE_S32LE:
        case PA_SAMPLE_S32BE:
            f.mBitsPerChannel = 32;
            f.mFormatFlags = hal::kAudioFormatFlagIsSignedInteger | hal::kAudioFormatFlagIsPacked;
            break;
        case PA_SAMPLE_FLOAT32LE:
        case PA_SAMPLE_FLOAT32BE:
            f.mBitsPerChannel = 32;
            f.mFormatFlags = hal::kAudioFormatFlagIsFloat | hal::kAudioFormatFlagIsPacked;
            break;
        default:
            // A-law, mu-law or unknown: no linear PCM description fits; say 16-bit
            // integer, what the server converts them to for clients by default.
            f.mBitsPerChannel = 16;
            f.mFormatFlags = hal::kAudioFormatFlagIsSignedInteger | hal::kAudioFormatFlagIsPacked;
            break;
    }
    if (device.sampleFormat >= 0 && device.sampleFormat < PA_SAMPLE_MAX &&
        pa_sample_format_is_be(static_cast<pa_sample_format_t>(device.sampleFormat)) == 1) {
        f.mFormatFlags |= hal::kAudioFormatFlagIsBigEndian;
    }
    const hal::UInt32 bytes =
        (device.sampleFormat == PA_SAMPLE_S24_32LE || device.sampleFormat == PA_SAMPLE_S24_32BE)
            ? 4
            : (f.mBitsPerChannel + 7) / 8;
    f.mBytesPerFrame = bytes * device.channels;
    f.mBytesPerPacket = f.mBytesPerFrame;
    return f;
}

hal::AudioChannelLabel pulseChannelLabel(int position) {
    switch (position) {
        case PA_CHANNEL_POSITION_MONO:
            return hal::kAudioChannelLabel_Mono;
        case PA_CHANNEL_POSITION_FRONT_LEFT:
            return hal::kAudioChannelLabel_Left;
        case PA_CHANNEL_POSITION_FRONT_RIGHT:
            return hal::kAudioChannelLabel_Right;
        case PA_CHANNEL_POSITION_FRONT_CENTER:
            return hal::kAudioChannelLabel_Center;
        case PA_CHANNEL_POSITION_LFE:
            return hal::kAudioChannelLabel_LFEScreen;
        case PA_CHANNEL_POSITION_REAR_LEFT:
            return hal::kAudioChannelLabel_LeftSurround;
        case PA_CHANNEL_POSITION_REAR_RIGHT:
            return hal::kAudioChannelLabel_RightSurround;
        case PA_CHANNEL_POSITION_FRONT_LEFT_OF_CENTER:
            return hal::kAudioChannelLabel_LeftCenter;
        case PA_CHANNEL_POSITION_FRONT_RIGHT_OF_CENTER:
            return hal::kAudioChannelLabel_RightCenter;
        case PA_CHANNEL_POSITION_REAR_CENTER:
            return hal::kAudioChannelLabel_CenterSurround;
        case PA_CHANNEL_POSITION_SIDE_LEFT:
            return hal::kAudioChannelLabel_LeftSurroundDirect;
        case PA_CHANNEL_POSITION_SIDE_RIGHT:
            return hal::kAudioChannelLabel_RightSurroundDirect;
        case PA_CHANNEL_POSITION_TOP_CENTER:
            return hal::kAudioChannelLabel_TopCenterSurround;
        default:
            break;
    }
    if (position >= PA_CHANNEL_POSITION_AUX0 && position <= PA_CHANNEL_POSITION_AUX31) {
        return hal::kAudioChannelLabel_Discrete_0 +
               static_cast<hal::AudioChannelLabel>(position - PA_CHANNEL_POSITION_AUX0);
    }
    return hal::kAudioChannelLabel_Unknown;
}

hal::AudioChannelLayout pulseChannelLayout(const PulseDevice& device) {
    hal::AudioChannelLayout layout;
    layout.mChannelLayoutTag = hal::kAudioChannelLayoutTag_UseChannelDescriptions;
    for (int position : device.channelPositions) {
        hal::AudioChannelDescription d;
        d.mChannelLabel = pulseChannelLabel(position);
        layout.mChannelDescriptions.push_back(d);
    }
    return layout;
}

hal::Float32 pulseVolumeToScalar(uint32_t volume) {
    if (!PA_VOLUME_IS_VALID(volume)) return 0.0f;
    return std::min(1.0f, static_cast<hal::Float32>(volume) / static_cast<float>(PA_VOLUME_NORM));
}

uint32_t pulseScalarToVolume(hal::Float32 scalar) {
    if (!std::isfinite(scalar) || scalar <= 0.0f) return PA_VOLUME_MUTED;
    scalar = std::min(scalar, 1.0f);
    return static_cast<uint32_t>(std::lround(scalar * static_cast<float>(PA_VOLUME_NORM)));
}

hal::Float32 pulseVolumeToDecibels(uint32_t volume) {
    const double db = pa_sw_volume_to_dB(volume);
    // The muted end is minus infinity in libpulse; a finite floor keeps
    // arithmetic on it safe.
    return static_cast<hal::Float32>(std::isfinite(db) ? std::max(db, -144.0) : -144.0);
}

hal::Float32 pulseMainVolume(const PulseDevice& device) {
    uint32_t loudest = 0;
    for (uint32_t v : device.volume) loudest = std::max(loudest, v);
    return pulseVolumeToScalar(loudest);
}

std::vector<uint32_t> pulseWithMainVolume(const PulseDevice& device, hal::Float32 scalar) {
    const uint32_t target = pulseScalarToVolume(scalar);
    uint32_t loudest = 0;
    for (uint32_t v : device.volume) loudest = std::max(loudest, v);
    std::vector<uint32_t> out(device.volume.size(), target);
    if (loudest == 0) return out;  // no balance to keep
    for (size_t i = 0; i < device.volume.size(); ++i) {
        out[i] = static_cast<uint32_t>(std::llround(static_cast<double>(device.volume[i]) * target /
                                                    static_cast<double>(loudest)));
    }
    return out;
}

std::vector<uint32_t> pulseWithChannelVolume(const PulseDevice& device, hal::UInt32 element,
                                             hal::Float32 scalar) {
    std::vector<uint32_t> out = device.volume;
    if (element >= 1 && element <= out.size()) out[element - 1] = pulseScalarToVolume(scalar);
    return out;
}

std::vector<hal::UInt32> pulseDataSourceIDs(const PulseDevice& device) {
    std::vector<hal::UInt32> ids;
    for (size_t i = 0; i < device.ports.size(); ++i) ids.push_back(static_cast<hal::UInt32>(i + 1));
    return ids;
}

std::optional<hal::UInt32> pulseDataSourceID(const PulseDevice& device, const std::string& port) {
    for (size_t i = 0; i < device.ports.size(); ++i) {
        if (device.ports[i].name == port) return static_cast<hal::UInt32>(i + 1);
    }
    return std::nullopt;
}

std::optional<std::string> pulsePortName(const PulseDevice& device, hal::UInt32 id) {
    if (id == 0 || id > device.ports.size()) return std::nullopt;
    return device.ports[id - 1].name;
}

std::optional<std::string> pulsePortDescription(const PulseDevice& device, hal::UInt32 id) {
    if (id == 0 || id > device.ports.size()) return std::nullopt;
    const auto& p = device.ports[id - 1];
    return p.description.empty() ? p.name : p.description;
}

namespace {
hal::UInt32 usecToFrames(uint64_t usec, uint32_t rate) {
    return static_cast<hal::UInt32>((usec * rate + 500000) / 1000000);
}
}  // namespace

hal::UInt32 pulseBufferFrames(const PulseDevice& device) {
    uint64_t usec =
        device.configuredLatencyUsec ? device.configuredLatencyUsec : device.latencyUsec;
    hal::UInt32 frames = usecToFrames(usec, device.rate);
    return frames ? frames : 512;
}

hal::UInt32 pulseLatencyFrames(const PulseDevice& device) {
    return usecToFrames(device.latencyUsec, device.rate);
}

std::vector<AudioObjectPropertyAddress> pulseChangedAddresses(const PulseDevice& before,
                                                              const PulseDevice& after) {
    using namespace hal;
    std::vector<AudioObjectPropertyAddress> out;
    const auto scope = pulseScope(after);
    auto add = [&](AudioObjectPropertySelector s, AudioObjectPropertyScope sc, UInt32 element) {
        out.push_back({s, sc, element});
    };
    if (before.volume != after.volume) {
        if (pulseMainVolume(before) != pulseMainVolume(after)) {
            add(kAudioDevicePropertyVolumeScalar, scope, kAudioObjectPropertyElementMain);
            add(kAudioDevicePropertyVolumeDecibels, scope, kAudioObjectPropertyElementMain);
        }
        const size_t n = std::max(before.volume.size(), after.volume.size());
        for (size_t i = 0; i < n; ++i) {
            const bool differs = i >= before.volume.size() || i >= after.volume.size() ||
                                 before.volume[i] != after.volume[i];
            if (!differs) continue;
            add(kAudioDevicePropertyVolumeScalar, scope, static_cast<UInt32>(i + 1));
            add(kAudioDevicePropertyVolumeDecibels, scope, static_cast<UInt32>(i + 1));
        }
    }
    if (before.mute != after.mute) add(kAudioDevicePropertyMute, scope, 0);
    if (before.ports != after.ports) add(kAudioDevicePropertyDataSources, scope, 0);
    if (before.activePort != after.activePort) add(kAudioDevicePropertyDataSource, scope, 0);
    if (before.state != after.state) {
        add(kAudioDevicePropertyDeviceIsRunning, kAudioObjectPropertyScopeGlobal, 0);
        add(kAudioDevicePropertyDeviceIsRunningSomewhere, kAudioObjectPropertyScopeGlobal, 0);
    }
    if (before.rate != after.rate) {
        add(kAudioDevicePropertyNominalSampleRate, kAudioObjectPropertyScopeGlobal, 0);
        add(kAudioDevicePropertyActualSampleRate, kAudioObjectPropertyScopeGlobal, 0);
    }
    if (before.channels != after.channels || before.sampleFormat != after.sampleFormat ||
        before.rate != after.rate) {
        // The stream's format changed; a different channel count changes the
        // stream configuration too, which makes clients rebuild their channels.
        add(kAudioDevicePropertyStreamFormat, scope, 0);
        if (before.channels != after.channels) {
            add(kAudioDevicePropertyStreams, scope, 0);
            add(kAudioDevicePropertyStreamConfiguration, scope, 0);
        }
    }
    if (before.channelPositions != after.channelPositions) {
        add(kAudioDevicePropertyPreferredChannelLayout, kAudioObjectPropertyScopeGlobal, 0);
    }
    if (before.description != after.description) {
        add(kAudioObjectPropertyName, kAudioObjectPropertyScopeGlobal, 0);
    }
    if (before.configuredLatencyUsec != after.configuredLatencyUsec) {
        add(kAudioDevicePropertyBufferFrameSize, kAudioObjectPropertyScopeGlobal, 0);
    }
    return out;
}

}  // namespace zdr::detail
