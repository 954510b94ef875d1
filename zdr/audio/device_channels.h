// DeviceChannels: the channel lists of one audio device and the device-level
// volume, mute and meter operations built on them. AudioDevice owns one and
// forwards to it; every operation takes the owning device (an
// AudioChannelOwner) explicitly so the lists never keep their device alive.
//
// The two sides are guarded differently, on purpose:
//   - the record list by recordChannelsLock (a DispatchLock): recordChannels()
//     reads under it and, when the device's channel count changed, hands the
//     new list to the lock as an asynchronous write. The answer is therefore
//     the list as it was before the replacement (empty on the very first
//     call); later reads see the new one.
//   - the playback list by the device's own recursive lock, replaced directly
//     (after checking that the device is not marked dead).
// Old channel objects are dropped on a rebuild; callers keep settings across
// rebuilds through the memento.
//
// Hardware failures are logged and answered with 0.0, false or nothing.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "zdr/audio/audio_channel.h"
#include "zdr/runtime/dictionary.h"
#include "zdr/timing/dispatch_lock.h"

namespace zdr {

class DeviceChannels {
 public:
    using ChannelList = std::vector<std::shared_ptr<AudioChannel>>;

    DeviceChannels();
    DeviceChannels(const DeviceChannels&) = delete;
    DeviceChannels& operator=(const DeviceChannels&) = delete;

    const DispatchLock& recordChannelsLock() const { return *state_->recordLock; }
    /// Named for symmetry; the playback list is guarded by the device's own lock.
    const DispatchLock& playbackChannelsLock() const { return *state_->playbackLock; }

    ChannelList recordChannels(const std::shared_ptr<AudioChannelOwner>& device) const;
    ChannelList playbackChannels(const std::shared_ptr<AudioChannelOwner>& device) const;
    /// Rebuild when the count changed; answer the count.
    hal::UInt32 _checkAndRecreateRecordChannels(
        const std::shared_ptr<AudioChannelOwner>& device) const;
    hal::UInt32 _checkAndRecreatePlaybackChannels(
        const std::shared_ptr<AudioChannelOwner>& device) const;
    /// The channel at `index` on that side; null (after a logged error) out of range.
    std::shared_ptr<AudioChannel> channelForIndex(const std::shared_ptr<AudioChannelOwner>& device,
                                                  std::int64_t index, bool isInput) const;

    /// Sum of the side's channel volumes over their count (NaN for no channels).
    float averageChannelVolume(const std::shared_ptr<AudioChannelOwner>& device, bool record) const;
    float outputVolume(const std::shared_ptr<AudioChannelOwner>& device) const;
    float inputVolume(const std::shared_ptr<AudioChannelOwner>& device) const;
    void setOutputVolume(const std::shared_ptr<AudioChannelOwner>& device, float volume) const;
    void setInputVolume(const std::shared_ptr<AudioChannelOwner>& device, float volume) const;
    bool muted(const std::shared_ptr<AudioChannelOwner>& device) const;
    void setMuted(const std::shared_ptr<AudioChannelOwner>& device, bool muted) const;
    void unmuteDevice(const std::shared_ptr<AudioChannelOwner>& device) const;
    void setAllInputAndOutputChannelVolumesTo(const std::shared_ptr<AudioChannelOwner>& device,
                                              float volume, bool forInput,
                                              bool includeMaster) const;
    void setAllInputAndOutputChannelVolumesTo(const std::shared_ptr<AudioChannelOwner>& device,
                                              float volume, bool includeMaster) const;
    void setAllInputAndOutputChannelVolumesTo(const std::shared_ptr<AudioChannelOwner>& device,
                                              float volume) const;
    float volumeForChannel(const std::shared_ptr<AudioChannelOwner>& device, hal::UInt32 channel,
                           bool isInput) const;

    /// Meter summaries: over the record channels' (input) or playback
    /// channels' (output) levels; 0.0 for a side without channels.
    float averageInputVolumeAcrossAllChannels(
        const std::shared_ptr<AudioChannelOwner>& device) const;
    float maxInputVolumeAcrossAllChannels(const std::shared_ptr<AudioChannelOwner>& device) const;
    float averageOutputVolumeAcrossAllChannels(
        const std::shared_ptr<AudioChannelOwner>& device) const;
    float maxOutputVolumeAcrossAllChannels(const std::shared_ptr<AudioChannelOwner>& device) const;
    /// The largest of the record channels' levelInDB and the value last set.
    float maxPowerInDBAcrossAllChannels(const std::shared_ptr<AudioChannelOwner>& device) const;
    void setMaxPowerInDBAcrossAllChannels(float db);
    float newFastMaxPowerInDBAcrossAllChannels() const { return newFastMaxPower_.load(); }
    void setNewFastMaxPowerInDBAcrossAllChannels(float db) { newFastMaxPower_.store(db); }

    /// "rec-<index>" then "play-<index>" to each channel's memento.
    Dictionary momentoDictionary(const std::shared_ptr<AudioChannelOwner>& device) const;
    void setMomentoDictionary(const std::shared_ptr<AudioChannelOwner>& device,
                              const Dictionary& momento) const;

    /// Drops both lists (device teardown).
    void clear() const;

 private:
    // Shared with the asynchronous record-list write, which may run after the
    // device (and this object) are gone.
    struct State {
        std::unique_ptr<DispatchLock> recordLock;
        std::unique_ptr<DispatchLock> playbackLock;
        ChannelList recordChannels;     // guarded by recordLock
        bool recordListExists = false;  // guarded by recordLock
        ChannelList playbackChannels;   // guarded by the device's own lock
        bool playbackListExists = false;
        std::atomic<float> maxPowerInDB{-160.0f};
    };
    // The list a device-level operation works on: the owner's own answer
    // (which a stand-in device forwards), else the lists kept here.
    ChannelList sideChannels(const std::shared_ptr<AudioChannelOwner>& device, bool isInput) const;
    hal::UInt32 checkAndRecreateRecordChannelsInRead(
        const std::shared_ptr<AudioChannelOwner>& device) const;

    std::shared_ptr<State> state_;
    std::atomic<float> newFastMaxPower_{0.0f};
};

}  // namespace zdr
