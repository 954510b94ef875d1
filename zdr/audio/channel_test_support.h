// Test support: a device as the channel code sees it (an AudioChannelOwner)
// over one device of any hardware backend, found by UID.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "zdr/audio/audio_channel.h"
#include "zdr/audio/hal/ca_hal_audio_device.h"

namespace zdr::testing {

using namespace zdr::hal;

class TestChannelOwner : public AudioChannelOwner {
 public:
    TestChannelOwner(std::shared_ptr<AudioHardware> hw, const std::string& uid)
        : uid_(uid), hal_(std::make_unique<CAHALAudioDevice>(uid, std::move(hw))) {
        refresh();
    }
    void refresh() {
        auto master = [&](bool vol, AudioObjectPropertyScope scope) {
            try {
                return vol ? hal_->HasVolumeControl(scope, 0) &&
                                 hal_->VolumeControlIsSettable(scope, 0)
                           : hal_->HasMuteControl(scope, 0) &&
                                 hal_->MuteControlIsSettable(scope, 0);
            } catch (const CAException&) {
                return false;
            }
        };
        masterOut_ = master(true, kAudioObjectPropertyScopeOutput);
        masterIn_ = master(true, kAudioObjectPropertyScopeInput);
        masterMute_ = master(false, kAudioObjectPropertyScopeOutput);
    }
    CAHALAudioDevice* coreAudioDevice() const override { return hal_.get(); }
    bool mono() const override { return mono_.load(); }
    std::string description() const override { return uid_; }
    UInt32 numberOfChannels(bool isInput) const override {
        if (const int n = channelsOverride_.load(); n >= 0) return static_cast<UInt32>(n);
        try {
            return hal_->GetTotalNumberChannels(isInput);
        } catch (const CAException&) {
            return 0;
        }
    }
    bool debugProtectCallFromDeadDevice() const override { return !dead_.load(); }
    bool hasMasterOutputVolume() const override { return masterOut_; }
    bool hasMasterInputVolume() const override { return masterIn_; }
    bool hasMasterOutputMute() const override { return masterMute_; }
    std::recursive_mutex& channelDeviceLock() const override { return lock_; }

    std::atomic<bool> mono_{false};
    std::atomic<bool> dead_{false};
    std::atomic<int> channelsOverride_{-1};  // a device whose configuration changes

 private:
    std::string uid_;
    std::unique_ptr<CAHALAudioDevice> hal_;
    bool masterOut_ = false, masterIn_ = false, masterMute_ = false;
    mutable std::recursive_mutex lock_;
};

}  // namespace zdr::testing
