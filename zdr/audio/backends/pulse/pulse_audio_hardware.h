// PulseAudioHardware: the hardware access layer over a PulseAudio server (or
// PipeWire through pipewire-pulse), through libpulse's threaded main loop.
//
// One device per sink (output) and per source (input), monitor sources
// included: they are how a recorder captures what the machine plays. Each
// device has one stream. UIDs are the proplist value "zdr.uid" when present,
// else the sink or source name; a device with "zdr.hidden=1" is left out of
// the device list but found by UID. A monitor source is always known by its
// own name and listed (pipewire-pulse copies its sink's properties onto it). Object IDs are ours: a device that goes
// away and comes back, or survives a server restart, gets a new one.
//
// Reads answer from a snapshot kept current by the server's event
// subscription, so they never wait on the server. Writes (volumes, mute, data
// source = port, default devices) wait for the server's answer at most the
// call timeout (2 seconds unless told otherwise) and then answer
// kAudioHardwareNotRunningError. While no server answers, every property call
// answers kAudioHardwareNotRunningError; the connection is retried with
// back-off, and when a server answers again the system object reports
// kAudioHardwarePropertyServiceRestarted and a device-list change.
//
// Threads: every member may be called from any thread, also from inside a
// listener block. Listener blocks run on the queue given when they were added,
// never with a libpulse lock or a lock of this class held.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "zdr/audio/hal/audio_hardware.h"

namespace zdr::detail {
class PulseConnection;
struct PulseEvent;
struct PulseDevice;
}  // namespace zdr::detail

namespace zdr::hal {

class PulseAudioHardware : public AudioHardware,
                           public std::enable_shared_from_this<PulseAudioHardware> {
 public:
    struct Options {
        /// Server address ("unix:/run/user/1000/pulse/native"); empty: libpulse's
        /// default (PULSE_SERVER, then the user's runtime folder).
        std::string server;
        /// How long a write waits for the server.
        std::chrono::milliseconds callTimeout{2000};
        /// How long create() waits for the first answer.
        std::chrono::milliseconds connectTimeout{1500};
        /// Without a server answering in time: create() answers null (true), or a
        /// backend that keeps trying and reports the server when it comes (false).
        bool requireServer = true;
        /// With requireServer: give up as soon as one attempt to connect fails
        /// instead of retrying until connectTimeout (probing for a server).
        bool giveUpWhenNoServer = false;
    };

    static std::shared_ptr<PulseAudioHardware> create(Options options);
    static std::shared_ptr<PulseAudioHardware> create() { return create(Options{}); }

    /// Registers "pulse" with the audio layer (auto-probing: chosen by default
    /// when a server answers; a missing server costs one connection attempt).
    static void registerBackend();

    ~PulseAudioHardware() override;

    std::string backendName() const override { return "pulse"; }
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

    /// True while the snapshot is in step with a server.
    bool isConnected() const;
    /// Registered listener blocks (for leak checks).
    std::size_t listenerCount() const;
    /// The underlying connection (tests and tools: modules, round trips).
    const std::shared_ptr<detail::PulseConnection>& connection() const { return connection_; }

 private:
    PulseAudioHardware() = default;

    OSStatus read(AudioObjectID object, const AudioObjectPropertyAddress& address,
                  const PropertyValue* qualifier, PropertyValue* outValue, bool* outSettable);
    OSStatus readSystem(const AudioObjectPropertyAddress& address, const PropertyValue* qualifier,
                        PropertyValue* outValue, bool* outSettable);
    OSStatus readDevice(const detail::PulseDevice& d, const AudioObjectPropertyAddress& address,
                        const PropertyValue* qualifier, PropertyValue* outValue, bool* outSettable);
    OSStatus readStream(const detail::PulseDevice& d, const AudioObjectPropertyAddress& address,
                        PropertyValue* outValue, bool* outSettable);
    OSStatus setDefault(const AudioObjectPropertyAddress& address, const PropertyValue& value);
    bool objectExists(AudioObjectID object) const;

    // The listener table, shared with the connection's event handler so that
    // the handler never needs (and never releases) the backend itself.
    struct Listeners;

    Options options_;
    std::shared_ptr<Listeners> listeners_;
    std::shared_ptr<detail::PulseConnection> connection_;
};

}  // namespace zdr::hal
