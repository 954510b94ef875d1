// AudioDevice: how hardware property changes fan out to the delegate, the
// listener closures and the device's own reactions.
#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstdlib>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/audio_device_internal.h"
#include "zdr/audio/detail/audio_log.h"

namespace zdr {

using namespace hal;
using detail::audioDeviceClass;
using detail::listenerLock;

namespace {
const AudioObjectPropertyAddress kWildcardAddress{kAudioObjectPropertySelectorWildcard,
                                                  kAudioObjectPropertyScopeWildcard,
                                                  kAudioObjectPropertyElementWildcard};
}  // namespace

// ---------------------------------------------------------------------------
// Registering listener closures

std::shared_ptr<AudioPropertyListenerToken> AudioDevice::addGlobalListenerForProperties(
    const std::vector<AudioObjectPropertySelector>& propertyIDs, AudioPropertyListenerBlock block) {
    auto& cls = audioDeviceClass();
    auto token =
        AudioPropertyListenerToken::initWithPropertyIDs(propertyIDs, nullptr, std::move(block));
    std::lock_guard lock(listenerLock());
    cls.globalAllDevicePropertyListenerBlocks.push_back(token);
    return token;
}

void AudioDevice::removeGlobalListenerForToken(
    const std::shared_ptr<AudioPropertyListenerToken>& token) {
    if (!token) return;
    auto& cls = audioDeviceClass();
    std::lock_guard lock(listenerLock());
    auto& list = cls.globalAllDevicePropertyListenerBlocks;
    list.erase(std::remove(list.begin(), list.end(), token), list.end());
}

std::shared_ptr<AudioPropertyListenerToken> AudioDevice::addListenerForProperties(
    const std::vector<AudioObjectPropertySelector>& propertyIDs, AudioPropertyListenerBlock block) {
    auto token = AudioPropertyListenerToken::initWithPropertyIDs(propertyIDs, shared_from_this(),
                                                                 std::move(block));
    std::lock_guard lock(listenerLock());
    propertyListenerBlocks_.push_back(token);
    return token;
}

std::shared_ptr<AudioPropertyListenerToken> AudioDevice::addListenerForProperty(
    AudioObjectPropertySelector propertyID, AudioPropertyListenerBlock block) {
    return addListenerForProperties({propertyID}, std::move(block));
}

void AudioDevice::removeListenerForToken(const std::shared_ptr<AudioPropertyListenerToken>& token) {
    if (!token) return;
    std::lock_guard lock(listenerLock());
    propertyListenerBlocks_.erase(
        std::remove(propertyListenerBlocks_.begin(), propertyListenerBlocks_.end(), token),
        propertyListenerBlocks_.end());
}

// ---------------------------------------------------------------------------
// The device's HAL listener

ListenerBlockRef AudioDevice::wildcardListenerBlock() {
    // Weak: the device owns its listener block, which must not keep it alive.
    std::weak_ptr<AudioDevice> weak = weak_from_this();
    return makeListenerBlock(
        [weak](AudioObjectID, const std::vector<AudioObjectPropertyAddress>& addresses) {
            auto self = weak.lock();
            if (!self) return;
            try {
                for (const auto& a : addresses) {
                    self->asyncPropertyListenerNotification(
                        a.mElement, a.mScope == kAudioObjectPropertyScopeInput, a.mSelector);
                }
            } catch (const Exception& e) {
                ZDR_AUDIO_LOG_AT(app, info, "AudioDevice::wildcardListenerBlock",
                                 "Error in property listener handler: {}", e.reason());
            }
        });
}

void AudioDevice::listenForNotifications() {
    std::lock_guard lock(selfLock_);
    if (!coreAudioDevice_) return;
    listenerBlock_ = wildcardListenerBlock();
    try {
        coreAudioDevice_->AddPropertyListenerBlock(kWildcardAddress, audioDeviceClass().queue,
                                                   listenerBlock_);
        listenerInstalled_.store(true);
    } catch (const CAException& e) {
        if (e.GetError() == kAudioHardwareIllegalOperationError) {
            ZDR_AUDIO_LOG(app, verbose,
                          "Unable to add a listener: {}. Probably already added for this device.",
                          e.GetError());
            listenerInstalled_.store(true);
        } else {
            ZDR_AUDIO_LOG(app, error,
                          "Received error code {} ({}) while adding notification listener",
                          e.GetError(),
                          fmt::format("Error Domain=NSOSStatusErrorDomain Code={}", e.GetError()));
            ZDR_AUDIO_LOG(app, error,
                          "Previous error will probably cause app to fail from an audio "
                          "perspective. It wont respond to changing audio devices.");
        }
    }
}

void AudioDevice::removeNotificationListener() {
    std::lock_guard lock(selfLock_);
    if (!coreAudioDevice_ || !listenerInstalled_.load() || !listenerBlock_) return;
    try {
        coreAudioDevice_->RemovePropertyListenerBlock(kWildcardAddress, audioDeviceClass().queue,
                                                      listenerBlock_);
    } catch (const CAException& e) {
        if (e.GetError() == kAudioHardwareIllegalOperationError ||
            e.GetError() == kAudioHardwareBadObjectError) {
            ZDR_AUDIO_LOG(
                app, verbose,
                "Unable to remove listener: {}. Probably already removed for this device.",
                e.GetError());
        } else {
            ZDR_AUDIO_LOG(app, error, "Received error {} ({}) while removing notification listener",
                          e.GetError(),
                          fmt::format("Error Domain=NSOSStatusErrorDomain Code={}", e.GetError()));
        }
    }
    listenerBlock_.reset();
    listenerInstalled_.store(false);
}

// ---------------------------------------------------------------------------
// Fan-out of one change

void AudioDevice::asyncPropertyListenerNotification(AudioObjectPropertyElement element,
                                                    bool isInput,
                                                    AudioObjectPropertySelector selector) {
    const Dictionary change{{kPropertyChangeChannelNumber, UInt32{element}},
                            {kPropertyChangeIsInput, static_cast<std::uint8_t>(isInput ? 1 : 0)},
                            {kPropertyChangePropertyID, UInt32{selector}}};
    const std::string name = nameForPropertyID(selector);
    if (selector != kAudioDeviceProcessorOverload) {
        ZDR_AUDIO_LOG(audioProperties, verbose, "Property Changed: {} for {}", name, deviceName());
    }

    std::vector<std::shared_ptr<AudioPropertyListenerToken>> local, global, collected;
    {
        std::lock_guard lock(listenerLock());
        local = propertyListenerBlocks_;
        global = audioDeviceClass().globalAllDevicePropertyListenerBlocks;
    }
    ZDR_AUDIO_LOG(audioProperties, verbose, "Check {} local blocks, {} global blocks", local.size(),
                  global.size());
    // A token registered on the device and for all devices is called once.
    auto collect = [&](const auto& tokens, const char* what) {
        for (const auto& token : tokens) {
            if (!token->handles(selector)) continue;
            if (std::find(collected.begin(), collected.end(), token) != collected.end()) continue;
            ZDR_AUDIO_LOG(audioProperties, verbose, "Will notify {} block for {} on {}", what, name,
                          deviceName());
            collected.push_back(token);
        }
    };
    collect(local, "device");
    collect(global, "global");

    auto self = shared_from_this();
    DispatchQueue::main().async(
        [self, change, selector] { self->reactToPropertyChange(change, selector); });
    const auto queue = DispatchQueue::global(DispatchQoS::defaultQoS);
    for (auto& token : collected) {
        queue.async([self, token, selector] { token->block()(self, selector); });
    }
}

void AudioDevice::reactToPropertyChange(const Dictionary& change,
                                        AudioObjectPropertySelector selector) {
    notifyDelegateOfPropertyChange(change);
    switch (selector) {
        case kAudioDevicePropertyStreams:
            clearPropertiesCache();
            break;
        case kAudioDevicePropertyVolumeScalar: {
            auto self = shared_from_this();
            DispatchQueue::main().async([self] {
                self->didChangeValue("volume");
                self->didChangeValue("recordVolume");
            });
            break;
        }
        case kAudioDevicePropertyDeviceIsAlive:
            if (markAsDeadIfDeviceIsNotAlive()) {
                ZDR_AUDIO_LOG(audio, info, "{} has died. Marking as dead",
                              deviceDescriptionAndID());
            }
            clearPropertiesCache();
            break;
        case kAudioDeviceProcessorOverload:
            ZDR_AUDIO_LOG(audio, info, "Device {} reports kAudioDeviceProcessorOverload",
                          description());
            break;
        default: {
            auto d = delegate();
            ZDR_AUDIO_LOG(audio, verbose, "Property {} changed on device {}. Send to delegate: {}",
                          nameForPropertyID(selector), description(),
                          d ? fmt::format("{}", static_cast<const void*>(d.get())) : "(null)");
            break;
        }
    }
}

// ---------------------------------------------------------------------------
// Delegate

void AudioDevice::setDelegate(const std::shared_ptr<AudioDeviceDelegate>& delegate) {
    std::lock_guard lock(fieldsMutex_);
    delegate_ = delegate;
}

std::shared_ptr<AudioDeviceDelegate> AudioDevice::delegate() const {
    std::lock_guard lock(fieldsMutex_);
    return delegate_.lock();
}

void AudioDevice::notifyDelegateOfPropertyChange(const Dictionary& change) {
    if (!delegate()) return;
    auto self = shared_from_this();
    // The delegate is read again on the main queue: it may have changed.
    DispatchQueue::main().async([self, change] {
        if (auto d = self->delegate()) d->propertyChangedOnDevice(self, change);
    });
}

// ---------------------------------------------------------------------------
// Simulated restart

void AudioDevice::fakeCoreAudioDRestart() { fakeCoreAudioDRestart(1.0); }

void AudioDevice::fakeCoreAudioDRestart(double interval) {
    auto self = shared_from_this();
    const auto queue = DispatchQueue::global(DispatchQoS::defaultQoS);
    const std::function<void()> rounds[] = {
        [self] {
            self->set_test_MakeNotAlive(true);
            hardwarePropertyNotification(0);
        },
        [self] {
            self->set_test_MakeIDGoZero(true);
            hardwarePropertyNotification(0);
        },
        [self] {
            self->set_test_MakeIDGoZero(false);
            hardwarePropertyNotification(0);
        },
        [self] {
            self->set_test_MakeNotAlive(false);
            hardwarePropertyNotification(0);
        },
    };
    // Each round is submitted from the previous one, so they run in order
    // even on a concurrent queue.
    auto chain = std::make_shared<std::function<void(std::size_t)>>();
    std::vector<std::function<void()>> steps(std::begin(rounds), std::end(rounds));
    *chain = [queue, interval, steps,
              weakChain = std::weak_ptr<std::function<void(std::size_t)>>(chain)](std::size_t i) {
        if (i >= steps.size()) return;
        auto next = weakChain.lock();
        queue.asyncAfter(dispatchTimeAfter(interval), [steps, i, next] {
            steps[i]();
            if (next) (*next)(i + 1);
        });
    };
    (*chain)(0);
}

}  // namespace zdr
