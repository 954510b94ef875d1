// zdrctl: argument handling and exit codes, the device table on a described
// machine, and the demo's identity checks.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "apps/zdrctl/zdrctl_commands.h"
#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/audio/audio_device.h"

namespace zdr::zdrctl {
namespace {

ParseResult parse(std::initializer_list<const char*> args) {
    return parseArguments(std::vector<std::string>(args.begin(), args.end()));
}

TEST(ZdrctlOptions, CommandsAndOptions) {
    auto r = parse({"--backend", "simulated", "devices", "--json"});
    ASSERT_TRUE(r.options) << r.error;
    EXPECT_EQ(r.options->command, Command::devices);
    EXPECT_TRUE(r.options->json);
    EXPECT_EQ(r.options->backend, "simulated");
    r = parse({"watch", "--seconds", "2.5", "--log", "audio,audioProperties"});
    ASSERT_TRUE(r.options) << r.error;
    EXPECT_EQ(r.options->seconds, 2.5);
    EXPECT_EQ(r.options->logCategories, "audio,audioProperties");
    EXPECT_EQ(parse({"--help"}).options->command, Command::help);
    EXPECT_NE(usageText().find("Exit codes:"), std::string::npos);
}

TEST(ZdrctlOptions, BadArgumentsAreNamed) {
    EXPECT_EQ(parse({}).error, "no command given (devices, watch, demo, volume, mute or default)");
    EXPECT_EQ(parse({"list"}).error,
              "unknown command \"list\" (devices, watch, demo, volume, mute or default)");
    EXPECT_EQ(parse({"devices", "--colour"}).error, "unknown option \"--colour\"");
    EXPECT_EQ(parse({"devices", "--backend"}).error, "--backend needs a name (pulse or simulated)");
    EXPECT_EQ(parse({"watch", "--seconds", "soon"}).error,
              "--seconds needs a non-negative number, not \"soon\"");
    EXPECT_EQ(parse({"watch", "--seconds", "-1"}).error,
              "--seconds needs a non-negative number, not \"-1\"");
    EXPECT_EQ(parse({"devices", "--seconds", "1"}).error, "--seconds belongs to \"watch\"");
    // Beyond a week the wait would overflow poll's millisecond timeout.
    for (const char* tooLong : {"1e300", "2.2e6", "604800.5"}) {
        EXPECT_EQ(parse({"watch", "--seconds", tooLong}).error,
                  std::string("--seconds must be at most 604800 (a week), not \"") + tooLong +
                      "\"; leave it out to watch until interrupted");
    }
    EXPECT_EQ(parse({"watch", "--seconds", "604800"}).options->seconds, 604800.0);
    EXPECT_EQ(parse({"demo", "--backend", "pulse"}).error,
              "demo runs on the simulated backend; it cannot be used with --backend pulse");
    EXPECT_EQ(parse({"devices", "extra"}).error, "unexpected argument \"extra\"");
}

class ZdrctlCommands : public ::testing::Test {
 protected:
    void TearDown() override { DispatchQueue::main().drain(); }
    // Installs the backend the options ask for and starts the registry on it.
    int install(const Options& o, bool forceSimulated) {
        std::shared_ptr<hal::SimulatedAudioHardware> sim;
        const int rc = installBackend(o, forceSimulated, err_, &sim);
        if (rc == kExitOK) AudioDevice::_test_resetRegistry(hal::AudioHardware::current());
        return rc;
    }
    std::ostringstream out_, err_;
};

TEST_F(ZdrctlCommands, DevicesTableFromAHardwareFile) {
    const std::string path = ::testing::TempDir() + "/zdrctl_hw.json";
    std::ofstream(path) << R"({"devices":[
        {"uid":"mic-1","name":"Desk Mic","transport":"usb","sampleRate":44100,
         "input":{"channels":1}},
        {"uid":"spk-1","name":"Monitors","transport":"builtin","output":{"channels":2}}],
        "defaults":{"output":"spk-1","input":"mic-1"}})";
    Options o;
    o.command = Command::devices;
    o.hardware = path;
    ASSERT_EQ(install(o, false), kExitOK) << err_.str();
    EXPECT_EQ(runDevices(o, out_, err_), kExitOK);
    const std::string table = out_.str();
    EXPECT_NE(table.find("mic-1"), std::string::npos);
    EXPECT_NE(table.find("Desk Mic"), std::string::npos);
    EXPECT_NE(table.find("1/-"), std::string::npos);
    EXPECT_NE(table.find("44100"), std::string::npos);
    EXPECT_NE(table.find("usb"), std::string::npos);
    EXPECT_NE(table.find("OS   spk-1"), std::string::npos) << table;

    out_.str("");
    o.json = true;
    EXPECT_EQ(runDevices(o, out_, err_), kExitOK);
    EXPECT_NE(out_.str().find("\"defaultInput\": true"), std::string::npos);
    std::remove(path.c_str());
}

TEST_F(ZdrctlCommands, BrokenHardwareFileAndUnknownBackendGiveTheirExitCodes) {
    const std::string path = ::testing::TempDir() + "/zdrctl_bad.json";
    std::ofstream(path) << R"({"devices":[{"uid":"a","name":"A","input":{"channels":"two"}}]})";
    Options o;
    o.command = Command::devices;
    o.hardware = path;
    EXPECT_EQ(install(o, false), kExitHardwareFile);
    EXPECT_EQ(err_.str(), "zdrctl: " + path +
                              ": devices[0].input.channels: must be a whole number from 1 to 64\n");
    std::remove(path.c_str());

    Options b;
    b.command = Command::devices;
    b.backend = "jack";
    err_.str("");
    EXPECT_EQ(install(b, false), kExitBackend);
    EXPECT_NE(err_.str().find("unknown backend \"jack\""), std::string::npos);
}

TEST_F(ZdrctlCommands, DemoShowsTheSameObjectsComingBack) {
    Options o;
    o.command = Command::demo;
    ASSERT_EQ(install(o, true), kExitOK);
    EXPECT_EQ(runDemo(o, out_, err_), kExitOK) << out_.str() << err_.str();
    const std::string text = out_.str();
    EXPECT_EQ(text.find("NO "), std::string::npos) << text;
    EXPECT_NE(text.find("kAudioDriverDeviceGoneDead"), std::string::npos);
    EXPECT_NE(text.find("kAudioDriverDeviceAliveAgain"), std::string::npos);
    EXPECT_NE(text.find("kCoreAudioDRestarted"), std::string::npos);
    EXPECT_NE(text.find("a listener closure saw the new volume"), std::string::npos);
}

TEST_F(ZdrctlCommands, WatchStopsAfterItsSeconds) {
    Options o;
    o.command = Command::watch;
    o.seconds = 0.05;
    ASSERT_EQ(install(o, true), kExitOK);
    EXPECT_EQ(runWatch(o, out_, err_, -1), kExitOK);
    EXPECT_NE(out_.str().find("Stopped."), std::string::npos);
}

TEST_F(ZdrctlCommands, WatchReportsDefaultInputMuteAndDecibelsReadably) {
    Options o;
    o.command = Command::watch;
    std::shared_ptr<hal::SimulatedAudioHardware> sim;
    ASSERT_EQ(installBackend(o, true, err_, &sim), kExitOK);
    AudioDevice::_test_resetRegistry(sim);
    int stop[2];
    ASSERT_EQ(::pipe2(stop, O_CLOEXEC), 0);
    const char* speakers = "BuiltInSpeakerDevice";
    // Changes from outside while watch runs; then the stop signal. The pauses
    // only order the changes after watch has started; nothing is timed.
    std::thread outside([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        sim->setDefaultDevice(true, false, "AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2");
        sim->setMute(speakers, false, 0, true);
        sim->raise(speakers, {{hal::kAudioDevicePropertyVolumeDecibels,
                               hal::kAudioObjectPropertyScopeOutput, 0}});
        std::this_thread::sleep_for(std::chrono::milliseconds(800));
        const char byte = 1;
        (void)!::write(stop[1], &byte, 1);
    });
    EXPECT_EQ(runWatch(o, out_, err_, stop[0]), kExitOK);
    outside.join();
    ::close(stop[0]);
    ::close(stop[1]);
    const std::string text = out_.str();
    EXPECT_NE(text.find("default input changed  now USB Headset"), std::string::npos) << text;
    EXPECT_NE(text.find("kAudioDevicePropertyMute output main = muted"), std::string::npos) << text;
    EXPECT_EQ(text.find("[Unknown"), std::string::npos) << text;
    // 0.6 on the scalar scale, in decibels.
    EXPECT_NE(text.find("kAudioDevicePropertyVolumeDecibels output main = -"), std::string::npos)
        << text;
    EXPECT_NE(text.find(" dB"), std::string::npos) << text;
}

TEST(ZdrctlStandIn, ChangesRefuseAndViewsSayTheSimulatedMachineIsShown) {
    for (Command c : {Command::volume, Command::mute, Command::defaultDevice}) {
        std::ostringstream err;
        EXPECT_EQ(standInForMissingServer(c, err), kExitBackend);
        EXPECT_NE(err.str().find("no audio server answers (PulseAudio, or PipeWire"),
                  std::string::npos);
        EXPECT_NE(err.str().find("nothing was changed"), std::string::npos);
    }
    for (Command c : {Command::devices, Command::watch}) {
        std::ostringstream err;
        EXPECT_EQ(standInForMissingServer(c, err), kExitOK);
        EXPECT_NE(err.str().find("showing the simulated machine"), std::string::npos);
    }
}

}  // namespace
}  // namespace zdr::zdrctl
