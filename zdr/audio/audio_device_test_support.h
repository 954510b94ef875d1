// Test support for the audio layer's tests: a fresh simulated machine and
// registry per test, a recorder of notifications and log lines, and a pump
// that runs the listener queue and the main queue until they are quiet.
#pragma once

#include <gtest/gtest.h>

#include "zdr/testing/eventually.h"

#include <chrono>
#include <mutex>
#include <thread>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"
#include "zdr/audio/detail/audio_log.h"
#include "zdr/runtime/notification_center.h"

namespace zdr::testing {

struct PostedNotification {
    std::string name;
    std::shared_ptr<void> object;
    bool onMainThread;
};

class AudioDeviceTest : public ::testing::Test {
 protected:
    void SetUp() override {
        hw_ = std::make_shared<hal::SimulatedAudioHardware>(
            hal::SimulatedAudioHardware::defaultDesktop());
        AudioDevice::_test_resetRegistry(hw_);
        detail::setAudioLogObserver([this](const detail::AudioLogRecord& r) {
            std::lock_guard lock(mutex_);
            logs_.push_back(r);
        });
        for (const char* name :
             {kAudioDevicesChanged, kAudioDriverDeviceGoneDead, kAudioDriverDeviceAliveAgain,
              kCoreAudioDRestarted, kAudioDevicesDefaultOutputChanged}) {
            observers_.push_back(NotificationCenter::defaultCenter()->addObserver(
                name, nullptr, std::nullopt, [this](const Notification& n) {
                    std::lock_guard lock(mutex_);
                    posted_.push_back({n.name, n.object, DispatchQueue::isMainThread()});
                }));
        }
        settle();
        clear();
    }
    void TearDown() override {
        settle();
        observers_.clear();
        detail::setAudioLogObserver(nullptr);
    }

    /// Runs the listener queue and the main queue until both are quiet.
    void settle() {
        for (int i = 0; i < 6; ++i) {
            AudioDevice::notificationQueue().sync([] {});
            DispatchQueue::main().drain();
        }
    }
    void clear() {
        std::lock_guard lock(mutex_);
        posted_.clear();
        logs_.clear();
    }
    std::vector<PostedNotification> posted() {
        std::lock_guard lock(mutex_);
        return posted_;
    }
    std::vector<std::string> postedNames() {
        std::vector<std::string> names;
        for (const auto& p : posted()) names.push_back(p.name);
        return names;
    }
    std::size_t countPosted(const std::string& name, const void* object = nullptr) {
        std::size_t n = 0;
        for (const auto& p : posted()) {
            if (p.name == name && (object == nullptr || p.object.get() == object)) ++n;
        }
        return n;
    }
    std::vector<detail::AudioLogRecord> logsContaining(const std::string& text) {
        std::lock_guard lock(mutex_);
        std::vector<detail::AudioLogRecord> out;
        for (const auto& r : logs_) {
            if (r.message.find(text) != std::string::npos) out.push_back(r);
        }
        return out;
    }
    /// Waits (generously) until `done` holds, pumping the queues.
    template <class F>
    bool eventually(F done, double seconds = 10.0) {
        return zdr::testing::eventually(
            done, std::chrono::milliseconds(static_cast<long>(seconds * 1000)),
            [this] { settle(); });
    }
    hal::AudioObjectID idOf(const std::string& uid) { return hw_->objectIDForUID(uid).value_or(0); }

    static constexpr const char* kSpeakers = "BuiltInSpeakerDevice";
    static constexpr const char* kMic = "BuiltInMicrophoneDevice";
    static constexpr const char* kHeadset = "AppleUSBAudioEngine:Logitech:USB Headset:14200000:1,2";
    static constexpr const char* kHDMI = "HDMI:DELL U2720Q:0";

    std::shared_ptr<hal::SimulatedAudioHardware> hw_;
    std::mutex mutex_;
    std::vector<PostedNotification> posted_;
    std::vector<detail::AudioLogRecord> logs_;
    std::vector<std::shared_ptr<NotificationObserverToken>> observers_;
};

}  // namespace zdr::testing
