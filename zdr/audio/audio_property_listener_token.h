// AudioPropertyListenerToken: the handle of a property-listener closure
// registered on one AudioDevice (AudioDevice::addListenerForProperties) or on
// all devices (AudioDevice::addGlobalListenerForProperties). It remembers the
// selectors the closure wants (kAudioObjectPropertySelectorWildcard: all) and
// removes the registration again.
//
// Thread safety: any thread. The closure runs on the global default-priority
// queue, never on the main thread by design, concurrently with other closures.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "zdr/audio/hal/hal_types.h"

namespace zdr {

class AudioDevice;

/// A listener closure: the device and the selector that changed.
using AudioPropertyListenerBlock =
    std::function<void(const std::shared_ptr<AudioDevice>&, hal::AudioObjectPropertySelector)>;

class AudioPropertyListenerToken : public std::enable_shared_from_this<AudioPropertyListenerToken> {
 public:
    /// Sets the owning device (none for a registration on all devices), the
    /// selectors and the closure, in this order.
    static std::shared_ptr<AudioPropertyListenerToken> initWithPropertyIDs(
        std::vector<hal::AudioObjectPropertySelector> propertyIDs,
        const std::shared_ptr<AudioDevice>& device, AudioPropertyListenerBlock block);

    /// True when the token wants `selector` (or wants every selector).
    bool handles(hal::AudioObjectPropertySelector selector) const;

    /// Removes the registration: from the all-devices list when
    /// appliesToAllDevices is set, else from the owning device's list (nothing
    /// when the device is gone). Registration never sets appliesToAllDevices:
    /// remove an all-devices token with AudioDevice::removeGlobalListenerForToken.
    void removeFromOwningDevice();

    const std::vector<hal::AudioObjectPropertySelector>& propertyIDs() const {
        return propertyIDs_;
    }
    const AudioPropertyListenerBlock& block() const { return block_; }
    /// The owning device, or null (an all-devices token, or a device that is gone).
    std::shared_ptr<AudioDevice> owningAudioDevice() const { return owningAudioDevice_.lock(); }
    bool appliesToAllDevices() const { return appliesToAllDevices_.load(); }
    void setAppliesToAllDevices(bool applies) { appliesToAllDevices_.store(applies); }

 private:
    AudioPropertyListenerToken() = default;

    // Weak: the device holds its tokens, a token must not keep its device alive.
    std::weak_ptr<AudioDevice> owningAudioDevice_;
    std::vector<hal::AudioObjectPropertySelector> propertyIDs_;
    AudioPropertyListenerBlock block_;
    std::atomic<bool> appliesToAllDevices_{false};
};

}  // namespace zdr
