#include "zdr/audio/audio_property_listener_token.h"

#include <algorithm>

#include "zdr/audio/audio_device.h"

namespace zdr {

std::shared_ptr<AudioPropertyListenerToken> AudioPropertyListenerToken::initWithPropertyIDs(
    std::vector<hal::AudioObjectPropertySelector> propertyIDs,
    const std::shared_ptr<AudioDevice>& device, AudioPropertyListenerBlock block) {
    std::shared_ptr<AudioPropertyListenerToken> token(new AudioPropertyListenerToken());
    token->owningAudioDevice_ = device;
    token->propertyIDs_ = std::move(propertyIDs);
    token->block_ = std::move(block);
    return token;
}

bool AudioPropertyListenerToken::handles(hal::AudioObjectPropertySelector selector) const {
    return std::any_of(propertyIDs_.begin(), propertyIDs_.end(), [selector](auto id) {
        return id == hal::kAudioObjectPropertySelectorWildcard || id == selector;
    });
}

void AudioPropertyListenerToken::removeFromOwningDevice() {
    if (appliesToAllDevices()) {
        AudioDevice::removeGlobalListenerForToken(shared_from_this());
    } else if (auto device = owningAudioDevice()) {
        device->removeListenerForToken(shared_from_this());
    }
}

}  // namespace zdr
