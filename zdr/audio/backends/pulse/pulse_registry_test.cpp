// The device registry on the pulse backend against a private server: plug and
// unplug, default changes, changes from outside reaching listener closures, a
// hidden device, server restarts, and a hot-plug storm.
#include <gtest/gtest.h>

#include "zdr/testing/eventually.h"

#include <chrono>
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

class PulseRegistryTest : public zdr::testing::PulseServerTest {
 protected:
    void SetUp() override {
        PulseServerTest::SetUp();
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
        PulseServerTest::TearDown();
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

TEST_F(PulseRegistryTest, UnplugAndReplugKeepTheObject) {
    auto module = server_->loadNullSink("usbmic", "USB Mic", "zdr.uid=usb-mic");
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

    ASSERT_TRUE(server_->loadNullSink("usbmic", "USB Mic", "zdr.uid=usb-mic"));
    ASSERT_TRUE(eventually([&] { return count(kAudioDriverDeviceAliveAgain, device.get()) > 0; }));
    EXPECT_FALSE(device->isMarkedAsDead());
    EXPECT_NE(device->deviceID(), firstID);
    EXPECT_EQ(AudioDevice::deviceForCoreAudioUID("usb-mic"), device);
    EXPECT_GT(count(kAudioDevicesChanged), 0u);
}

TEST_F(PulseRegistryTest, DefaultOutputFollowsTheServer) {
    ASSERT_TRUE(server_->loadNullSink("speakers", "Speakers"));
    ASSERT_TRUE(
        eventually([&] { return AudioDevice::deviceForCoreAudioUID("speakers") != nullptr; }));
    ASSERT_TRUE(server_->pactl({"set-default-sink", "speakers"}));
    ASSERT_TRUE(eventually([&] { return count(kAudioDevicesDefaultOutputChanged) > 0; }));
    auto def = AudioDevice::defaultOutputDevice();
    ASSERT_TRUE(def);
    EXPECT_EQ(def->deviceUID(), "speakers");
}

TEST_F(PulseRegistryTest, OutsideChangesReachListenerClosures) {
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

TEST_F(PulseRegistryTest, HiddenDeviceIsFoundByUIDButNotListed) {
    ASSERT_TRUE(
        server_->loadNullSink("preview", "Preview", "zdr.uid=ZDRAudioCapture:4 zdr.hidden=1"));
    std::shared_ptr<AudioDevice> hidden;
    ASSERT_TRUE(eventually([&] {
        return (hidden = AudioDevice::deviceForCoreAudioUID("ZDRAudioCapture:4")) != nullptr;
    }));
    for (const auto& d : AudioDevice::outputDevices()) EXPECT_NE(d, hidden);
    EXPECT_EQ(AudioDevice::findUIDForAudioDeviceID(hidden->deviceID()), "ZDRAudioCapture:4");
}

TEST_F(PulseRegistryTest, ServerRestartsAreReportedAndDevicesRebound) {
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

TEST_F(PulseRegistryTest, HotplugStormEndsAliveEveryCycle) {
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
