// The device registry on the pulse backend against a private server: plug and
// unplug, default changes, changes from outside reaching listener closures, a
// hidden device, server restarts, and a hot-plug storm.
#include <gtest/gtest.h>

#include "zdr/testing/eventually.h"

#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/backends/pulse/detail/pulse_connection.h"
#include "zdr/audio/backends/pulse/pulse_audio_hardware.h"
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"
#include "zdr/runtime/notification_center.h"
#include "zdr/testing/pulse_server_fixture.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;
using namespace hal;

class PulseRegistryTest : public zdr::testing::AudioServerTest {
 protected:
    void SetUp() override {
        AudioServerTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        PulseAudioHardware::Options options;
        options.server = server_->serverString();
        hw_ = PulseAudioHardware::create(options);
        ASSERT_TRUE(hw_);
        AudioDevice::_test_resetRegistry(hw_);
        for (const char* name :
             {kAudioDevicesChanged, kAudioDriverDeviceGoneDead, kAudioDriverDeviceAliveAgain,
              kCoreAudioDRestarted, kAudioDevicesDefaultOutputChanged}) {
            observers_.push_back(NotificationCenter::defaultCenter()->addObserver(
                name, nullptr, std::nullopt, [this](const Notification& n) {
                    std::lock_guard lock(mutex_);
                    posted_.push_back({n.name, n.object});
                }));
        }
    }
    void TearDown() override {
        pump();
        observers_.clear();
        // Later tests start from a machine of their own, not this server.
        AudioDevice::_test_resetRegistry(std::make_shared<SimulatedAudioHardware>());
        hw_.reset();
        AudioServerTest::TearDown();
    }

    // Runs the listener queue and the main queue (this thread drains it).
    void pump() {
        AudioDevice::notificationQueue().sync([] {});
        DispatchQueue::main().drain();
    }
    template <class Pred>
    bool eventually(Pred pred, std::chrono::milliseconds timeout = 5000ms) {
        return zdr::testing::eventually(pred, timeout, [this] { pump(); });
    }
    size_t count(const std::string& name, const void* object = nullptr) {
        std::lock_guard lock(mutex_);
        size_t n = 0;
        for (const auto& [posted, obj] : posted_) {
            if (posted == name && (!object || obj.get() == object)) ++n;
        }
        return n;
    }

    std::shared_ptr<PulseAudioHardware> hw_;
    std::mutex mutex_;
    std::vector<std::pair<std::string, std::shared_ptr<void>>> posted_;
    std::vector<std::shared_ptr<NotificationObserverToken>> observers_;
};

ZDR_INSTANTIATE_ON_BOTH_AUDIO_SERVERS(PulseRegistryTest);

TEST_P(PulseRegistryTest, UnplugAndReplugKeepTheObject) {
    auto module = server_->loadNullSink("usbmic", "USB_Mic", "zdr.uid=usb-mic");
    ASSERT_TRUE(module);
    std::shared_ptr<AudioDevice> device;
    ASSERT_TRUE(
        eventually([&] { return (device = AudioDevice::deviceForCoreAudioUID("usb-mic")); }));
    const AudioObjectID firstID = device->deviceID();
    auto outputs = AudioDevice::outputDevices();
    EXPECT_NE(std::find(outputs.begin(), outputs.end(), device), outputs.end());

    ASSERT_TRUE(server_->unloadModule(*module));
    ASSERT_TRUE(eventually([&] { return count(kAudioDriverDeviceGoneDead, device.get()) > 0; }));
    EXPECT_TRUE(device->isMarkedAsDead());
    EXPECT_FALSE(device->isAlive());

    ASSERT_TRUE(server_->loadNullSink("usbmic", "USB_Mic", "zdr.uid=usb-mic"));
    ASSERT_TRUE(eventually([&] { return count(kAudioDriverDeviceAliveAgain, device.get()) > 0; }));
    EXPECT_FALSE(device->isMarkedAsDead());
    EXPECT_NE(device->deviceID(), firstID);
    EXPECT_EQ(AudioDevice::deviceForCoreAudioUID("usb-mic"), device);
    EXPECT_GT(count(kAudioDevicesChanged), 0u);
}

TEST_P(PulseRegistryTest, DefaultOutputFollowsTheServer) {
    ASSERT_TRUE(server_->loadNullSink("speakers", "Speakers"));
    ASSERT_TRUE(
        eventually([&] { return AudioDevice::deviceForCoreAudioUID("speakers") != nullptr; }));
    ASSERT_TRUE(server_->pactl({"set-default-sink", "speakers"}));
    ASSERT_TRUE(eventually([&] { return count(kAudioDevicesDefaultOutputChanged) > 0; }));
    auto def = AudioDevice::defaultOutputDevice();
    ASSERT_TRUE(def);
    EXPECT_EQ(def->deviceUID(), "speakers");
}

TEST_P(PulseRegistryTest, OutsideChangesReachListenerClosures) {
    auto sink = AudioDevice::deviceForCoreAudioUID("zdr_fixture_out");
    ASSERT_TRUE(sink);
    std::atomic<int> volume{0}, mute{0};
    auto t1 =
        sink->addListenerForProperty(kAudioDevicePropertyVolumeScalar,
                                     [&](const auto&, AudioObjectPropertySelector) { ++volume; });
    auto t2 = sink->addListenerForProperty(
        kAudioDevicePropertyMute, [&](const auto&, AudioObjectPropertySelector) { ++mute; });
    ASSERT_TRUE(server_->pactl({"set-sink-volume", "zdr_fixture_out", "40%"}));
    ASSERT_TRUE(server_->pactl({"set-sink-mute", "zdr_fixture_out", "1"}));
    EXPECT_TRUE(eventually([&] { return volume > 0 && mute > 0; }));
    sink->removeListenerForToken(t1);
    sink->removeListenerForToken(t2);
}

TEST_P(PulseRegistryTest, HiddenDeviceIsFoundByUIDButNotListed) {
    ASSERT_TRUE(
        server_->loadNullSink("preview", "Preview", "zdr.uid=ZDRAudioCapture:4 zdr.hidden=1"));
    std::shared_ptr<AudioDevice> hidden;
    ASSERT_TRUE(eventually([&] {
        return (hidden = AudioDevice::deviceForCoreAudioUID("ZDRAudioCapture:4")) != nullptr;
    }));
    for (const auto& d : AudioDevice::outputDevices()) EXPECT_NE(d, hidden);
    EXPECT_EQ(AudioDevice::findUIDForAudioDeviceID(hidden->deviceID()), "ZDRAudioCapture:4");
}

// pipewire-pulse copies a sink's properties onto its monitor source; the
// monitor must still be a device of its own, under its own UID, and listed
// although its sink is hidden.
TEST_P(PulseRegistryTest, MonitorsKeepTheirOwnUIDAndVisibility) {
    ASSERT_TRUE(server_->loadNullSink("deskout", "Desk", "zdr.uid=desk-out"));
    ASSERT_TRUE(server_->loadNullSink("secret", "Secret", "zdr.uid=secret-out zdr.hidden=1"));
    auto listedInput = [](const std::string& uid) {
        for (const auto& d : AudioDevice::inputDevices()) {
            if (d->deviceUID() == uid) return d;
        }
        return std::shared_ptr<AudioDevice>();
    };
    std::shared_ptr<AudioDevice> sink, monitor, hiddenMonitor;
    ASSERT_TRUE(eventually([&] {
        sink = AudioDevice::deviceForCoreAudioUID("desk-out");
        monitor = listedInput("deskout.monitor");
        hiddenMonitor = listedInput("secret.monitor");
        return sink && monitor && hiddenMonitor;
    })) << "monitors listed: "
        << (monitor != nullptr) << (hiddenMonitor != nullptr);
    EXPECT_NE(sink, monitor);
    EXPECT_NE(sink->deviceID(), monitor->deviceID());
    EXPECT_EQ(AudioDevice::findUIDForAudioDeviceID(monitor->deviceID()), "deskout.monitor");
    EXPECT_EQ(AudioDevice::findUIDForAudioDeviceID(sink->deviceID()), "desk-out");
    // The hidden sink itself keeps its UID and stays out of the lists.
    EXPECT_NE(hw_->translateUIDToDevice("secret-out"), kAudioObjectUnknown);
    for (const auto& d : AudioDevice::outputDevices()) EXPECT_NE(d->deviceUID(), "secret-out");
}

// An app recording from a device must learn of every cut: each disappearance
// of a registered device is reported as gone dead, and each return as alive
// again, with unplug and replug 24 ms apart, as a flaky cable or a script makes
// them. Run after another test of the same process too, whose device objects
// of the same UID outlive their registry.
TEST_P(PulseRegistryTest, RapidUnplugAndReplugReportEveryCycle) {
    auto conn = hw_->connection();
    const std::string args = "sink_name=flicker sink_properties=zdr.uid=flicker-out";
    auto module = conn->loadModule("module-null-sink", args);
    ASSERT_TRUE(module);
    std::shared_ptr<AudioDevice> device;
    ASSERT_TRUE(
        eventually([&] { return (device = AudioDevice::deviceForCoreAudioUID("flicker-out")); }));
    constexpr int kCycles = 50;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        ASSERT_EQ(conn->unloadModule(*module), detail::PulseCallResult::ok) << "cycle " << cycle;
        std::this_thread::sleep_for(24ms);  // paces the cycles; nothing waits on it
        module = conn->loadModule("module-null-sink", args);
        ASSERT_TRUE(module) << "cycle " << cycle;
        std::this_thread::sleep_for(24ms);
    }
    // Generous: the notifications of fifty cycles may still be on their way.
    EXPECT_TRUE(eventually(
        [&] {
            return count(kAudioDriverDeviceAliveAgain, device.get()) >= kCycles &&
                   !device->isMarkedAsDead();
        },
        20000ms));
    // Each death is reported by the device-list handler and may be again by
    // the device's own listener; the returns are counted exactly.
    EXPECT_GE(count(kAudioDriverDeviceGoneDead, device.get()), static_cast<size_t>(kCycles));
    EXPECT_LE(count(kAudioDriverDeviceGoneDead, device.get()), static_cast<size_t>(2 * kCycles));
    EXPECT_EQ(count(kAudioDriverDeviceAliveAgain, device.get()), static_cast<size_t>(kCycles));
    EXPECT_EQ(AudioDevice::deviceForCoreAudioUID("flicker-out"), device);
}

// The default-output proxy, held as a plain AudioDevice, acts on the server's
// default sink (a sink has main volume and mute controls on both servers).
TEST_P(PulseRegistryTest, ProxyActsOnTheServersDefaultOutput) {
    auto proxy = AudioDevice::proxiedDefaultSystemOutput();
    ASSERT_TRUE(eventually([] {
        auto d = AudioDevice::defaultOutputDevice();
        return d && d->deviceUID() == "zdr_fixture_out";
    }));
    auto pactlOut = [&](std::vector<std::string> args) {
        std::string out;
        EXPECT_TRUE(server_->pactl(args, &out));
        return out;
    };
    proxy->setOutputVolume(0.3f);
    EXPECT_TRUE(eventually([&] {
        return pactlOut({"get-sink-volume", "zdr_fixture_out"}).find(" 30%") != std::string::npos;
    }));
    proxy->setMuted(true);
    EXPECT_TRUE(eventually([&] {
        return pactlOut({"get-sink-mute", "zdr_fixture_out"}).find("yes") != std::string::npos;
    }));
    EXPECT_TRUE(proxy->muted());
    EXPECT_NEAR(proxy->outputVolume(), 0.3f, 0.01f);

    // A new default from outside: the next calls reach it.
    ASSERT_TRUE(server_->loadNullSink("second", "Second"));
    ASSERT_TRUE(server_->pactl({"set-default-sink", "second"}));
    ASSERT_TRUE(server_->pactl({"set-sink-volume", "second", "70%"}));
    EXPECT_TRUE(eventually([&] { return std::abs(proxy->outputVolume() - 0.7f) < 0.01f; }));
    EXPECT_FALSE(proxy->muted());
    proxy->setMuted(true);
    EXPECT_TRUE(eventually([&] {
        return pactlOut({"get-sink-mute", "second"}).find("yes") != std::string::npos;
    }));
}

TEST_P(PulseRegistryTest, ServerRestartsAreReportedAndDevicesRebound) {
    auto sink = AudioDevice::deviceForCoreAudioUID("zdr_fixture_out");
    ASSERT_TRUE(sink);
    std::atomic<int> volume{0};
    auto token =
        sink->addListenerForProperty(kAudioDevicePropertyVolumeScalar,
                                     [&](const auto&, AudioObjectPropertySelector) { ++volume; });
    for (int i = 1; i <= 10; ++i) {
        const AudioObjectID before = sink->deviceID();
        std::string error;
        ASSERT_TRUE(server_->restart(&error)) << error;
        ASSERT_TRUE(eventually([&] {
            return count(kCoreAudioDRestarted) >= static_cast<size_t>(i);
        })) << "restart "
            << i;
        ASSERT_TRUE(eventually([&] {
            return count(kAudioDriverDeviceAliveAgain, sink.get()) >= static_cast<size_t>(i);
        })) << "restart "
            << i;
        EXPECT_NE(sink->deviceID(), before);
        EXPECT_EQ(AudioDevice::deviceForCoreAudioUID("zdr_fixture_out"), sink);
    }
    // Listener closures still fire on the re-bound device.
    ASSERT_TRUE(server_->pactl({"set-sink-volume", "zdr_fixture_out", "30%"}));
    EXPECT_TRUE(eventually([&] { return volume > 0; }));
    sink->removeListenerForToken(token);
}

TEST_P(PulseRegistryTest, HotplugStormEndsAliveEveryCycle) {
    auto conn = hw_->connection();
    auto module = conn->loadModule("module-null-sink", "sink_name=storm");
    ASSERT_TRUE(module);
    std::shared_ptr<AudioDevice> device;
    ASSERT_TRUE(eventually([&] { return (device = AudioDevice::deviceForCoreAudioUID("storm")); }));
    std::atomic<int> calls{0};
    auto token =
        device->addListenerForProperty(kAudioObjectPropertySelectorWildcard,
                                       [&](const auto&, AudioObjectPropertySelector) { ++calls; });
    // Known devices, live or possibly dead: the default-output stand-in moves
    // between the two tables as the default output comes and goes.
    auto known = [] {
        return AudioDevice::_test_registeredCount() + AudioDevice::_test_possiblyDeadCount();
    };
    // Measured after a few cycles: the first device-list changes also make the
    // registry meet the default output (through its stand-in) once.
    size_t registered = 0;
    for (int cycle = 1; cycle <= 200; ++cycle) {
        const size_t gone = count(kAudioDriverDeviceGoneDead, device.get());
        ASSERT_EQ(conn->unloadModule(*module), detail::PulseCallResult::ok);
        // The server acknowledges an unload before it carries it out; a sink
        // loaded under the same name before the old one is gone gets another.
        ASSERT_TRUE(eventually([&] {
            return count(kAudioDriverDeviceGoneDead, device.get()) > gone &&
                   device->isMarkedAsDead() &&
                   !conn->deviceByName(detail::PulseDeviceKind::source, "storm.monitor");
        })) << "cycle "
            << cycle;
        const size_t alive = count(kAudioDriverDeviceAliveAgain, device.get());
        module = conn->loadModule("module-null-sink", "sink_name=storm");
        ASSERT_TRUE(module);
        ASSERT_TRUE(eventually([&] {
            return count(kAudioDriverDeviceAliveAgain, device.get()) > alive &&
                   !device->isMarkedAsDead();
        })) << "cycle "
            << cycle;
        ASSERT_EQ(AudioDevice::deviceForCoreAudioUID("storm"), device);
        if (cycle == 10) registered = known();
    }
    EXPECT_EQ(known(), registered);
    EXPECT_FALSE(device->isMarkedAsDead());
    device->removeListenerForToken(token);
}

}  // namespace
}  // namespace zdr
