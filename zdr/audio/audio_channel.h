// AudioChannel: one channel of one side (record or playback) of an audio
// device: a remembered ("proxy") volume for each side, an enabled flag, the
// latest meter readings, a user-chosen ChannelLabel, and the hardware volume
// and mute controls of the channel's element.
//
// Channels are made by their device (AudioChannel::channelsFor) and refer back
// to it weakly through the AudioChannelOwner interface, which AudioDevice
// implements. HAL channel elements count from 1 (element 0 is the main
// element), so a channel's element is coreAudioChannelIndex() = index() + 1.
//
// Hardware failures are logged and answered with the proxy values; a channel
// whose device has gone answers its proxies and writes nothing.
//
// Announcements:
//   - setSelectedLabel() posts kAudioChannelLabelChanged (object: the channel)
//     on NotificationCenter::defaultCenter(), always from the main queue;
//   - fireChannelNotification() announces the observable key "level" to the
//     observers added with observeKey(), on the calling thread.
// Volume changes register their undo with the installed UndoManager, if any.
//
// Thread safety: every member may be called from any thread. The channel's
// own setters take no lock beyond the one that guards each field; ordering
// between concurrent setters is the caller's business, as on the platform.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zdr/audio/channel_label.h"
#include "zdr/audio/hal/ca_hal_audio_device.h"
#include "zdr/audio/undo_manager.h"
#include "zdr/runtime/clock.h"
#include "zdr/runtime/dictionary.h"

namespace zdr {

/// Posted from the main queue when a channel's label changes; object: the channel.
inline constexpr const char* kAudioChannelLabelChanged = "kAudioChannelLabelChanged";

class AudioChannel;

/// What a channel and the channel lists need of their device.
class AudioChannelOwner {
 public:
    virtual ~AudioChannelOwner() = default;
    /// The device's HAL wrapper, or null; valid while the owner lives.
    virtual hal::CAHALAudioDevice* coreAudioDevice() const = 0;
    virtual bool mono() const = 0;
    /// For log lines ("%@" of the device).
    virtual std::string description() const = 0;
    /// Channels on that side (0 on failure).
    virtual hal::UInt32 numberOfChannels(bool isInput) const = 0;
    /// False (after a warning) when the device is marked dead.
    virtual bool debugProtectCallFromDeadDevice() const = 0;
    virtual bool hasMasterOutputVolume() const = 0;
    virtual bool hasMasterInputVolume() const = 0;
    virtual bool hasMasterOutputMute() const = 0;
    /// The device's own recursive lock.
    virtual std::recursive_mutex& channelDeviceLock() const = 0;
    /// The channel list the device-level volume, mute and meter operations
    /// work on. None (the default) means the lists kept beside the owner; a
    /// device that stands for another one answers that device's list, so the
    /// operations follow it.
    virtual std::optional<std::vector<std::shared_ptr<AudioChannel>>> channelsOfSide(bool isInput) {
        (void)isInput;
        return std::nullopt;
    }
};

class AudioChannel : public std::enable_shared_from_this<AudioChannel> {
 public:
    /// n channels for the device's side, n = numberOfChannels(forRecord): index
    /// 0...n-1, enabled; empty when n < 1 or the device is null.
    static std::vector<std::shared_ptr<AudioChannel>> channelsFor(
        const std::shared_ptr<AudioChannelOwner>& device, bool forRecord);

    static std::shared_ptr<AudioChannel> make(std::int32_t index,
                                              std::weak_ptr<AudioChannelOwner> device = {});

    // ---- Plain state ----
    std::int32_t index() const { return index_.load(); }
    void setIndex(std::int32_t index) { index_.store(index); }
    /// index() + 1: the HAL element of this channel.
    hal::UInt32 coreAudioChannelIndex() const { return static_cast<hal::UInt32>(index() + 1); }
    /// "Ch <coreAudioChannelIndex>".
    std::string name() const;
    std::string description() const;

    bool enabled() const { return enabled_.load(); }
    void setEnabled(bool enabled) { enabled_.store(enabled); }
    bool soloed() const { return soloed_.load(); }
    void setSoloed(bool soloed) { soloed_.store(soloed); }
    float level() const { return level_.load(); }
    float levelInDB() const { return levelInDB_.load(); }
    float peak() const { return peak_.load(); }
    float peakInDB() const { return peakInDB_.load(); }
    float proxyVolume() const { return proxyVolume_.load(); }
    void setProxyVolume(float v) { proxyVolume_.store(v); }
    float proxyOutputVolume() const { return proxyOutputVolume_.load(); }
    void setProxyOutputVolume(float v) { proxyOutputVolume_.store(v); }
    bool levelChanged() const { return levelChanged_.load(); }
    std::shared_ptr<AudioChannelOwner> device() const { return device_.lock(); }
    void setDevice(std::weak_ptr<AudioChannelOwner> device);
    std::optional<std::chrono::system_clock::time_point> lastPeakTime() const;

    /// The clock behind resetPeakTime() and peakCanDropoff() (system clock by default).
    void setClock(std::shared_ptr<Clock> clock);

    // ---- Volume and mute ----
    /// Refreshes proxyOutputVolume from the output-scope control when there
    /// is one, then answers proxyVolume (the record-side volume).
    float volume();
    /// Undoable; writes the input-scope control when it is settable.
    void setVolume(float volume);
    float outputVolume();
    /// Undoable; writes the output-scope control when it is settable.
    void setOutputVolume(float volume);
    bool muted() const;
    /// Switches the input-scope mute on when there is a control, whatever
    /// `muted` says (callers rely on this).
    void setMuted(bool muted);
    bool canMute() const;
    bool hasRecordVolumeControl() const;
    bool canSetVolume(bool isInput) const;
    bool canSetOutputVolume() const { return canSetVolume(false); }
    bool canSetInputVolume() const { return canSetVolume(true); }

    // ---- Label ----
    /// ChannelLabel::mono() while the device's mono flag is set, else the stored label.
    std::shared_ptr<ChannelLabel> selectedLabel() const;
    /// Stores `label` and announces it, unless it is the very object
    /// selectedLabel() answers now.
    void setSelectedLabel(const std::shared_ptr<ChannelLabel>& label);

    // ---- Meters ----
    void setLevelNoNotify(float level, float dbVal);
    void setPeakNoNotify(float peak, float dbVal);
    /// When a change awaits announcement: clears the flag and announces "level".
    void fireChannelNotification();
    void resetPeakTime();
    /// More than 1.0 s since resetPeakTime(); false when it was never called.
    bool peakCanDropoff() const;

    /// Observes a key ("level"); the observation lasts while the handle lives.
    [[nodiscard]] std::shared_ptr<void> observeKey(const std::string& key,
                                                   std::function<void()> callback);

    /// The installed UndoManager, or null.
    std::shared_ptr<UndoManager> undoManager() const { return UndoManager::installed(); }

    // ---- Memento ----
    /// Values for "index", "proxyVolume", "proxyOutputVolume", "enabled",
    /// "selectedLabel" (std::int32_t, float, float, bool,
    /// std::shared_ptr<ChannelLabel>, possibly null).
    Dictionary momentoDictionary() const;
    /// Sets the keys present with the right types; others are logged and skipped.
    void setMomentoDictionary(const Dictionary& momento);

    explicit AudioChannel(std::int32_t index, std::weak_ptr<AudioChannelOwner> device = {});

 private:
    // Reads the hardware's output volume for this channel into the playback
    // proxy. `function` names the public operation in log lines.
    void refreshOutputVolumeProxy(const char* function);
    void registerVolumeUndo(float old, void (AudioChannel::*setter)(float), const char* undoName);
    // Writes `volume` to the hardware control of `scope` if it is there and settable.
    void writeHardwareVolume(hal::AudioObjectPropertyScope scope, float volume,
                             const char* failureFormat, const char* function);
    void announceKey(const std::string& key);

    std::atomic<std::int32_t> index_;
    std::atomic<bool> enabled_{true};
    std::atomic<bool> soloed_{false};
    std::atomic<float> level_{0.0f};
    std::atomic<float> levelInDB_{0.0f};
    std::atomic<float> peak_{0.0f};
    std::atomic<float> peakInDB_{0.0f};
    std::atomic<float> proxyVolume_{1.0f};
    std::atomic<float> proxyOutputVolume_{1.0f};
    std::atomic<bool> levelChanged_{false};

    mutable std::mutex mutex_;  // leaf: the fields below
    std::weak_ptr<AudioChannelOwner> device_;
    std::shared_ptr<ChannelLabel> selectedLabel_;
    std::optional<std::chrono::system_clock::time_point> lastPeakTime_;
    std::shared_ptr<Clock> clock_;
    std::multimap<std::string, std::weak_ptr<std::function<void()>>> keyObservers_;
};

}  // namespace zdr
