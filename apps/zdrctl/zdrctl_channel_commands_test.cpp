// zdrctl volume, mute, default and devices --channels on the simulated desktop.
#include "apps/zdrctl/zdrctl_channel_commands.h"

#include <gtest/gtest.h>

#include <sstream>

#include "apps/zdrctl/zdrctl_commands.h"
#include "zdr/audio/audio_device.h"

namespace zdr::zdrctl {
namespace {

class ZdrctlChannels : public ::testing::Test {
 protected:
    void SetUp() override {
        Options o;
        o.command = Command::devices;
        ASSERT_EQ(installBackend(o, true, err_, &hw_), kExitOK);
        AudioDevice::_test_resetRegistry(hw_);
    }
    void TearDown() override { DispatchQueue::main().drain(); }
    Options command(Command c, std::vector<std::string> args) {
        Options o;
        o.command = c;
        o.arguments = std::move(args);
        out_.str("");
        err_.str("");
        return o;
    }
    std::shared_ptr<hal::SimulatedAudioHardware> hw_;
    std::ostringstream out_, err_;
};

TEST_F(ZdrctlChannels, ArgumentsAreChecked) {
    auto parsed = parseArguments({"volume", "BuiltInSpeakerDevice", "40%"});
    ASSERT_TRUE(parsed.options) << parsed.error;
    EXPECT_EQ(parsed.options->arguments, (std::vector<std::string>{"BuiltInSpeakerDevice", "40%"}));
    EXPECT_EQ(parseArguments({"volume"}).error, "usage: volume DEVICE [VALUE]");
    EXPECT_EQ(parseArguments({"mute", "a", "on", "x"}).error, "usage: mute DEVICE [on|off]");
    EXPECT_EQ(parseArguments({"default", "input", "a", "b"}).error,
              "usage: default [output|input] [DEVICE]");
    EXPECT_EQ(parseArguments({"watch", "--channels"}).error, "--channels belongs to \"devices\"");
    EXPECT_TRUE(parseArguments({"devices", "--channels"}).options->channels);
}

TEST_F(ZdrctlChannels, VolumeShowsAndSets) {
    EXPECT_EQ(runVolume(command(Command::volume, {"BuiltInSpeakerDevice", "40%"}), out_, err_),
              kExitOK);
    EXPECT_EQ(out_.str(), "Built-in Speakers:  output 0.40\n");
    auto speakers = AudioDevice::deviceForCoreAudioUID(std::string("BuiltInSpeakerDevice"));
    EXPECT_FLOAT_EQ(speakers->outputVolume(), 0.4f);
    // An input-only device by name, any letter case: the input volume.
    const std::string micName =
        AudioDevice::deviceForCoreAudioUID(std::string("BuiltInMicrophoneDevice"))->deviceName();
    std::string shouted = micName;
    for (auto& c : shouted) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(runVolume(command(Command::volume, {shouted, "0.3"}), out_, err_), kExitOK);
    EXPECT_EQ(out_.str(), micName + ":  input 0.30\n");

    EXPECT_EQ(runVolume(command(Command::volume, {"BuiltInSpeakerDevice", "loud"}), out_, err_),
              kExitUsage);
    EXPECT_EQ(runVolume(command(Command::volume, {"BuiltInSpeakerDevice", "150%"}), out_, err_),
              kExitUsage);
    EXPECT_EQ(runVolume(command(Command::volume, {"nothing"}), out_, err_), kExitFailure);
    EXPECT_EQ(err_.str(), "zdrctl: no audio device \"nothing\" (see zdrctl devices)\n");
}

TEST_F(ZdrctlChannels, MuteShowsAndSets) {
    EXPECT_EQ(runMute(command(Command::mute, {"BuiltInSpeakerDevice", "on"}), out_, err_), kExitOK);
    EXPECT_EQ(out_.str(), "Built-in Speakers: muted\n");
    EXPECT_EQ(runMute(command(Command::mute, {"BuiltInSpeakerDevice", "off"}), out_, err_),
              kExitOK);
    EXPECT_EQ(out_.str(), "Built-in Speakers: not muted\n");
    EXPECT_EQ(runMute(command(Command::mute, {"HDMI:DELL U2720Q:0", "on"}), out_, err_),
              kExitFailure);
    EXPECT_NE(err_.str().find("has no output mute"), std::string::npos);
}

TEST_F(ZdrctlChannels, DefaultShowsAndChanges) {
    EXPECT_EQ(runDefault(command(Command::defaultDevice, {"HDMI:DELL U2720Q:0"}), out_, err_),
              kExitOK);
    EXPECT_NE(out_.str().find("Default output: "), std::string::npos);
    EXPECT_NE(out_.str().find("(HDMI:DELL U2720Q:0)"), std::string::npos) << out_.str();
    EXPECT_EQ(
        runDefault(command(Command::defaultDevice, {"input", "ZDRAudioCapture:3"}), out_, err_),
        kExitOK);
    EXPECT_NE(out_.str().find("Default input:  "), std::string::npos);
    EXPECT_NE(out_.str().find("(ZDRAudioCapture:3)"), std::string::npos) << out_.str();
    // A device that cannot take the role is reported.
    EXPECT_EQ(
        runDefault(command(Command::defaultDevice, {"input", "BuiltInSpeakerDevice"}), out_, err_),
        kExitFailure);
}

TEST_F(ZdrctlChannels, DevicesWithChannels) {
    Options o = command(Command::devices, {});
    o.channels = true;
    EXPECT_EQ(runDevices(o, out_, err_), kExitOK);
    const std::string text = out_.str();
    EXPECT_NE(text.find("  out Ch 1  volume 0.60"), std::string::npos) << text;
    // Without a chosen label, the position the device's layout gives it.
    EXPECT_NE(text.find("  out Ch 1  volume 0.60  label Left\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  out Ch 2  volume 0.60  label Right\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  in  Ch 2  volume 0.75"), std::string::npos) << text;
    // A chosen label wins over the layout's.
    auto speakers = AudioDevice::deviceForCoreAudioUID(std::string("BuiltInSpeakerDevice"));
    speakers->playbackChannels()[1]->setSelectedLabel(ChannelLabel::mono());
    out_.str("");
    o.json = true;
    EXPECT_EQ(runDevices(o, out_, err_), kExitOK);
    auto list = nlohmann::json::parse(out_.str());
    bool found = false;
    for (const auto& d : list) {
        if (d["uid"] == "BuiltInSpeakerDevice") {
            ASSERT_EQ(d["channels"].size(), 2u);
            EXPECT_EQ(d["channels"][0]["side"], "output");
            EXPECT_NEAR(d["channels"][0]["volume"].get<double>(), 0.6, 1e-6);
            EXPECT_EQ(d["channels"][0]["label"], "Left");
            EXPECT_EQ(d["channels"][1]["label"], "Mono");  // chosen below
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

}  // namespace
}  // namespace zdr::zdrctl
