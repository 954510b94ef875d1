// JSON descriptions of a machine: every field survives a round trip, and
// malformed or inconsistent files are refused with the place and the problem.
#include "zdr/audio/backends/simulated/simulated_hardware_description.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "zdr/audio/hal/ca_hal_audio_device.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"

namespace zdr::hal {
namespace {

std::string errorFor(const std::string& json) {
    std::string error;
    EXPECT_FALSE(parseHardwareDescription(json, &error).has_value()) << json;
    return error;
}

TEST(HardwareDescription, DefaultDesktopRoundTripsThroughJSON) {
    const auto desktop = SimulatedAudioHardware::defaultDesktop();
    const std::string text = hardwareDescriptionToJSON(desktop);
    std::string error;
    const auto parsed = parseHardwareDescription(text, &error);
    ASSERT_TRUE(parsed.has_value()) << error;
    EXPECT_EQ(hardwareDescriptionToJSON(*parsed), text);

    // And the parsed machine behaves like the built-in one.
    auto hw = std::make_shared<SimulatedAudioHardware>(*parsed);
    CAHALAudioDevice headset("AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2", hw);
    EXPECT_FALSE(headset.HasVolumeControl(kAudioObjectPropertyScopeInput, 0));
    EXPECT_TRUE(headset.HasVolumeControl(kAudioObjectPropertyScopeInput, 1));
    EXPECT_EQ(headset.GetMaximumVariableIOBufferSize(), 1024u);
    CAHALAudioDevice hdmi("HDMI:DELL U2720Q:0", hw);
    EXPECT_FALSE(hdmi.VolumeControlIsSettable(kAudioObjectPropertyScopeOutput, 0));
    EXPECT_EQ(CAHALAudioSystemObject(hw).GetAudioDevices().size(), 6u);
}

TEST(HardwareDescription, MinimalDeviceGetsSensibleDefaults) {
    std::string error;
    const auto d = parseHardwareDescription(
        R"({"devices":[{"uid":"u","name":"Mic","transport":"usb","sampleRate":44100,
            "input":{"channels":1,"volume":{"value":0.5,"settable":false},
                     "dataSources":[{"id":"imic","name":"Internal"}]}}]})",
        &error);
    ASSERT_TRUE(d.has_value()) << error;
    ASSERT_EQ(d->devices.size(), 1u);
    const auto& mic = d->devices[0];
    EXPECT_EQ(mic.transportType, kAudioDeviceTransportTypeUSB);
    EXPECT_EQ(mic.availableSampleRates, std::vector<double>{44100.0});
    EXPECT_EQ(mic.input.streamChannels, std::vector<UInt32>{1});
    ASSERT_EQ(mic.input.volumes.size(), 1u);
    EXPECT_FALSE(mic.input.volumes[0].settable);
    EXPECT_EQ(mic.input.currentDataSource, fourcc("imic"));
    EXPECT_TRUE(mic.output.streamChannels.empty());
}

TEST(HardwareDescription, MalformedAndInconsistentInputIsRefusedWithItsPlace) {
    EXPECT_NE(errorFor("{\"devices\": [").find("not valid JSON"), std::string::npos);
    EXPECT_EQ(errorFor("[]"), "(top level): must be an object");
    EXPECT_EQ(errorFor(R"({"devices":[{"uid":"a","name":"A","colour":1}]})"),
              "devices[0].colour: unknown key");
    EXPECT_EQ(errorFor(R"({"devices":[{"uid":"a","name":"A"},{"uid":"a","name":"B"}]})"),
              "devices[1].uid: \"a\" is used by an earlier device");
    EXPECT_EQ(errorFor(R"({"devices":[{"uid":"a","name":"A","sampleRate":48000,
                                       "sampleRates":[44100]}]})"),
              "devices[0].sampleRate: is not in the device's \"sampleRates\"");
    EXPECT_EQ(errorFor(R"({"devices":[{"uid":"a","name":"A",
                                       "output":{"channels":2,"channelVolumes":[1,1,1]}}]})"),
              "devices[0].output.channelVolumes: has 3 entries but the device has 2 channels");
    EXPECT_EQ(
        errorFor(R"({"devices":[{"uid":"a","name":"A","output":{"channels":2,"volume":2}}]})"),
        "devices[0].output.volume: must be between 0 and 1 (is 2)");
    EXPECT_EQ(errorFor(R"({"devices":[{"uid":"a","name":"A","output":{"channels":2}}],
                           "defaults":{"input":"a"}})"),
              "defaults.input: \"a\" has no input streams");
    EXPECT_EQ(errorFor(R"({"devices":[{"uid":"a","name":"A","input":{"channels":0}}]})"),
              "devices[0].input.channels: must be a whole number from 1 to 64");
    EXPECT_EQ(errorFor(R"({"devices":[{"name":"A"}]})"), "devices[0].uid: is required");
}

TEST(HardwareDescription, FileErrorsNameTheFile) {
    std::string error;
    EXPECT_FALSE(loadHardwareDescription("/nonexistent/hw.json", &error));
    EXPECT_EQ(error, "/nonexistent/hw.json: cannot be opened");

    const std::string path = ::testing::TempDir() + "/zdr_bad_hardware.json";
    std::ofstream(path) << R"({"devices":[{"uid":"a"}]})";
    EXPECT_FALSE(loadHardwareDescription(path, &error));
    EXPECT_EQ(error, path + ": devices[0].name: is required");
    std::remove(path.c_str());
}

}  // namespace
}  // namespace zdr::hal
