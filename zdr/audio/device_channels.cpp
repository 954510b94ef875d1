#include "zdr/audio/device_channels.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "zdr/audio/detail/channel_log.h"

namespace zdr {

using hal::CAException;
using hal::kAudioObjectPropertyElementMain;
using hal::kAudioObjectPropertyScopeInput;
using hal::kAudioObjectPropertyScopeOutput;
using Owner = std::shared_ptr<AudioChannelOwner>;

namespace {

std::string nameOf(const Owner& device) { return device ? device->description() : "(null)"; }

}  // namespace

DeviceChannels::DeviceChannels() : state_(std::make_shared<State>()) {
    state_->recordLock = std::make_unique<DispatchLock>("recordChannelsLock");
    state_->playbackLock = std::make_unique<DispatchLock>("playbackChannelsLock");
}

// ---------------------------------------------------------------------------
// The lists

hal::UInt32 DeviceChannels::checkAndRecreateRecordChannelsInRead(const Owner& device) const {
    if (!device) return 0;
    const hal::UInt32 n = device->numberOfChannels(true);
    if (state_->recordListExists && state_->recordChannels.size() == n) return n;
    // The replacement is queued behind the readers already waiting, so this
    // read (and they) still see the old list; that ordering is relied upon.
    auto fresh = AudioChannel::channelsFor(device, true);
    std::weak_ptr<State> weak = state_;
    state_->recordLock->asyncWrite([weak, fresh = std::move(fresh)]() mutable {
        if (auto state = weak.lock()) {
            state->recordChannels = std::move(fresh);
            state->recordListExists = true;
        }
    });
    return n;
}

hal::UInt32 DeviceChannels::_checkAndRecreateRecordChannels(const Owner& device) const {
    return state_->recordLock->read([&] { return checkAndRecreateRecordChannelsInRead(device); });
}

DeviceChannels::ChannelList DeviceChannels::recordChannels(const Owner& device) const {
    return state_->recordLock->read([&] {
        checkAndRecreateRecordChannelsInRead(device);
        return state_->recordChannels;
    });
}

hal::UInt32 DeviceChannels::_checkAndRecreatePlaybackChannels(const Owner& device) const {
    if (!device) return 0;
    std::lock_guard lock(device->channelDeviceLock());
    const hal::UInt32 n = device->numberOfChannels(false);
    if (state_->playbackListExists && state_->playbackChannels.size() == n) return n;
    if (!device->debugProtectCallFromDeadDevice()) return 0;
    state_->playbackChannels = AudioChannel::channelsFor(device, false);
    state_->playbackListExists = true;
    return n;
}

DeviceChannels::ChannelList DeviceChannels::playbackChannels(const Owner& device) const {
    if (!device) return {};
    std::lock_guard lock(device->channelDeviceLock());
    _checkAndRecreatePlaybackChannels(device);
    return state_->playbackChannels;
}

DeviceChannels::ChannelList DeviceChannels::sideChannels(const Owner& device, bool isInput) const {
    if (!device) return {};
    if (auto forwarded = device->channelsOfSide(isInput)) return std::move(*forwarded);
    return isInput ? recordChannels(device) : playbackChannels(device);
}

std::shared_ptr<AudioChannel> DeviceChannels::channelForIndex(const Owner& device,
                                                              std::int64_t index,
                                                              bool isInput) const {
    const ChannelList channels = sideChannels(device, isInput);
    if (index < 0 || static_cast<std::uint64_t>(index) >= channels.size()) {
        ZDR_CHANNEL_LOG(error, "No %s channel %lld on %s (it has %zu)",
                        isInput ? "record" : "playback", static_cast<long long>(index),
                        nameOf(device).c_str(), channels.size());
        return nullptr;
    }
    return channels[static_cast<std::size_t>(index)];
}

void DeviceChannels::clear() const {
    state_->recordLock->asyncWrite([state = state_] {
        state->recordChannels.clear();
        state->recordListExists = false;
    });
    state_->playbackChannels.clear();
    state_->playbackListExists = false;
}

// ---------------------------------------------------------------------------
// Device-level volume and mute

float DeviceChannels::averageChannelVolume(const Owner& device, bool record) const {
    if (!device) return 0.0f;
    std::lock_guard lock(device->channelDeviceLock());
    const ChannelList channels = sideChannels(device, record);
    float sum = 0.0f;
    for (const auto& channel : channels)
        sum += record ? channel->volume() : channel->outputVolume();
    // No guard: a side without channels answers 0/0, not a number, and callers
    // that care test for it.
    return sum / static_cast<float>(channels.size());
}

float DeviceChannels::outputVolume(const Owner& device) const {
    if (!device) return 0.0f;
    std::lock_guard lock(device->channelDeviceLock());
    try {
        auto* hal = device->coreAudioDevice();
        if (device->hasMasterOutputVolume() && hal != nullptr) {
            return hal->GetVolumeControlScalarValue(kAudioObjectPropertyScopeOutput,
                                                    kAudioObjectPropertyElementMain);
        }
        return averageChannelVolume(device, false);
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to get volume of output section, for %s. Error: %d",
                        nameOf(device).c_str(), static_cast<int>(e.GetError()));
        return 0.0f;
    }
}

float DeviceChannels::inputVolume(const Owner& device) const {
    if (!device) return 0.0f;
    auto* hal = device->coreAudioDevice();
    if (hal == nullptr) return 0.0f;
    try {
        if (device->hasMasterInputVolume()) {
            return hal->GetVolumeControlScalarValue(kAudioObjectPropertyScopeInput,
                                                    kAudioObjectPropertyElementMain);
        }
        return averageChannelVolume(device, true);
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to return the record volume for %s, error: %d",
                        nameOf(device).c_str(), static_cast<int>(e.GetError()));
        return 0.0f;
    }
}

void DeviceChannels::setOutputVolume(const Owner& device, float volume) const {
    if (!device) return;
    try {
        auto* hal = device->coreAudioDevice();
        if (device->hasMasterOutputVolume() && hal != nullptr) {
            hal->SetVolumeControlScalarValue(kAudioObjectPropertyScopeOutput,
                                             kAudioObjectPropertyElementMain, volume);
            return;
        }
        std::lock_guard lock(device->channelDeviceLock());
        for (const auto& channel : sideChannels(device, false)) channel->setOutputVolume(volume);
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to set volume on %s to %2.2f, error: %d",
                        nameOf(device).c_str(), static_cast<double>(volume),
                        static_cast<int>(e.GetError()));
    }
}

void DeviceChannels::setInputVolume(const Owner& device, float volume) const {
    if (!device) return;
    try {
        auto* hal = device->coreAudioDevice();
        if (device->hasMasterInputVolume() && hal != nullptr) {
            hal->SetVolumeControlScalarValue(kAudioObjectPropertyScopeInput,
                                             kAudioObjectPropertyElementMain, volume);
            return;
        }
        std::lock_guard lock(device->channelDeviceLock());
        for (const auto& channel : sideChannels(device, true)) channel->setVolume(volume);
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to set the record volume for %s to %2.2f, error: %d",
                        nameOf(device).c_str(), static_cast<double>(volume),
                        static_cast<int>(e.GetError()));
    }
}

bool DeviceChannels::muted(const Owner& device) const {
    if (!device) return false;
    auto* hal = device->coreAudioDevice();
    if (hal == nullptr || !device->hasMasterOutputMute()) return false;
    try {
        return hal->GetMuteControlValue(kAudioObjectPropertyScopeOutput,
                                        kAudioObjectPropertyElementMain);
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to get muted on device %s, error: %d",
                        nameOf(device).c_str(), static_cast<int>(e.GetError()));
        return false;
    }
}

void DeviceChannels::setMuted(const Owner& device, bool muted) const {
    if (!device) return;
    auto* hal = device->coreAudioDevice();
    if (hal == nullptr || !device->hasMasterOutputMute()) return;
    try {
        hal->SetMuteControlValue(kAudioObjectPropertyScopeOutput, kAudioObjectPropertyElementMain,
                                 muted);
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to set muted on device %s, error: %d",
                        nameOf(device).c_str(), static_cast<int>(e.GetError()));
    }
}

void DeviceChannels::unmuteDevice(const Owner& device) const {
    if (!device) return;
    auto* hal = device->coreAudioDevice();
    if (hal == nullptr) return;
    try {
        for (bool isInput : {false, true}) {
            const auto scope = hal::CAHALAudioDevice::scope(isInput);
            const hal::UInt32 count = device->numberOfChannels(isInput);
            for (hal::UInt32 element = 0; element <= count; ++element) {
                if (hal->HasMuteControl(scope, element) &&
                    hal->MuteControlIsSettable(scope, element)) {
                    hal->SetMuteControlValue(scope, element, false);
                }
            }
        }
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to unmute device %s, error: %d", nameOf(device).c_str(),
                        static_cast<int>(e.GetError()));
    }
}

void DeviceChannels::setAllInputAndOutputChannelVolumesTo(const Owner& device, float volume,
                                                          bool forInput, bool includeMaster) const {
    if (!device) return;
    auto* hal = device->coreAudioDevice();
    if (hal == nullptr) return;
    const auto scope = hal::CAHALAudioDevice::scope(forInput);
    try {
        const hal::UInt32 count = device->numberOfChannels(forInput);
        for (hal::UInt32 element = includeMaster ? 0 : 1; element <= count; ++element) {
            if (hal->HasVolumeControl(scope, element)) {
                hal->SetVolumeControlScalarValue(scope, element, volume);
            }
        }
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error,
                        "Could not set input/output volumes. Error during CA Access. Err: %d",
                        static_cast<int>(e.GetError()));
    }
}

void DeviceChannels::setAllInputAndOutputChannelVolumesTo(const Owner& device, float volume,
                                                          bool includeMaster) const {
    setAllInputAndOutputChannelVolumesTo(device, volume, true, includeMaster);
    setAllInputAndOutputChannelVolumesTo(device, volume, false, includeMaster);
}

void DeviceChannels::setAllInputAndOutputChannelVolumesTo(const Owner& device, float volume) const {
    setAllInputAndOutputChannelVolumesTo(device, volume, true);
}

float DeviceChannels::volumeForChannel(const Owner& device, hal::UInt32 channel,
                                       bool isInput) const {
    if (!device) return 0.0f;
    auto* hal = device->coreAudioDevice();
    if (hal == nullptr) return 0.0f;
    try {
        return hal->GetVolumeControlScalarValue(hal::CAHALAudioDevice::scope(isInput), channel);
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error,
                        "Unable to get the volume for channel %d on device %s, section %d. "
                        "Error: %d",
                        static_cast<int>(channel), nameOf(device).c_str(), isInput ? 1 : 0,
                        static_cast<int>(e.GetError()));
        return 0.0f;
    }
}

// ---------------------------------------------------------------------------
// Meter summaries

namespace {

float averageLevel(const DeviceChannels::ChannelList& channels) {
    if (channels.empty()) return 0.0f;
    float sum = 0.0f;
    for (const auto& c : channels) sum += c->level();
    return sum / static_cast<float>(channels.size());
}

float maxLevel(const DeviceChannels::ChannelList& channels) {
    float best = 0.0f;
    for (const auto& c : channels) best = std::max(best, c->level());
    return best;
}

}  // namespace

float DeviceChannels::averageInputVolumeAcrossAllChannels(const Owner& device) const {
    return averageLevel(sideChannels(device, true));
}
float DeviceChannels::maxInputVolumeAcrossAllChannels(const Owner& device) const {
    return maxLevel(sideChannels(device, true));
}
float DeviceChannels::averageOutputVolumeAcrossAllChannels(const Owner& device) const {
    return averageLevel(sideChannels(device, false));
}
float DeviceChannels::maxOutputVolumeAcrossAllChannels(const Owner& device) const {
    return maxLevel(sideChannels(device, false));
}

float DeviceChannels::maxPowerInDBAcrossAllChannels(const Owner& device) const {
    float best = state_->maxPowerInDB.load();
    for (const auto& c : sideChannels(device, true)) best = std::max(best, c->levelInDB());
    return best;
}

void DeviceChannels::setMaxPowerInDBAcrossAllChannels(float db) { state_->maxPowerInDB.store(db); }

// ---------------------------------------------------------------------------
// Memento

Dictionary DeviceChannels::momentoDictionary(const Owner& device) const {
    Dictionary momento;
    if (!device) return momento;
    std::lock_guard lock(device->channelDeviceLock());
    for (const auto& c : recordChannels(device)) {
        momento["rec-" + std::to_string(c->index())] = c->momentoDictionary();
    }
    for (const auto& c : playbackChannels(device)) {
        momento["play-" + std::to_string(c->index())] = c->momentoDictionary();
    }
    return momento;
}

void DeviceChannels::setMomentoDictionary(const Owner& device, const Dictionary& momento) const {
    if (!device) return;
    std::lock_guard lock(device->channelDeviceLock());
    auto restore = [&](const ChannelList& channels, const char* prefix) {
        for (const auto& c : channels) {
            const auto* entry =
                dictionaryValue<Dictionary>(momento, prefix + std::to_string(c->index()));
            if (entry != nullptr) c->setMomentoDictionary(*entry);
        }
    };
    restore(recordChannels(device), "rec-");
    restore(playbackChannels(device), "play-");
}

}  // namespace zdr
