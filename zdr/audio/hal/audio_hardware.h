// AudioHardware: the one interface through which the audio layer reaches the
// machine's audio hardware, shaped like the platform HAL's property API:
// objects named by AudioObjectID (the system object is 1), properties named by
// an address of selector, scope and element, statuses instead of exceptions,
// and listener blocks that run on a queue the caller chooses.
//
// Backends implement it: the simulated backend (in memory, scriptable, loadable
// from JSON) and the PulseAudio backend. Which one is used:
//   1. the one the host installs with AudioHardware::install() before first use;
//   2. else the backend named by the environment variable ZDR_AUDIO_BACKEND
//      ("pulse", "simulated", or any registered name);
//   3. else the first auto-probing backend whose factory answers (a real audio
//      server is reachable), in registration order;
//   4. else the simulated backend.
// Backends are registered by name with registerBackend(); the built-in ones are
// registered in zdr/audio/backends/builtin_backends.cpp.
//
// Contract of every backend:
//   - Every member may be called from any thread, also from inside a listener
//     block, and never blocks on a listener block.
//   - Unknown objects answer kAudioHardwareBadObjectError, unknown properties
//     kAudioHardwareUnknownPropertyError, values of the wrong kind
//     kAudioHardwareBadPropertySizeError, read-only properties
//     kAudioHardwareIllegalOperationError on set; a lost server
//     kAudioHardwareNotRunningError.
//   - Listener blocks are called asynchronously on the queue given when they
//     were added, with the object and the addresses that changed (several
//     addresses may come in one call). A block added twice for the same object,
//     address and queue is refused with kAudioHardwareIllegalOperationError;
//     removing one that is not registered answers kAudioHardwareIllegalOperationError
//     too (kAudioHardwareBadObjectError when the object no longer exists). A
//     listener registered with wildcards hears every matching change. After
//     removal returns, the block is not called for changes raised later.
//   - Selectors on the system object (kAudioObjectSystemObject):
//     kAudioHardwarePropertyDevices (UInt32List, hidden devices left out),
//     kAudioHardwarePropertyDefault{Input,Output,SystemOutput}Device (UInt32,
//     settable), kAudioHardwarePropertyTranslateUIDToDevice (UInt32; the
//     qualifier is the UID string; unknown UIDs answer kAudioObjectUnknown with
//     no error; hidden devices are found), and
//     kAudioHardwarePropertyServiceRestarted (listen only).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zdr/audio/hal/hal_types.h"
#include "zdr/audio/hal/property_value.h"
#include "zdr/runtime/dispatch_queue.h"

namespace zdr::hal {

/// A listener block: called with the object whose properties changed and the
/// addresses that changed. Held by shared_ptr; the pointer is its identity
/// when removing it.
using AudioObjectPropertyListenerBlock =
    std::function<void(AudioObjectID, const std::vector<AudioObjectPropertyAddress>&)>;
using ListenerBlockRef = std::shared_ptr<const AudioObjectPropertyListenerBlock>;

inline ListenerBlockRef makeListenerBlock(AudioObjectPropertyListenerBlock block) {
    return std::make_shared<const AudioObjectPropertyListenerBlock>(std::move(block));
}

class AudioHardware {
 public:
    virtual ~AudioHardware() = default;

    /// The backend's name ("simulated", "pulse").
    virtual std::string backendName() const = 0;

    virtual bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) = 0;
    virtual OSStatus isPropertySettable(AudioObjectID object,
                                        const AudioObjectPropertyAddress& address,
                                        bool& outSettable) = 0;
    /// The HAL byte size of the property's current value (see PropertyValue::dataSize).
    virtual OSStatus getPropertyDataSize(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         const PropertyValue* qualifier, UInt32& outSize) = 0;
    virtual OSStatus getPropertyData(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     const PropertyValue* qualifier, PropertyValue& outValue) = 0;
    virtual OSStatus setPropertyData(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     const PropertyValue& value) = 0;

    virtual OSStatus addPropertyListenerBlock(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address,
                                              const DispatchQueue& queue,
                                              const ListenerBlockRef& block) = 0;
    virtual OSStatus removePropertyListenerBlock(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 const DispatchQueue& queue,
                                                 const ListenerBlockRef& block) = 0;

    /// The device's current sample time and host time (flags as requested in
    /// ioTime.mFlags are filled where the device can). A device that is not
    /// running answers kAudioHardwareNotRunningError.
    virtual OSStatus deviceGetCurrentTime(AudioObjectID device, AudioTimeStamp& ioTime) = 0;

    /// A number that changes whenever the device list, UID translation or a
    /// device's UID may answer differently (a device plugged, unplugged, hidden
    /// or shown, the server restarted...), so that callers can cache those
    /// answers. None (the default) means the backend cannot tell: do not cache.
    virtual std::optional<std::uint64_t> deviceListGeneration() const { return std::nullopt; }

    // ---- Convenience built on the calls above ----

    /// kAudioHardwarePropertyTranslateUIDToDevice; kAudioObjectUnknown when unknown.
    AudioObjectID translateUIDToDevice(const std::string& uid);

    // ---- Choosing the backend ----

    /// A factory answers a ready backend, or null when it cannot run here (for
    /// example, no audio server answers).
    using Factory = std::function<std::shared_ptr<AudioHardware>()>;

    /// Registers (or replaces) a backend by name. autoProbe: try it when the
    /// host and the environment choose nothing.
    static void registerBackend(const std::string& name, Factory factory, bool autoProbe);
    static std::vector<std::string> registeredBackends();
    /// Creates a backend by registered name; null when unknown or unavailable.
    static std::shared_ptr<AudioHardware> makeBackend(const std::string& name);

    /// Installs the backend to use from now on. Hosts call it before first use;
    /// tests may call it at any time to start over with a fresh backend.
    static void install(std::shared_ptr<AudioHardware> hardware);
    /// The installed backend, choosing one on first use (see the header comment).
    /// Never null.
    static std::shared_ptr<AudioHardware> current();
    /// The installed backend if one has been installed or chosen, else null.
    static std::shared_ptr<AudioHardware> installed();
    /// The error text of the last failed choice by ZDR_AUDIO_BACKEND (an unknown
    /// or unavailable name), if any; the simulated backend was used instead.
    static std::optional<std::string> lastSelectionProblem();
};

}  // namespace zdr::hal
