// AudioDevice: one audio hardware device, identified by its UID, as a
// long-lived object. A process-wide registry holds exactly one AudioDevice per
// UID; the object survives its device being unplugged and plugged in again, and
// the audio server restarting, under a new HAL object ID (the ID is refreshed
// in place). User interfaces can hold on to it for as long as they like.
//
// The device answers its properties (identity, transport, run state, sample
// rate, buffer sizes, streams, formats, channel layouts, data sources, the
// device clock) defensively: a HAL failure is logged and answered with an
// empty or default value, also for a device that has just gone away.
//
// Changes in the hardware reach the application four ways: the device's
// delegate (main queue), listener closures registered on the device or on all
// devices (global default-priority queue), the device's own reactions (main
// queue), and notifications on NotificationCenter::defaultCenter() posted from
// the main queue:
//   kAudioDevicesChanged          object none       after each device-list change
//   kAudioDriverDeviceGoneDead    object the device when a device is found dead
//   kAudioDriverDeviceAliveAgain  object the device when a dead device is re-found
//   kCoreAudioDRestarted          object none       when the audio server restarted
//   kAudioDevicesDefaultOutputChanged  object none  when the default output changed;
//                                 posted from the listener queue, not the main queue
// The host drains DispatchQueue::main() to receive them. Observable keys
// (ObservableObject): "deviceName" and "deviceUID" after each setup,
// "volume" and "recordVolume" on the main queue after a volume change.
//
// Threads: every operation may be called from any thread. HAL listener blocks
// run on the serial queue "com.tallpinecraft.audio.notifications". The class
// sets itself up (registry, listener queue, three system listeners) on first
// use of any class operation.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zdr/audio/audio_channel.h"
#include "zdr/audio/audio_property_listener_token.h"
#include "zdr/audio/device_channels.h"
#include "zdr/audio/hal/ca_hal_audio_device.h"
#include "zdr/runtime/dictionary.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/error.h"
#include "zdr/runtime/observable_object.h"

namespace zdr {

// Notification names (the constants' values are their own spellings).
inline constexpr const char* kAudioDevicesChanged = "kAudioDevicesChanged";
inline constexpr const char* kAudioDevicesDefaultOutputChanged =
    "kAudioDevicesDefaultOutputChanged";
inline constexpr const char* kAudioDriverDeviceGoneDead = "kAudioDriverDeviceGoneDead";
inline constexpr const char* kAudioDriverDeviceAliveAgain = "kAudioDriverDeviceAliveAgain";
inline constexpr const char* kCoreAudioDRestarted = "kCoreAudioDRestarted";
/// Exported for clients; this layer never posts them.
inline constexpr const char* kNewHALDriverInstalled = "kNewHALDriverInstalled";
inline constexpr const char* kNewHALDriverUnInstalled = "kNewHALDriverUnInstalled";

// Keys of the change dictionary handed to delegates.
inline constexpr const char* kPropertyChangeChannelNumber = "channel";  // hal::UInt32 element
inline constexpr const char* kPropertyChangeIsInput = "isInput";        // std::uint8_t 1 or 0
inline constexpr const char* kPropertyChangePropertyID = "propertyID";  // hal::UInt32 selector

/// The label of the queue every HAL listener block of this layer runs on.
inline constexpr const char* kAudioNotificationQueueLabel = "com.tallpinecraft.audio.notifications";

/// Receives every property change of a device, on the main queue.
class AudioDeviceDelegate {
 public:
    virtual ~AudioDeviceDelegate() = default;
    virtual void propertyChangedOnDevice(const std::shared_ptr<AudioDevice>& device,
                                         const Dictionary& info) = 0;
};

class AudioDevice : public ObservableObject,
                    public AudioChannelOwner,
                    public std::enable_shared_from_this<AudioDevice> {
 public:
    // ======== Registry and identity ========

    /// A new device object for the HAL object `deviceID`: creates the HAL
    /// wrapper and runs setupUsingCoreAudioDevice(). The object is returned even
    /// when setup failed. Does not register it (deviceForCoreAudioID does).
    static std::shared_ptr<AudioDevice> initWithCoreAudioDevice(hal::AudioObjectID deviceID);
    virtual ~AudioDevice();
    AudioDevice(const AudioDevice&) = delete;
    AudioDevice& operator=(const AudioDevice&) = delete;

    /// The registered device for `uid`; never asks the HAL.
    static std::shared_ptr<AudioDevice> lookupDeviceSingletonByDeviceUID(const std::string& uid);
    /// The registered device, else the one for the HAL object the UID translates to.
    static std::shared_ptr<AudioDevice> deviceForCoreAudioUID(
        const std::optional<std::string>& uid);
    /// The one device for a HAL object, made and registered on first use.
    static std::shared_ptr<AudioDevice> deviceForCoreAudioID(hal::AudioObjectID deviceID);
    static std::optional<std::string> findUIDForAudioDeviceID(hal::AudioObjectID deviceID);
    /// "ZDRAudioCapture:4" when `deviceID` is that hidden device's ID.
    static std::optional<std::string> maybeUUIDForHiddenDevices(hal::AudioObjectID deviceID);
    /// Devices with at least one stream in that direction, in HAL order.
    static std::vector<std::shared_ptr<AudioDevice>> devices(bool isInput);
    static std::vector<std::shared_ptr<AudioDevice>> inputDevices() { return devices(true); }
    static std::vector<std::shared_ptr<AudioDevice>> outputDevices() { return devices(false); }
    static std::shared_ptr<AudioDevice> systemOutputDevice();
    static std::shared_ptr<AudioDevice> defaultOutputDevice();
    static std::shared_ptr<AudioDevice> defaultInputDevice();
    /// The registered default-output proxy (a DefaultSystemOutputAudioDevice
    /// named "Default Output", or what the factory installed with
    /// setProxiedDefaultSystemOutputFactory() makes), made on first use.
    static std::shared_ptr<AudioDevice> proxiedDefaultSystemOutput();
    static void setProxiedDefaultSystemOutputFactory(
        std::function<std::shared_ptr<AudioDevice>()> factory);

    /// "ReelioAudioEngine:0" and "ZDRAudioCapture:3" (not the preview device).
    static std::vector<std::string> applicationAudioCaptureDeviceIDs();
    static std::shared_ptr<AudioDevice> ReelioAudioCaptureDevice();
    static std::shared_ptr<AudioDevice> zdrAudioCaptureHALDevice();
    static std::shared_ptr<AudioDevice> zdrAudioCaptureHALPreviewDevice();
    static std::shared_ptr<AudioDevice> designatedApplicationAudioDevice();
    static std::shared_ptr<AudioDevice> designatedApplicationAudioCapturePreviewDevice();
    /// The first output device that is not AirPlay and whose UID contains
    /// "apple" or "builtinspeakerdevice" (any letter case).
    static std::shared_ptr<AudioDevice> firstNonAirplayAppleOutputDevice();
    static void useTheNewZDRAudioHALCaptureDevicePlease();
    static void dontUseTheNewZDRAudioHALCaptureDevicePlease();
    static bool willUseNewZDRAudioHALDriver();
    static void optIntoUsingHALPreviewAsSource();
    static void optOutOfUsingHALPreviewAsSource();
    static bool haveOptedIntoUsingHALPreviewAsSource();
    /// Clears the hide-the-capture-drivers switch; with true, then posts
    /// kAudioDevicesChanged synchronously on the calling thread.
    static void _debug_setAudioDriversExistDontReturnNil(bool exist);
    static void _debug_toggleExistenceOfAudioCaptureDriver();

    /// (Re)reads name, UID and capabilities from the HAL and reinstalls the
    /// device's listener. False when there is no wrapper or a read failed.
    bool setupUsingCoreAudioDevice();
    virtual hal::CAHALAudioDevice* coreAudioDevice() const { return coreAudioDevice_.get(); }

    /// The current HAL object ID (0 while _test_MakeIDGoZero is set).
    virtual hal::AudioObjectID deviceID() const;
    void setDeviceID(hal::AudioObjectID deviceID);
    std::string deviceUID() const;
    void setDeviceUID(const std::string& uid);
    std::string deviceName() const;
    void setDeviceName(const std::string& name);
    /// The registry key: the device UID.
    std::string singletonKey() const { return deviceUID(); }

    virtual bool hasMasterOutputVolume() const { return hasMasterOutputVolume_.load(); }
    virtual bool hasMasterInputVolume() const { return hasMasterInputVolume_.load(); }
    virtual bool hasMasterOutputMute() const { return hasMasterOutputMute_.load(); }
    virtual bool mono() const { return mono_.load(); }
    void setMono(bool mono) { mono_.store(mono); }
    bool listenerInstalled() const { return listenerInstalled_.load(); }

    virtual bool isAlive() const;
    bool isMarkedAsDead() const;
    /// Marks the device dead (once) and posts kAudioDriverDeviceGoneDead (each
    /// time) when it is not alive; answers whether it was not alive.
    virtual bool markAsDeadIfDeviceIsNotAlive();
    void markDeviceAsNotAlive();
    void markDeviceAsAlive();
    bool refindDeviceIDBasedOnUID();
    bool seeIfDeviceHasComeAliveAndGetNewDeviceID();
    /// False (with a warning) when the device is marked dead.
    bool debugProtectCallFromDeadDevice() const;

    bool isApplicationAudioCaptureDevice() const;
    bool isProxyDefaultOutput() const;
    /// Same object; else same exact class, same deviceID and same UID.
    bool isEqual(const std::shared_ptr<const AudioDevice>& other) const;
    std::string description() const { return deviceName(); }
    std::string deviceDescriptionAndID() const;
    std::string deviceOutputDescription() const;

    /// Per-channel settings keyed "rec-<index>" / "play-<index>".
    virtual Dictionary momentoDictionary() const;
    virtual void setMomentoDictionary(const Dictionary& momento);

    bool _test_MakeNotAlive() const { return testMakeNotAlive_.load(); }
    void set_test_MakeNotAlive(bool on) { testMakeNotAlive_.store(on); }
    bool _test_MakeIDGoZero() const { return testMakeIDGoZero_.load(); }
    void set_test_MakeIDGoZero(bool on) { testMakeIDGoZero_.store(on); }

    // ======== Properties ========

    std::string deviceManufacturer() const;
    hal::UInt32 transportType() const;  // 0 on failure
    bool isAirPlay() const;
    bool isRunning() const;
    virtual hal::Float64 nominalSampleRate() const;
    bool setNominalSampleRate(hal::Float64 rate, Error* error);
    virtual hal::UInt32 bufferSizeInFrames() const;
    virtual hal::UInt32 deviceMaxVariableBufferSizeInFrames() const;
    virtual hal::UInt32 safetyOffset() const;
    bool doesDeviceHaveStreams(bool isInput) const;
    hal::UInt32 numberOfChannels(bool isInput) const;
    hal::UInt32 numberOfChannelsForStream(bool isInput, hal::UInt32 stream) const;
    void _getAvailableVirtualFormat(hal::UInt32 streamIndex, bool isInput,
                                    hal::AudioStreamBasicDescription* asbd) const;
    hal::AudioStreamBasicDescription _getAvailableVirtualFormat(hal::UInt32 streamIndex,
                                                                bool isInput) const;
    bool audioStreamBasicDescription(bool forOutput, hal::AudioStreamBasicDescription* asbd) const;
    bool audioStreamBasicDescription(bool forOutput, hal::UInt32 stream,
                                     hal::AudioStreamBasicDescription* asbd) const;
    std::optional<std::string> nameOfDataSource(bool isInput) const;
    void setDatasourceByName(const std::string& name, bool isInput);
    virtual std::optional<std::string> currentRecordingDatasource() const {
        return nameOfDataSource(true);
    }
    virtual void setCurrentRecordingDatasource(const std::string& name) {
        setDatasourceByName(name, true);
    }
    virtual std::optional<std::string> currentPlaybackDatasource() const {
        return nameOfDataSource(false);
    }
    virtual void setCurrentPlaybackDatasource(const std::string& name) {
        setDatasourceByName(name, false);
    }
    /// Fills the time stamp from the device clock. Throws Exception "Audio"
    /// without a time stamp. With no error pointer the answer is always true.
    bool currentTime(hal::AudioTimeStamp* time, Error* error) const;

    /// Channel layouts: each fills *layout and answers its size in bytes. A null
    /// layout throws Exception "NoLayout" (preferred and default layouts).
    hal::UInt32 preferredChannelLayout(hal::AudioChannelLayout* layout, bool recordingSide);
    hal::UInt32 createDefaultChannelLayout(hal::AudioChannelLayout* layout,
                                           bool useExistingChannelLabels, bool recordingSide);
    hal::UInt32 currentRecordingChannelLayout(hal::AudioChannelLayout* layout, bool recordingSide);
    hal::UInt32 monoChannelLayout(hal::AudioChannelLayout* layout, bool recordingSide);
    hal::UInt32 discreteChannelLayout(hal::AudioChannelLayout* layout, bool recordingSide);
    static hal::UInt32 sizeOfAudioChannelLayout(hal::UInt32 channels) { return 32 + 20 * channels; }

    /// Channel counts, cached under "recordingChannelCount" / "playbackChannelCount".
    virtual hal::UInt32 recordingChannelCount();
    virtual hal::UInt32 playbackChannelCount();

    bool haveCachedPropertyValueFor(const std::string& key) const;
    hal::UInt32 cachedUInt32PropertyValueFor(const std::string& key) const;
    void setCacheProperty(const std::string& key, hal::UInt32 value);
    void clearPropertyCacheWithName(const std::string& key);
    void clearPropertiesCache();
    /// Process-wide switch (initially on); while off every cache lookup misses.
    static bool use_propertiesCache();
    static void set_use_propertiesCache(bool on);

    static hal::AudioObjectPropertyScope scopeForIsInput(bool isInput) {
        return isInput ? hal::kAudioObjectPropertyScopeInput : hal::kAudioObjectPropertyScopeOutput;
    }
    /// The 13 sample rates offered to clients, as text ("8000.0" ... "192000.0").
    static const std::vector<std::string>& defaultSampleRates();
    /// The readable name of a HAL selector ("[Unknown: 'abcd']" when unknown).
    static std::string nameForPropertyID(hal::AudioObjectPropertySelector selector);

    // ======== Listeners ========

    static std::shared_ptr<AudioPropertyListenerToken> addGlobalListenerForProperties(
        const std::vector<hal::AudioObjectPropertySelector>& propertyIDs,
        AudioPropertyListenerBlock block);
    static void removeGlobalListenerForToken(
        const std::shared_ptr<AudioPropertyListenerToken>& token);
    std::shared_ptr<AudioPropertyListenerToken> addListenerForProperties(
        const std::vector<hal::AudioObjectPropertySelector>& propertyIDs,
        AudioPropertyListenerBlock block);
    std::shared_ptr<AudioPropertyListenerToken> addListenerForProperty(
        hal::AudioObjectPropertySelector propertyID, AudioPropertyListenerBlock block);
    void removeListenerForToken(const std::shared_ptr<AudioPropertyListenerToken>& token);

    /// Installs / removes the device's wildcard HAL listener.
    void listenForNotifications();
    void removeNotificationListener();
    hal::ListenerBlockRef wildcardListenerBlock();

    void setDelegate(const std::shared_ptr<AudioDeviceDelegate>& delegate);
    virtual std::shared_ptr<AudioDeviceDelegate> delegate() const;
    void notifyDelegateOfPropertyChange(const Dictionary& change);

    /// Test aid: plays an audio-server restart for this device through the
    /// device-list handler, four rounds one second apart, on a global queue.
    void fakeCoreAudioDRestart();
    /// As above with the rounds `interval` seconds apart.
    void fakeCoreAudioDRestart(double interval);

    // ======== Channels, volume and mute ========
    // The lists are built lazily; see DeviceChannels for their locking and
    // for when a rebuilt record list becomes visible.

    using ChannelList = std::vector<std::shared_ptr<AudioChannel>>;
    virtual ChannelList recordChannels();
    virtual ChannelList playbackChannels();
    /// The lists above, through the virtual accessors: the device-level
    /// operations below reach them this way, so on a device that stands for
    /// another (the default-output proxy) they follow that device.
    std::optional<ChannelList> channelsOfSide(bool isInput) override {
        return isInput ? recordChannels() : playbackChannels();
    }
    /// The record channel at `index`; null (with a logged error) out of range.
    std::shared_ptr<AudioChannel> channelForIndex(std::int64_t index);
    /// NaN for a side without channels.
    float averageChannelVolume(bool record);
    float outputVolume();
    void setOutputVolume(float volume);
    virtual float inputVolume();
    virtual void setInputVolume(float volume);
    bool muted();
    void setMuted(bool muted);
    void unmuteDevice();
    void setAllInputAndOutputChannelVolumesTo(float volume, bool forInput, bool includeMaster);
    void setAllInputAndOutputChannelVolumesTo(float volume, bool includeMaster);
    void setAllInputAndOutputChannelVolumesTo(float volume);
    float volumeForChannel(hal::UInt32 channel, bool isInput);
    virtual float averageInputVolumeAcrossAllChannels();
    float maxInputVolumeAcrossAllChannels();
    float averageOutputVolumeAcrossAllChannels();
    float maxOutputVolumeAcrossAllChannels();
    float maxPowerInDBAcrossAllChannels();
    void setMaxPowerInDBAcrossAllChannels(float db);
    float newFastMaxPowerInDBAcrossAllChannels() const {
        return newFastMaxPowerInDBAcrossAllChannels_.load();
    }
    void setNewFastMaxPowerInDBAcrossAllChannels(float db) {
        newFastMaxPowerInDBAcrossAllChannels_.store(db);
    }
    std::recursive_mutex& channelDeviceLock() const override { return selfLock_; }

    // ======== Default devices ========

    /// Makes this device the system default output / input; failures are logged.
    void makeDefaultOutputDevice();
    void makeDefaultInputDevice();
    /// Tells the user that the output device could not be put back (through
    /// the installed AlertPresenter; see default_devices.h).
    void showMakeDefaultWarning(const std::string& detail);

    // ======== Class-level plumbing ========

    /// The serial queue every HAL listener block of this layer runs on.
    static DispatchQueue notificationQueue();
    /// The device-list handler (normally run by the HAL listener).
    static void hardwarePropertyNotification(hal::AudioObjectPropertySelector propertyID);

    /// Test hook: forgets every device, tears the class state down and sets it
    /// up again on `hardware` (installed as the current backend). Devices that
    /// callers still hold keep working against their old backend but are no
    /// longer registered.
    static void _test_resetRegistry(std::shared_ptr<hal::AudioHardware> hardware);
    /// Test hook: number of registered and possibly-dead devices.
    static std::size_t _test_registeredCount();
    static std::size_t _test_possiblyDeadCount();

 protected:
    /// Base initialisation only: no HAL wrapper, channels or listener (for
    /// stand-in devices such as the default-output proxy).
    AudioDevice();

 private:
    void reactToPropertyChange(const Dictionary& change, hal::AudioObjectPropertySelector selector);
    void asyncPropertyListenerNotification(hal::AudioObjectPropertyElement element, bool isInput,
                                           hal::AudioObjectPropertySelector selector);
    hal::UInt32 channelCount(bool isInput, const char* cacheKey);
    bool belongsToCurrentRegistry() const;
    std::shared_ptr<AudioChannelOwner> channelOwner() const;

    std::unique_ptr<hal::CAHALAudioDevice> coreAudioDevice_;
    std::atomic<hal::AudioObjectID> deviceID_{0};
    std::atomic<bool> hasMasterOutputVolume_{false};
    std::atomic<bool> hasMasterInputVolume_{false};
    std::atomic<bool> hasMasterOutputMute_{false};
    std::atomic<bool> mono_{false};
    std::atomic<bool> listenerInstalled_{false};
    std::atomic<bool> testMakeNotAlive_{false};
    std::atomic<bool> testMakeIDGoZero_{false};

    mutable std::mutex fieldsMutex_;  // leaf lock: strings, delegate, cache
    std::string deviceUID_;
    std::string deviceName_ = "<not set>";
    std::weak_ptr<AudioDeviceDelegate> delegate_;
    std::map<std::string, hal::UInt32> propertiesCache_;

    std::atomic<float> newFastMaxPowerInDBAcrossAllChannels_{0.0f};

    // The device's own recursive lock: listener install/removal, memento,
    // default channel layout.
    mutable std::recursive_mutex selfLock_;
    hal::ListenerBlockRef listenerBlock_;
    DeviceChannels channels_;
    // Guarded by the process-wide listener lock.
    std::vector<std::shared_ptr<AudioPropertyListenerToken>> propertyListenerBlocks_;

    friend class AudioPropertyListenerToken;
};

}  // namespace zdr
