#include "zdr/audio/audio_channel.h"

#include <cmath>
#include <cstdio>

#include "zdr/audio/detail/channel_log.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/notification_center.h"

namespace zdr {

using hal::CAException;
using hal::kAudioObjectPropertyScopeInput;
using hal::kAudioObjectPropertyScopeOutput;

AudioChannel::AudioChannel(std::int32_t index, std::weak_ptr<AudioChannelOwner> device)
    : index_(index), device_(std::move(device)), clock_(Clock::system()) {}

std::shared_ptr<AudioChannel> AudioChannel::make(std::int32_t index,
                                                 std::weak_ptr<AudioChannelOwner> device) {
    return std::make_shared<AudioChannel>(index, std::move(device));
}

std::vector<std::shared_ptr<AudioChannel>> AudioChannel::channelsFor(
    const std::shared_ptr<AudioChannelOwner>& device, bool forRecord) {
    std::vector<std::shared_ptr<AudioChannel>> channels;
    if (!device) return channels;
    const hal::UInt32 n = device->numberOfChannels(forRecord);
    if (n < 1) return channels;
    channels.reserve(n);
    for (hal::UInt32 i = 0; i < n; ++i) {
        channels.push_back(make(static_cast<std::int32_t>(i), device));
    }
    return channels;
}

std::string AudioChannel::name() const { return "Ch " + std::to_string(coreAudioChannelIndex()); }

std::string AudioChannel::description() const {
    char text[160];
    std::snprintf(text, sizeof text,
                  "<AudioChannel: self.index=%i, self.enabled=%d, self.level=%f, self.peak=%f>",
                  index(), enabled() ? 1 : 0, static_cast<double>(level()),
                  static_cast<double>(peak()));
    return text;
}

void AudioChannel::setDevice(std::weak_ptr<AudioChannelOwner> device) {
    std::lock_guard lock(mutex_);
    device_ = std::move(device);
}

std::optional<std::chrono::system_clock::time_point> AudioChannel::lastPeakTime() const {
    std::lock_guard lock(mutex_);
    return lastPeakTime_;
}

void AudioChannel::setClock(std::shared_ptr<Clock> clock) {
    std::lock_guard lock(mutex_);
    clock_ = clock ? std::move(clock) : Clock::system();
}

// ---------------------------------------------------------------------------
// Volume and mute

void AudioChannel::refreshOutputVolumeProxy(const char* function) {
    auto device = this->device();
    auto* hal = device ? device->coreAudioDevice() : nullptr;
    if (!hal) return;
    try {
        if (hal->HasVolumeControl(kAudioObjectPropertyScopeOutput, coreAudioChannelIndex())) {
            proxyOutputVolume_.store(hal->GetVolumeControlScalarValue(
                kAudioObjectPropertyScopeOutput, coreAudioChannelIndex()));
        }
    } catch (const CAException& e) {
        detail::channelLog(detail::ChannelLogLevel::error, function, __FILE__, __LINE__,
                           "Cannot get hardware output volume for channel %d, error: %d", index(),
                           static_cast<int>(e.GetError()));
    }
}

float AudioChannel::volume() {
    // Reading the output-side control into proxyOutputVolume while answering
    // the record-side proxy looks wrong but is what callers have always seen:
    // a volume read refreshes the playback proxy as a side effect.
    refreshOutputVolumeProxy(__func__);
    return proxyVolume_.load();
}

float AudioChannel::outputVolume() {
    refreshOutputVolumeProxy(__func__);
    return proxyOutputVolume_.load();
}

void AudioChannel::registerVolumeUndo(float old, void (AudioChannel::*setter)(float),
                                      const char* undoName) {
    auto undo = undoManager();
    if (!undo) return;
    std::weak_ptr<AudioChannel> weak = weak_from_this();
    undo->registerUndo(
        this,
        [weak, old, setter] {
            if (auto self = weak.lock()) (self.get()->*setter)(old);
        },
        undoName);
}

void AudioChannel::writeHardwareVolume(hal::AudioObjectPropertyScope scope, float volume,
                                       const char* failureFormat, const char* function) {
    auto device = this->device();
    auto* hal = device ? device->coreAudioDevice() : nullptr;
    if (!hal) return;
    try {
        if (hal->HasVolumeControl(scope, coreAudioChannelIndex()) &&
            hal->VolumeControlIsSettable(scope, coreAudioChannelIndex())) {
            hal->SetVolumeControlScalarValue(scope, coreAudioChannelIndex(), volume);
        }
    } catch (const CAException&) {
        detail::channelLog(detail::ChannelLogLevel::error, function, __FILE__, __LINE__,
                           failureFormat, index(), static_cast<double>(volume));
    }
}

void AudioChannel::setVolume(float volume) {
    registerVolumeUndo(proxyVolume_.load(), &AudioChannel::setVolume, "Change Volume");
    proxyVolume_.store(volume);
    writeHardwareVolume(kAudioObjectPropertyScopeInput, volume,
                        "Cannot set hardware volume for channel %d to %2.2f", __func__);
    levelChanged_.store(true);
}

void AudioChannel::setOutputVolume(float volume) {
    registerVolumeUndo(proxyOutputVolume_.load(), &AudioChannel::setOutputVolume,
                       "Change Output Volume");
    proxyOutputVolume_.store(volume);
    writeHardwareVolume(kAudioObjectPropertyScopeOutput, volume,
                        "Cannot set hardware output volume for channel %d to %2.2f", __func__);
    levelChanged_.store(true);
}

bool AudioChannel::muted() const {
    auto device = this->device();
    if (!device) return false;
    auto* hal = device->coreAudioDevice();
    if (hal == nullptr) return false;
    try {
        if (hal->HasMuteControl(kAudioObjectPropertyScopeInput, coreAudioChannelIndex())) {
            return hal->GetMuteControlValue(kAudioObjectPropertyScopeInput,
                                            coreAudioChannelIndex());
        }
    } catch (const CAException& e) {
        ZDR_CHANNEL_LOG(error, "Unable to get mute state on device %s, error: %d",
                        device->description().c_str(), static_cast<int>(e.GetError()));
    }
    return false;
}

void AudioChannel::setMuted(bool muted) {
    if (auto device = this->device()) {
        if (auto* hal = device->coreAudioDevice()) {
            try {
                if (hal->HasMuteControl(kAudioObjectPropertyScopeInput, coreAudioChannelIndex())) {
                    ZDR_CHANNEL_LOG(info, "Set muted %d", muted ? 1 : 0);
                    // Always on, whatever the argument: hosts unmute through
                    // the device (unmuteDevice), and rely on this call muting.
                    hal->SetMuteControlValue(kAudioObjectPropertyScopeInput,
                                             coreAudioChannelIndex(), true);
                }
            } catch (const CAException& e) {
                ZDR_CHANNEL_LOG(error, "Unable to set mute state on device %s, error: %d",
                                device->description().c_str(), static_cast<int>(e.GetError()));
            }
        }
    }
    levelChanged_.store(true);
}

bool AudioChannel::canMute() const {
    auto device = this->device();
    auto* hal = device ? device->coreAudioDevice() : nullptr;
    if (hal == nullptr) return false;
    try {
        return hal->HasMuteControl(kAudioObjectPropertyScopeInput, coreAudioChannelIndex()) &&
               hal->MuteControlIsSettable(kAudioObjectPropertyScopeInput, coreAudioChannelIndex());
    } catch (const CAException&) {
        return false;
    }
}

bool AudioChannel::hasRecordVolumeControl() const {
    auto device = this->device();
    auto* hal = device ? device->coreAudioDevice() : nullptr;
    if (hal == nullptr) return false;
    try {
        return hal->HasVolumeControl(kAudioObjectPropertyScopeInput, coreAudioChannelIndex());
    } catch (const CAException&) {
        return false;
    }
}

bool AudioChannel::canSetVolume(bool isInput) const {
    auto device = this->device();
    auto* hal = device ? device->coreAudioDevice() : nullptr;
    if (hal == nullptr) return false;
    const auto scope = hal::CAHALAudioDevice::scope(isInput);
    try {
        if (!hal->HasVolumeControl(scope, coreAudioChannelIndex())) return false;
        if (hal->VolumeControlIsSettable(scope, coreAudioChannelIndex())) return true;
    } catch (const CAException&) {
        return false;
    }
    ZDR_CHANNEL_LOG(info, "Object %s doesn't have a settable volume, index %d",
                    description().c_str(), index());
    return false;
}

// ---------------------------------------------------------------------------
// Label

std::shared_ptr<ChannelLabel> AudioChannel::selectedLabel() const {
    auto device = this->device();
    if (device && device->mono()) return ChannelLabel::mono();
    std::lock_guard lock(mutex_);
    return selectedLabel_;
}

void AudioChannel::setSelectedLabel(const std::shared_ptr<ChannelLabel>& label) {
    // Identity, not equality: a new object with the same label number is a
    // new choice and is announced.
    if (label == selectedLabel()) return;
    {
        std::lock_guard lock(mutex_);
        selectedLabel_ = label;
    }
    std::shared_ptr<AudioChannel> self = shared_from_this();
    DispatchQueue::main().async(
        [self] { NotificationCenter::defaultCenter()->post(kAudioChannelLabelChanged, self); });
}

// ---------------------------------------------------------------------------
// Meters

void AudioChannel::setLevelNoNotify(float level, float dbVal) {
    level_.store(level);
    levelInDB_.store(dbVal);
    levelChanged_.store(true);
}

void AudioChannel::setPeakNoNotify(float peak, float dbVal) {
    peak_.store(peak);
    peakInDB_.store(dbVal);
    levelChanged_.store(true);
}

void AudioChannel::fireChannelNotification() {
    if (levelChanged_.exchange(false)) announceKey("level");
}

void AudioChannel::resetPeakTime() {
    std::lock_guard lock(mutex_);
    lastPeakTime_ = clock_->now();
}

bool AudioChannel::peakCanDropoff() const {
    std::lock_guard lock(mutex_);
    if (!lastPeakTime_) return false;
    const double distance = std::chrono::duration<double>(clock_->now() - *lastPeakTime_).count();
    return std::fabs(distance) > 1.0;
}

std::shared_ptr<void> AudioChannel::observeKey(const std::string& key,
                                               std::function<void()> callback) {
    auto handle = std::make_shared<std::function<void()>>(std::move(callback));
    std::lock_guard lock(mutex_);
    for (auto it = keyObservers_.begin(); it != keyObservers_.end();) {
        it = it->second.expired() ? keyObservers_.erase(it) : std::next(it);
    }
    keyObservers_.emplace(key, handle);
    return handle;
}

void AudioChannel::announceKey(const std::string& key) {
    std::vector<std::shared_ptr<std::function<void()>>> live;
    {
        std::lock_guard lock(mutex_);
        auto [first, last] = keyObservers_.equal_range(key);
        for (auto it = first; it != last; ++it) {
            if (auto callback = it->second.lock()) live.push_back(std::move(callback));
        }
    }
    // Called outside the lock: an observer may read the channel or stop observing.
    for (const auto& callback : live) (*callback)();
}

// ---------------------------------------------------------------------------
// Memento

Dictionary AudioChannel::momentoDictionary() const {
    return Dictionary{
        {"index", index()},
        {"proxyVolume", proxyVolume()},
        {"proxyOutputVolume", proxyOutputVolume()},
        {"enabled", enabled()},
        {"selectedLabel", selectedLabel()},
    };
}

void AudioChannel::setMomentoDictionary(const Dictionary& momento) {
    auto wrongType = [&](const char* key) {
        ZDR_CHANNEL_LOG(error, "Ignoring the value for \"%s\" of channel %d: it has the wrong type",
                        key, index());
    };
    for (const auto& [key, value] : momento) {
        if (key == "index") {
            if (const auto* v = std::any_cast<std::int32_t>(&value)) {
                setIndex(*v);
            } else {
                wrongType("index");
            }
        } else if (key == "proxyVolume") {
            if (const auto* v = std::any_cast<float>(&value)) {
                setProxyVolume(*v);
            } else {
                wrongType("proxyVolume");
            }
        } else if (key == "proxyOutputVolume") {
            if (const auto* v = std::any_cast<float>(&value)) {
                setProxyOutputVolume(*v);
            } else {
                wrongType("proxyOutputVolume");
            }
        } else if (key == "enabled") {
            if (const auto* v = std::any_cast<bool>(&value)) {
                setEnabled(*v);
            } else {
                wrongType("enabled");
            }
        } else if (key == "selectedLabel") {
            if (const auto* v = std::any_cast<std::shared_ptr<ChannelLabel>>(&value)) {
                setSelectedLabel(*v);
            } else {
                wrongType("selectedLabel");
            }
        }
    }
}

}  // namespace zdr
