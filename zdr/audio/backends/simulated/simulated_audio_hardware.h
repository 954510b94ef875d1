// SimulatedAudioHardware: an in-memory audio server behind the AudioHardware
// interface. It holds devices with streams per direction, formats, volume and
// mute controls per element (present or absent, settable or not), data sources,
// preferred channel layouts, safety offsets, buffer sizes, run state and
// transport types, and it can be scripted: plug a device in, unplug it, plug it
// in again under a new object ID, restart the server, change any property,
// hide a device from the device list, and make the next call to a property
// fail with a chosen status. Every change raises the listener calls the
// platform HAL would raise.
//
// Descriptions of a machine's hardware load from JSON (see
// simulated_hardware_description.h); defaultDesktop() describes a realistic
// desktop.
//
// Thread safety: every member may be called from any thread. Listener blocks
// are dispatched asynchronously on the queue they were registered with; no
// internal lock is held while a block runs or is dispatched.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zdr/audio/hal/audio_hardware.h"

namespace zdr::hal {

/// One control on one element: a volume (scalar 0...1) or a mute (0 or 1).
struct SimulatedControl {
    AudioObjectPropertyElement element = kAudioObjectPropertyElementMain;
    Float32 value = 1.0f;
    bool settable = true;
};

struct SimulatedDataSource {
    UInt32 id = 0;
    std::string name;
};

/// One direction (input or output) of a device.
struct SimulatedDirectionSpec {
    /// Channels of each stream, in stream order; empty: no streams this way.
    std::vector<UInt32> streamChannels;
    AudioFormatID formatID = kAudioFormatLinearPCM;
    UInt32 bitsPerChannel = 32;
    bool isFloat = true;
    std::vector<SimulatedControl> volumes;  // by element; element 0 is the main control
    std::vector<SimulatedControl> mutes;
    std::vector<SimulatedDataSource> dataSources;  // empty: no data-source control
    UInt32 currentDataSource = 0;
    bool dataSourceSettable = true;
    std::optional<AudioChannelLayout> preferredLayout;
    UInt32 safetyOffset = 0;
    UInt32 latency = 0;

    UInt32 totalChannels() const {
        UInt32 n = 0;
        for (UInt32 c : streamChannels) n += c;
        return n;
    }
};

struct SimulatedDeviceSpec {
    std::string uid;
    std::string name;
    std::string manufacturer;
    std::string modelUID;
    UInt32 transportType = kAudioDeviceTransportTypeBuiltIn;
    Float64 nominalSampleRate = 48000.0;
    std::vector<Float64> availableSampleRates{44100.0, 48000.0};
    UInt32 bufferFrameSize = 512;
    AudioValueRange bufferFrameSizeRange{15.0, 4096.0};
    /// Present: the device uses variable buffer sizes up to this many frames.
    std::optional<UInt32> maxVariableBufferFrameSize;
    bool running = false;
    bool hidden = false;  // left out of the device list, still found by UID
    bool canBeDefault = true;
    bool canBeDefaultSystem = true;
    SimulatedDirectionSpec input;
    SimulatedDirectionSpec output;
};

/// A whole machine: its devices in list order and its default devices (UIDs;
/// empty: the first device that can be the default in that direction).
struct SimulatedHardwareDescription {
    std::vector<SimulatedDeviceSpec> devices;
    std::string defaultInput;
    std::string defaultOutput;
    std::string defaultSystemOutput;
};

class SimulatedAudioHardware : public AudioHardware {
 public:
    explicit SimulatedAudioHardware(const SimulatedHardwareDescription& description = {});
    ~SimulatedAudioHardware() override;

    /// The built-in desktop: speakers and microphone, a USB headset, an HDMI
    /// output, an AirPlay speaker and the application's capture devices
    /// "ZDRAudioCapture:3" and the hidden "ZDRAudioCapture:4".
    static SimulatedHardwareDescription defaultDesktop();

    // ---- AudioHardware ----
    std::string backendName() const override { return "simulated"; }
    bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) override;
    OSStatus isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                bool& outSettable) override;
    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 const PropertyValue* qualifier, UInt32& outSize) override;
    OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             const PropertyValue* qualifier, PropertyValue& outValue) override;
    OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             const PropertyValue& value) override;
    OSStatus addPropertyListenerBlock(AudioObjectID object,
                                      const AudioObjectPropertyAddress& address,
                                      const DispatchQueue& queue,
                                      const ListenerBlockRef& block) override;
    OSStatus removePropertyListenerBlock(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         const DispatchQueue& queue,
                                         const ListenerBlockRef& block) override;
    OSStatus deviceGetCurrentTime(AudioObjectID device, AudioTimeStamp& ioTime) override;
    std::optional<std::uint64_t> deviceListGeneration() const override {
        return generation_.load(std::memory_order_acquire);
    }

    // ---- Scripting ----

    /// Plugs a new device in (its UID must be new) and answers its object ID;
    /// kAudioObjectUnknown when the UID is empty or already present.
    AudioObjectID addDevice(const SimulatedDeviceSpec& spec);
    /// Unplugs a device: it reports not alive, leaves the device list, its
    /// object ID stops answering and its listeners are dropped. The device is
    /// remembered for replugDevice(). False when no plugged device has the UID.
    bool unplugDevice(const std::string& uid);
    /// Plugs a remembered device in again under a new object ID.
    AudioObjectID replugDevice(const std::string& uid);
    /// Stops the server: every call answers kAudioHardwareNotRunningError
    /// until startServer().
    void stopServer();
    /// Starts it again: every device comes back under a new object ID, listeners
    /// on devices and streams are gone (system-object listeners survive, as the
    /// client library re-registers them), then the device list change and
    /// kAudioHardwarePropertyServiceRestarted are raised.
    void startServer();
    /// stopServer() then startServer().
    void restartServer();
    bool isServerRunning() const;

    /// Changes any property of a device (by UID; "" means the system object) as
    /// the hardware would, storing the value even when clients may not set it,
    /// and raises the listener call. Settable: kept as it was for an existing
    /// property, `settable` for a new one. False for an unknown UID.
    bool changeProperty(const std::string& uid, const AudioObjectPropertyAddress& address,
                        const PropertyValue& value, bool settable = true);
    /// Several changes of one device raised in one listener call.
    bool changeProperties(
        const std::string& uid,
        const std::vector<std::pair<AudioObjectPropertyAddress, PropertyValue>>& changes);
    /// Removes a property (a control vanishes) and raises the listener call.
    bool removeProperty(const std::string& uid, const AudioObjectPropertyAddress& address);
    /// Raises a listener call without changing anything (for example
    /// kAudioDeviceProcessorOverload).
    bool raise(const std::string& uid, const std::vector<AudioObjectPropertyAddress>& addresses);

    bool setVolume(const std::string& uid, bool isInput, UInt32 element, Float32 scalar);
    bool setMute(const std::string& uid, bool isInput, UInt32 element, bool muted);
    bool setRunning(const std::string& uid, bool running);
    bool setNominalSampleRate(const std::string& uid, Float64 rate);
    /// Makes a device the default (input, output, or system output).
    bool setDefaultDevice(bool isInput, bool isSystem, const std::string& uid);
    /// Hides a device from (or shows it in) the device list.
    bool setHidden(const std::string& uid, bool hidden);

    /// The next `count` calls on `selector` of the device (by UID; "" for the
    /// system object; any scope and element) answer `status`. Counted per call
    /// of get, get-size, set, settable and listener add/remove.
    void failNextCall(const std::string& uid, AudioObjectPropertySelector selector, OSStatus status,
                      int count = 1);

    /// The object ID a UID has now (hidden devices included); none if unplugged.
    std::optional<AudioObjectID> objectIDForUID(const std::string& uid) const;
    std::vector<std::string> pluggedDeviceUIDs() const;
    /// The description a device was plugged in with (current values are not folded in).
    std::optional<SimulatedDeviceSpec> deviceSpec(const std::string& uid) const;
    /// HAL calls answered so far (every AudioHardware member counts one).
    std::uint64_t callCount() const { return calls_.load(std::memory_order_relaxed); }
    std::size_t listenerCount() const;

 private:
    struct Property {
        PropertyValue value;
        bool settable = false;
    };
    struct PropertyKey {
        AudioObjectPropertySelector selector;
        AudioObjectPropertyScope scope;
        AudioObjectPropertyElement element;
        bool operator<(const PropertyKey& o) const {
            if (selector != o.selector) return selector < o.selector;
            if (scope != o.scope) return scope < o.scope;
            return element < o.element;
        }
    };
    struct Object {
        AudioObjectID id = 0;
        bool isStream = false;
        bool streamIsInput = false;
        AudioObjectID owner = 0;  // the device of a stream
        std::string uid;          // the device's UID (streams: their device's)
        std::map<PropertyKey, Property> properties;
        std::vector<AudioObjectID> inputStreams, outputStreams;
        bool alive = true;
        std::uint64_t startedAt = 0;  // host time when it started running
        std::map<AudioObjectPropertyScope, std::map<UInt32, std::string>> dataSourceNames;
    };
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        DispatchQueue queue;
        ListenerBlockRef block;
    };
    struct Failure {
        std::string uid;
        AudioObjectPropertySelector selector;
        OSStatus status;
        int remaining;
    };
    struct Pending {
        DispatchQueue queue;
        ListenerBlockRef block;
        AudioObjectID object;
        std::vector<AudioObjectPropertyAddress> addresses;
    };

    // All helpers below run with mutex_ held.
    OSStatus precheck(AudioObjectID object, AudioObjectPropertySelector selector);
    Object* find(AudioObjectID id);
    const Property* findProperty(const Object& o, const AudioObjectPropertyAddress& a) const;
    bool computed(const Object& o, const AudioObjectPropertyAddress& a, PropertyValue& out) const;
    AudioObjectID plug(const SimulatedDeviceSpec& spec, std::vector<Pending>& pending);
    void unplugLocked(AudioObjectID id, std::vector<Pending>& pending);
    void chooseDefaultsLocked(std::vector<Pending>& pending);
    std::vector<UInt32> deviceListLocked() const;
    AudioObjectID idForUIDLocked(const std::string& uid) const;
    void collect(AudioObjectID object, const std::vector<AudioObjectPropertyAddress>& addresses,
                 std::vector<Pending>& pending) const;
    static void deliver(std::vector<Pending>& pending);

    mutable std::mutex mutex_;
    std::map<AudioObjectID, Object> objects_;
    std::vector<AudioObjectID> deviceOrder_;            // plugged devices in list order
    std::map<std::string, SimulatedDeviceSpec> specs_;  // every device ever plugged, by UID
    std::vector<std::string> specOrder_;
    std::vector<Listener> listeners_;
    std::vector<Failure> failures_;
    std::atomic<bool> failuresArmed_{false};
    std::string preferredDefaults_[3];      // input, output, system output: from the description
    std::string currentDefaults_[3];        // UIDs of the current defaults
    std::vector<std::string> restartUIDs_;  // devices plugged when the server stopped
    AudioObjectID nextID_ = 40;
    bool running_ = true;
    std::atomic<std::uint64_t> calls_{0};
    // Bumped by every scripted change (plug, unplug, restart, property
    // change, injected failure), which covers everything the device list and
    // UID answers depend on.
    std::atomic<std::uint64_t> generation_{0};
};

}  // namespace zdr::hal
