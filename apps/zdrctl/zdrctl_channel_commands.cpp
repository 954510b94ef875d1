#include "apps/zdrctl/zdrctl_channel_commands.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "zdr/audio/hal/ca_hal_audio_system_object.h"

namespace zdr::zdrctl {

using namespace hal;

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string fixed(double v, int precision = 2) {
    std::ostringstream s;
    s << std::fixed << std::setprecision(precision) << v;
    return s.str();
}

// "0.4", "40%": a volume from 0 to 1; none for anything else.
std::optional<float> parseVolume(const std::string& text) {
    std::string number = text;
    bool percent = false;
    if (!number.empty() && number.back() == '%') {
        number.pop_back();
        percent = true;
    }
    if (number.empty()) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    double v = std::strtod(number.c_str(), &end);
    if (errno != 0 || end == number.c_str() || *end != '\0' || !std::isfinite(v)) {
        return std::nullopt;
    }
    if (percent) v /= 100.0;
    if (v < 0.0 || v > 1.0) return std::nullopt;
    return static_cast<float>(v);
}

std::shared_ptr<AudioDevice> deviceArgument(const Options& options, std::size_t index,
                                            std::ostream& err) {
    const std::string& name = options.arguments.at(index);
    auto device = findDevice(name);
    if (!device) err << "zdrctl: no audio device \"" << name << "\" (see zdrctl devices)\n";
    return device;
}

// The hardware volume of one channel; none without a control there.
std::optional<float> channelVolume(const std::shared_ptr<AudioDevice>& d, const AudioChannel& c,
                                   bool record) {
    auto* hal = d->coreAudioDevice();
    if (hal == nullptr) return std::nullopt;
    const auto scope = AudioDevice::scopeForIsInput(record);
    try {
        if (!hal->HasVolumeControl(scope, c.coreAudioChannelIndex())) return std::nullopt;
        return hal->GetVolumeControlScalarValue(scope, c.coreAudioChannelIndex());
    } catch (const CAException&) {
        return std::nullopt;
    }
}

// The label of each channel on one side: the one chosen for the channel, else
// the one the device's own channel layout gives its position (Left, Right,
// Center, LFE...); none where neither says. The layout is read from the
// hardware for the side as it is: the library's preferred layout deliberately
// compares with the record side's count, which leaves outputs discrete.
std::vector<std::string> channelLabels(const std::shared_ptr<AudioDevice>& d,
                                       const AudioDevice::ChannelList& channels, bool record) {
    std::vector<std::string> labels(channels.size());
    std::optional<AudioChannelLayout> layout;
    if (auto* hal = d->coreAudioDevice()) {
        try {
            if (hal->HasPreferredChannelLayout(record)) {
                layout = hal->GetPreferredChannelLayout(record);
            }
        } catch (const CAException&) {
            // No layout: only chosen labels are shown.
        }
    }
    for (std::size_t i = 0; i < channels.size(); ++i) {
        if (auto chosen = channels[i]->selectedLabel()) {
            labels[i] = chosen->name();
            continue;
        }
        const auto index = static_cast<std::size_t>(channels[i]->index());
        if (!layout || index >= layout->mChannelDescriptions.size()) continue;
        const AudioChannelLabel tag = layout->mChannelDescriptions[index].mChannelLabel;
        if (tag == kAudioChannelLabel_Unknown || tag == kAudioChannelLabel_Unused) continue;
        if (auto named = ChannelLabel::labelForChannelTag(tag)) labels[i] = named->name();
    }
    return labels;
}

}  // namespace

std::shared_ptr<AudioDevice> findDevice(const std::string& nameOrUID) {
    if (nameOrUID == "default") return AudioDevice::defaultOutputDevice();
    if (auto d = AudioDevice::deviceForCoreAudioUID(nameOrUID)) return d;
    try {
        CAHALAudioSystemObject system(AudioHardware::current());
        for (AudioObjectID id : system.GetAudioDevices()) {
            auto d = AudioDevice::deviceForCoreAudioID(id);
            if (d && lower(d->deviceName()) == lower(nameOrUID)) return d;
        }
    } catch (const CAException&) {
        // A server that fails mid-listing: the device is not found.
    }
    return nullptr;
}

int runVolume(const Options& options, std::ostream& out, std::ostream& err) {
    auto device = deviceArgument(options, 0, err);
    if (!device) return kExitFailure;
    const bool hasOutput = device->playbackChannelCount() > 0;
    if (options.arguments.size() > 1) {
        const auto volume = parseVolume(options.arguments[1]);
        if (!volume) {
            err << "zdrctl: a volume is a number from 0 to 1 or a percentage, not \""
                << options.arguments[1] << "\"\n";
            return kExitUsage;
        }
        if (hasOutput) {
            device->setOutputVolume(*volume);
        } else {
            device->setInputVolume(*volume);
        }
    }
    // Reading the record channels twice lets a list rebuilt by the first read
    // be seen by the second (the record side is replaced asynchronously).
    device->recordChannels();
    out << device->deviceName() << ":";
    if (hasOutput) out << "  output " << fixed(device->outputVolume());
    if (device->recordingChannelCount() > 0) out << "  input " << fixed(device->inputVolume());
    out << "\n";
    return kExitOK;
}

int runMute(const Options& options, std::ostream& out, std::ostream& err) {
    auto device = deviceArgument(options, 0, err);
    if (!device) return kExitFailure;
    if (options.arguments.size() > 1) {
        const std::string& state = options.arguments[1];
        if (state != "on" && state != "off") {
            err << "zdrctl: mute takes on or off, not \"" << state << "\"\n";
            return kExitUsage;
        }
        if (!device->hasMasterOutputMute()) {
            err << "zdrctl: " << device->deviceName() << " has no output mute that can be set\n";
            return kExitFailure;
        }
        device->setMuted(state == "on");
    }
    out << device->deviceName() << ": " << (device->muted() ? "muted" : "not muted") << "\n";
    return kExitOK;
}

int runDefault(const Options& options, std::ostream& out, std::ostream& err) {
    std::vector<std::string> args = options.arguments;
    bool isInput = false;
    if (!args.empty() && (args[0] == "output" || args[0] == "input")) {
        isInput = args[0] == "input";
        args.erase(args.begin());
    }
    if (!args.empty()) {
        auto device = findDevice(args[0]);
        if (!device) {
            err << "zdrctl: no audio device \"" << args[0] << "\" (see zdrctl devices)\n";
            return kExitFailure;
        }
        if (isInput) {
            device->makeDefaultInputDevice();
        } else {
            device->makeDefaultOutputDevice();
        }
        auto now = isInput ? AudioDevice::defaultInputDevice() : AudioDevice::defaultOutputDevice();
        if (now != device) {
            err << "zdrctl: " << device->deviceName() << " could not be made the default "
                << (isInput ? "input" : "output") << " device (run with --log app for why)\n";
            return kExitFailure;
        }
    }
    auto output = AudioDevice::defaultOutputDevice();
    auto input = AudioDevice::defaultInputDevice();
    out << "Default output: "
        << (output ? output->deviceName() + " (" + output->deviceUID() + ")" : std::string("none"))
        << "\n";
    out << "Default input:  "
        << (input ? input->deviceName() + " (" + input->deviceUID() + ")" : std::string("none"))
        << "\n";
    return kExitOK;
}

void printChannels(std::ostream& out, const std::vector<std::shared_ptr<AudioDevice>>& devices) {
    for (const auto& d : devices) {
        out << d->deviceName() << "\n";
        d->recordChannels();  // a rebuilt record list is visible from the next read
        for (bool record : {true, false}) {
            const auto channels = record ? d->recordChannels() : d->playbackChannels();
            const auto labels = channelLabels(d, channels, record);
            for (std::size_t i = 0; i < channels.size(); ++i) {
                const auto& c = channels[i];
                const auto volume = channelVolume(d, *c, record);
                out << "  " << (record ? "in  " : "out ") << c->name() << "  volume "
                    << (volume ? fixed(*volume) : std::string("-"))
                    << (record && c->muted() ? "  muted" : "")
                    << (labels[i].empty() ? "" : "  label " + labels[i]) << "\n";
            }
        }
    }
}

nlohmann::json channelsJSON(const std::shared_ptr<AudioDevice>& device) {
    nlohmann::json list = nlohmann::json::array();
    device->recordChannels();
    for (bool record : {true, false}) {
        const auto channels = record ? device->recordChannels() : device->playbackChannels();
        const auto labels = channelLabels(device, channels, record);
        for (std::size_t i = 0; i < channels.size(); ++i) {
            const auto& c = channels[i];
            const auto volume = channelVolume(device, *c, record);
            list.push_back(
                {{"side", record ? "input" : "output"},
                 {"index", c->index()},
                 {"name", c->name()},
                 {"volume", volume ? nlohmann::json(*volume) : nlohmann::json()},
                 {"muted", record && c->muted()},
                 {"label", labels[i].empty() ? nlohmann::json() : nlohmann::json(labels[i])}});
        }
    }
    return list;
}

}  // namespace zdr::zdrctl
