#include "zdr/audio/backends/simulated/simulated_hardware_description.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

namespace zdr::hal {

namespace {

using nlohmann::json;

// Thrown inside the parser only; turned into the caller's error text.
struct DescriptionError {
    std::string message;
};

[[noreturn]] void fail(const std::string& where, const std::string& problem) {
    throw DescriptionError{where + ": " + problem};
}

const std::map<std::string, UInt32>& transports() {
    static const std::map<std::string, UInt32> table{
        {"unknown", kAudioDeviceTransportTypeUnknown},
        {"builtin", kAudioDeviceTransportTypeBuiltIn},
        {"aggregate", kAudioDeviceTransportTypeAggregate},
        {"virtual", kAudioDeviceTransportTypeVirtual},
        {"pci", kAudioDeviceTransportTypePCI},
        {"usb", kAudioDeviceTransportTypeUSB},
        {"firewire", kAudioDeviceTransportTypeFireWire},
        {"bluetooth", kAudioDeviceTransportTypeBluetooth},
        {"bluetoothle", kAudioDeviceTransportTypeBluetoothLE},
        {"hdmi", kAudioDeviceTransportTypeHDMI},
        {"displayport", kAudioDeviceTransportTypeDisplayPort},
        {"airplay", kAudioDeviceTransportTypeAirPlay},
        {"avb", kAudioDeviceTransportTypeAVB},
        {"thunderbolt", kAudioDeviceTransportTypeThunderbolt},
    };
    return table;
}

const std::map<std::string, AudioChannelLabel>& labels() {
    static const std::map<std::string, AudioChannelLabel> table{
        {"Unknown", kAudioChannelLabel_Unknown},
        {"Unused", kAudioChannelLabel_Unused},
        {"Left", kAudioChannelLabel_Left},
        {"Right", kAudioChannelLabel_Right},
        {"Center", kAudioChannelLabel_Center},
        {"LFEScreen", kAudioChannelLabel_LFEScreen},
        {"LeftSurround", kAudioChannelLabel_LeftSurround},
        {"RightSurround", kAudioChannelLabel_RightSurround},
        {"LeftCenter", kAudioChannelLabel_LeftCenter},
        {"RightCenter", kAudioChannelLabel_RightCenter},
        {"CenterSurround", kAudioChannelLabel_CenterSurround},
        {"RearSurroundLeft", kAudioChannelLabel_RearSurroundLeft},
        {"RearSurroundRight", kAudioChannelLabel_RearSurroundRight},
        {"Mono", kAudioChannelLabel_Mono},
    };
    return table;
}

void onlyKeys(const json& j, const std::string& where, std::initializer_list<const char*> keys) {
    if (!j.is_object()) fail(where, "must be an object");
    for (const auto& item : j.items()) {
        // A plain reference rather than a structured binding: clang 14 cannot
        // capture a binding in the lambda below.
        const std::string& key = item.key();
        if (std::none_of(keys.begin(), keys.end(), [&](const char* k) { return key == k; })) {
            fail(where + "." + key, "unknown key");
        }
    }
}

std::string str(const json& j, const std::string& where) {
    if (!j.is_string()) fail(where, "must be a string");
    return j.get<std::string>();
}
bool boolean(const json& j, const std::string& where) {
    if (!j.is_boolean()) fail(where, "must be true or false");
    return j.get<bool>();
}
double number(const json& j, const std::string& where, double min, double max) {
    if (!j.is_number()) fail(where, "must be a number");
    const double v = j.get<double>();
    if (!(v >= min && v <= max)) {
        std::ostringstream s;
        s << "must be between " << min << " and " << max << " (is " << v << ")";
        fail(where, s.str());
    }
    return v;
}
UInt32 integer(const json& j, const std::string& where, UInt32 min, UInt32 max) {
    if (!j.is_number_integer() || j.get<std::int64_t>() < min || j.get<std::int64_t>() > max) {
        fail(where,
             "must be a whole number from " + std::to_string(min) + " to " + std::to_string(max));
    }
    return static_cast<UInt32>(j.get<std::int64_t>());
}
// A four-character code as text ("ispk") or a number.
UInt32 code(const json& j, const std::string& where) {
    if (j.is_string()) {
        const std::string s = j.get<std::string>();
        if (s.size() != 4) fail(where, "a code given as text must have four characters");
        return (UInt32(static_cast<unsigned char>(s[0])) << 24) |
               (UInt32(static_cast<unsigned char>(s[1])) << 16) |
               (UInt32(static_cast<unsigned char>(s[2])) << 8) |
               UInt32(static_cast<unsigned char>(s[3]));
    }
    return integer(j, where, 0, 0xFFFFFFFFu);
}

SimulatedControl control(const json& j, const std::string& where, UInt32 element, bool isMute) {
    SimulatedControl c;
    c.element = element;
    const json* value = &j;
    if (j.is_object()) {
        onlyKeys(j, where, {"value", "settable"});
        if (!j.contains("value")) fail(where + ".value", "is required");
        value = &j["value"];
        if (j.contains("settable")) c.settable = boolean(j["settable"], where + ".settable");
    }
    c.value = isMute ? (boolean(*value, where) ? 1.0f : 0.0f)
                     : static_cast<Float32>(number(*value, where, 0.0, 1.0));
    return c;
}

SimulatedDirectionSpec direction(const json& j, const std::string& where) {
    onlyKeys(j, where,
             {"streams", "channels", "bitsPerChannel", "float", "volume", "channelVolumes", "mute",
              "channelMutes", "dataSources", "dataSource", "dataSourceSettable", "layout",
              "safetyOffset", "latency"});
    SimulatedDirectionSpec d;
    if (j.contains("streams") && j.contains("channels")) {
        fail(where, "give either \"streams\" or \"channels\", not both");
    }
    if (j.contains("streams")) {
        const json& s = j["streams"];
        if (!s.is_array() || s.empty()) fail(where + ".streams", "must be a non-empty array");
        for (std::size_t i = 0; i < s.size(); ++i) {
            d.streamChannels.push_back(
                integer(s[i], where + ".streams[" + std::to_string(i) + "]", 1, 64));
        }
    } else if (j.contains("channels")) {
        d.streamChannels.push_back(integer(j["channels"], where + ".channels", 1, 64));
    } else {
        fail(where, "needs \"streams\" or \"channels\"");
    }
    const UInt32 channels = d.totalChannels();
    if (j.contains("float")) d.isFloat = boolean(j["float"], where + ".float");
    if (j.contains("bitsPerChannel")) {
        d.bitsPerChannel = integer(j["bitsPerChannel"], where + ".bitsPerChannel", 8, 64);
        if (d.bitsPerChannel % 8 != 0) fail(where + ".bitsPerChannel", "must be a multiple of 8");
    }
    if (d.isFloat && d.bitsPerChannel != 32 && d.bitsPerChannel != 64) {
        fail(where + ".bitsPerChannel", "a float format has 32 or 64 bits");
    }
    for (bool isMute : {false, true}) {
        const char* mainKey = isMute ? "mute" : "volume";
        const char* listKey = isMute ? "channelMutes" : "channelVolumes";
        auto& out = isMute ? d.mutes : d.volumes;
        if (j.contains(mainKey))
            out.push_back(control(j[mainKey], where + "." + mainKey, 0, isMute));
        if (j.contains(listKey)) {
            const json& list = j[listKey];
            if (!list.is_array()) fail(where + "." + listKey, "must be an array");
            if (list.size() > channels) {
                fail(where + "." + listKey, "has " + std::to_string(list.size()) +
                                                " entries but the device has " +
                                                std::to_string(channels) + " channels");
            }
            for (std::size_t i = 0; i < list.size(); ++i) {
                if (list[i].is_null()) continue;  // no control on this channel
                out.push_back(control(list[i],
                                      where + "." + listKey + "[" + std::to_string(i) + "]",
                                      static_cast<UInt32>(i + 1), isMute));
            }
        }
    }
    if (j.contains("dataSources")) {
        const json& list = j["dataSources"];
        if (!list.is_array() || list.empty()) {
            fail(where + ".dataSources", "must be a non-empty array");
        }
        std::set<UInt32> ids;
        for (std::size_t i = 0; i < list.size(); ++i) {
            const std::string w = where + ".dataSources[" + std::to_string(i) + "]";
            onlyKeys(list[i], w, {"id", "name"});
            if (!list[i].contains("id") || !list[i].contains("name")) {
                fail(w, "needs \"id\" and \"name\"");
            }
            SimulatedDataSource s{code(list[i]["id"], w + ".id"),
                                  str(list[i]["name"], w + ".name")};
            if (!ids.insert(s.id).second) fail(w + ".id", "is used twice");
            d.dataSources.push_back(s);
        }
        d.currentDataSource = d.dataSources.front().id;
        if (j.contains("dataSource")) {
            d.currentDataSource = code(j["dataSource"], where + ".dataSource");
            if (!ids.count(d.currentDataSource)) {
                fail(where + ".dataSource", "is not one of the device's data sources");
            }
        }
        if (j.contains("dataSourceSettable")) {
            d.dataSourceSettable = boolean(j["dataSourceSettable"], where + ".dataSourceSettable");
        }
    } else if (j.contains("dataSource") || j.contains("dataSourceSettable")) {
        fail(where + ".dataSource", "needs \"dataSources\"");
    }
    if (j.contains("layout")) {
        const json& list = j["layout"];
        if (!list.is_array()) fail(where + ".layout", "must be an array of channel labels");
        AudioChannelLayout layout;
        for (std::size_t i = 0; i < list.size(); ++i) {
            const std::string w = where + ".layout[" + std::to_string(i) + "]";
            AudioChannelDescription desc;
            if (list[i].is_string()) {
                auto it = labels().find(list[i].get<std::string>());
                if (it == labels().end()) fail(w, "unknown channel label");
                desc.mChannelLabel = it->second;
            } else {
                desc.mChannelLabel = integer(list[i], w, 0, 0xFFFFFFFFu);
            }
            layout.mChannelDescriptions.push_back(desc);
        }
        d.preferredLayout = layout;
    }
    if (j.contains("safetyOffset")) {
        d.safetyOffset = integer(j["safetyOffset"], where + ".safetyOffset", 0, 1u << 20);
    }
    if (j.contains("latency")) d.latency = integer(j["latency"], where + ".latency", 0, 1u << 24);
    return d;
}

SimulatedDeviceSpec device(const json& j, const std::string& where) {
    onlyKeys(j, where,
             {"uid", "name", "manufacturer", "model", "transport", "sampleRate", "sampleRates",
              "bufferFrameSize", "bufferFrameSizeRange", "maxVariableBufferFrameSize", "running",
              "hidden", "canBeDefault", "canBeDefaultSystem", "input", "output"});
    SimulatedDeviceSpec d;
    if (!j.contains("uid")) fail(where + ".uid", "is required");
    if (!j.contains("name")) fail(where + ".name", "is required");
    d.uid = str(j["uid"], where + ".uid");
    if (d.uid.empty()) fail(where + ".uid", "must not be empty");
    d.name = str(j["name"], where + ".name");
    if (j.contains("manufacturer"))
        d.manufacturer = str(j["manufacturer"], where + ".manufacturer");
    if (j.contains("model")) d.modelUID = str(j["model"], where + ".model");
    if (j.contains("transport")) {
        const json& t = j["transport"];
        auto it = t.is_string() ? transports().find(t.get<std::string>()) : transports().end();
        d.transportType = it != transports().end() ? it->second : code(t, where + ".transport");
    }
    if (j.contains("sampleRates")) {
        const json& list = j["sampleRates"];
        if (!list.is_array() || list.empty()) {
            fail(where + ".sampleRates", "must be a non-empty array");
        }
        d.availableSampleRates.clear();
        for (std::size_t i = 0; i < list.size(); ++i) {
            d.availableSampleRates.push_back(
                number(list[i], where + ".sampleRates[" + std::to_string(i) + "]", 1000, 768000));
        }
    }
    if (j.contains("sampleRate")) {
        d.nominalSampleRate = number(j["sampleRate"], where + ".sampleRate", 1000, 768000);
        if (!j.contains("sampleRates")) d.availableSampleRates = {d.nominalSampleRate};
    } else if (j.contains("sampleRates")) {
        d.nominalSampleRate = d.availableSampleRates.front();
    }
    if (std::find(d.availableSampleRates.begin(), d.availableSampleRates.end(),
                  d.nominalSampleRate) == d.availableSampleRates.end()) {
        fail(where + ".sampleRate", "is not in the device's \"sampleRates\"");
    }
    if (j.contains("bufferFrameSizeRange")) {
        const json& r = j["bufferFrameSizeRange"];
        if (!r.is_array() || r.size() != 2) {
            fail(where + ".bufferFrameSizeRange", "must be [minimum, maximum]");
        }
        d.bufferFrameSizeRange = {number(r[0], where + ".bufferFrameSizeRange[0]", 1, 1 << 20),
                                  number(r[1], where + ".bufferFrameSizeRange[1]", 1, 1 << 20)};
        if (d.bufferFrameSizeRange.mMinimum > d.bufferFrameSizeRange.mMaximum) {
            fail(where + ".bufferFrameSizeRange", "minimum is above maximum");
        }
    }
    if (j.contains("bufferFrameSize")) {
        d.bufferFrameSize = integer(j["bufferFrameSize"], where + ".bufferFrameSize", 1, 1 << 20);
    }
    if (d.bufferFrameSize < d.bufferFrameSizeRange.mMinimum ||
        d.bufferFrameSize > d.bufferFrameSizeRange.mMaximum) {
        fail(where + ".bufferFrameSize", "is outside \"bufferFrameSizeRange\"");
    }
    if (j.contains("maxVariableBufferFrameSize")) {
        d.maxVariableBufferFrameSize = integer(j["maxVariableBufferFrameSize"],
                                               where + ".maxVariableBufferFrameSize", 1, 1 << 20);
    }
    if (j.contains("running")) d.running = boolean(j["running"], where + ".running");
    if (j.contains("hidden")) d.hidden = boolean(j["hidden"], where + ".hidden");
    if (j.contains("canBeDefault"))
        d.canBeDefault = boolean(j["canBeDefault"], where + ".canBeDefault");
    if (j.contains("canBeDefaultSystem")) {
        d.canBeDefaultSystem = boolean(j["canBeDefaultSystem"], where + ".canBeDefaultSystem");
    }
    if (j.contains("input")) d.input = direction(j["input"], where + ".input");
    if (j.contains("output")) d.output = direction(j["output"], where + ".output");
    return d;
}

SimulatedHardwareDescription description(const json& j) {
    onlyKeys(j, "(top level)", {"devices", "defaults"});
    if (!j.contains("devices") || !j["devices"].is_array()) {
        fail("devices", "is required and must be an array");
    }
    SimulatedHardwareDescription d;
    std::set<std::string> uids;
    for (std::size_t i = 0; i < j["devices"].size(); ++i) {
        const std::string where = "devices[" + std::to_string(i) + "]";
        d.devices.push_back(device(j["devices"][i], where));
        if (!uids.insert(d.devices.back().uid).second) {
            fail(where + ".uid", "\"" + d.devices.back().uid + "\" is used by an earlier device");
        }
    }
    if (j.contains("defaults")) {
        const json& defs = j["defaults"];
        onlyKeys(defs, "defaults", {"input", "output", "systemOutput"});
        for (const char* key : {"input", "output", "systemOutput"}) {
            if (!defs.contains(key)) continue;
            const std::string where = std::string("defaults.") + key;
            const std::string uid = str(defs[key], where);
            const bool isInput = std::string(key) == "input";
            auto it = std::find_if(d.devices.begin(), d.devices.end(),
                                   [&](const SimulatedDeviceSpec& s) { return s.uid == uid; });
            if (it == d.devices.end()) fail(where, "names no device (\"" + uid + "\")");
            if ((isInput ? it->input : it->output).streamChannels.empty()) {
                fail(where,
                     "\"" + uid + "\" has no " + (isInput ? "input" : "output") + " streams");
            }
            (isInput ? d.defaultInput
                     : (std::string(key) == "output" ? d.defaultOutput : d.defaultSystemOutput)) =
                uid;
        }
    }
    return d;
}

json controlJSON(const SimulatedControl& c, bool isMute) {
    json value = isMute ? json(c.value != 0.0f) : json(c.value);
    if (c.settable) return value;
    return json{{"value", value}, {"settable", false}};
}

json directionJSON(const SimulatedDirectionSpec& d) {
    json j;
    j["streams"] = d.streamChannels;
    j["bitsPerChannel"] = d.bitsPerChannel;
    j["float"] = d.isFloat;
    for (bool isMute : {false, true}) {
        const auto& list = isMute ? d.mutes : d.volumes;
        json channels = json::array();
        for (const auto& c : list) {
            if (c.element == 0) {
                j[isMute ? "mute" : "volume"] = controlJSON(c, isMute);
            } else {
                while (channels.size() < c.element) channels.push_back(nullptr);
                channels[c.element - 1] = controlJSON(c, isMute);
            }
        }
        if (!channels.empty()) j[isMute ? "channelMutes" : "channelVolumes"] = channels;
    }
    if (!d.dataSources.empty()) {
        json sources = json::array();
        for (const auto& s : d.dataSources) sources.push_back({{"id", s.id}, {"name", s.name}});
        j["dataSources"] = sources;
        j["dataSource"] = d.currentDataSource;
        j["dataSourceSettable"] = d.dataSourceSettable;
    }
    if (d.preferredLayout) {
        json layout = json::array();
        for (const auto& desc : d.preferredLayout->mChannelDescriptions) {
            layout.push_back(desc.mChannelLabel);
        }
        j["layout"] = layout;
    }
    j["safetyOffset"] = d.safetyOffset;
    j["latency"] = d.latency;
    return j;
}

}  // namespace

std::optional<SimulatedHardwareDescription> parseHardwareDescription(const std::string& text,
                                                                     std::string* error) {
    try {
        return description(json::parse(text));
    } catch (const DescriptionError& e) {
        if (error) *error = e.message;
    } catch (const json::parse_error& e) {
        if (error) *error = "not valid JSON (at byte " + std::to_string(e.byte) + ")";
    } catch (const json::exception& e) {
        if (error) *error = e.what();
    }
    return std::nullopt;
}

std::optional<SimulatedHardwareDescription> loadHardwareDescription(const std::string& path,
                                                                    std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error) *error = path + ": cannot be opened";
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        if (error) *error = path + ": cannot be read";
        return std::nullopt;
    }
    std::string problem;
    auto result = parseHardwareDescription(text.str(), &problem);
    if (!result && error) *error = path + ": " + problem;
    return result;
}

std::string hardwareDescriptionToJSON(const SimulatedHardwareDescription& description) {
    json devices = json::array();
    for (const auto& d : description.devices) {
        json j{{"uid", d.uid},
               {"name", d.name},
               {"manufacturer", d.manufacturer},
               {"transport", d.transportType},
               {"sampleRate", d.nominalSampleRate},
               {"sampleRates", d.availableSampleRates},
               {"bufferFrameSize", d.bufferFrameSize},
               {"bufferFrameSizeRange",
                {d.bufferFrameSizeRange.mMinimum, d.bufferFrameSizeRange.mMaximum}},
               {"running", d.running},
               {"hidden", d.hidden},
               {"canBeDefault", d.canBeDefault},
               {"canBeDefaultSystem", d.canBeDefaultSystem}};
        if (!d.modelUID.empty()) j["model"] = d.modelUID;
        if (d.maxVariableBufferFrameSize) {
            j["maxVariableBufferFrameSize"] = *d.maxVariableBufferFrameSize;
        }
        if (!d.input.streamChannels.empty()) j["input"] = directionJSON(d.input);
        if (!d.output.streamChannels.empty()) j["output"] = directionJSON(d.output);
        devices.push_back(j);
    }
    json out{{"devices", devices}};
    json defaults = json::object();
    if (!description.defaultInput.empty()) defaults["input"] = description.defaultInput;
    if (!description.defaultOutput.empty()) defaults["output"] = description.defaultOutput;
    if (!description.defaultSystemOutput.empty()) {
        defaults["systemOutput"] = description.defaultSystemOutput;
    }
    if (!defaults.empty()) out["defaults"] = defaults;
    return out.dump(2);
}

}  // namespace zdr::hal
