// Internal: the process-wide state of the AudioDevice class, shared by its
// implementation files. Not installed for clients.
//
// Lock order: the registry lock, then the possibly-dead lock; never the other
// way round. The listener lock is a leaf (nothing is called while it is held).
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/hal/audio_hardware.h"
#include "zdr/runtime/dispatch_queue.h"

namespace zdr::detail {

struct AudioDeviceClassState {
    std::shared_ptr<hal::AudioHardware> hardware;
    std::recursive_mutex registryLock;
    std::unordered_map<std::string, std::shared_ptr<AudioDevice>> registry;
    // Guarded by listenerLock().
    std::vector<std::shared_ptr<AudioPropertyListenerToken>> globalAllDevicePropertyListenerBlocks;
    DispatchQueue queue{kAudioNotificationQueueLabel};
    hal::ListenerBlockRef devicesListener, restartListener, defaultOutputListener;
    std::atomic<bool> useNewHALAudioDriver{true};
    std::atomic<bool> useNewHALAudioPreviewDriver{false};
    std::atomic<bool> disappearTheAudioCaptureDriverRegardless{false};
    // Object ID to UID answers, valid while the backend's device-list
    // generation stays the same (backends without one are never cached).
    std::mutex uidCacheMutex;
    std::uint64_t uidCacheGeneration = 0;
    std::unordered_map<hal::AudioObjectID, std::string> uidCache;
};

struct PossiblyDeadTable {
    std::recursive_mutex lock;
    std::unordered_map<std::string, std::shared_ptr<AudioDevice>> devices;
};

/// The class state, set up on first use (registry, queue, system listeners).
AudioDeviceClassState& audioDeviceClass();
PossiblyDeadTable& possiblyDead();
/// The lock "propertyListenerBlockLockable" over both listener lists.
std::recursive_mutex& listenerLock();
/// Posts `name` with `object` on the default center, from the main queue.
void postNotificationOnMain(const char* name, std::shared_ptr<void> object = nullptr);

}  // namespace zdr::detail
