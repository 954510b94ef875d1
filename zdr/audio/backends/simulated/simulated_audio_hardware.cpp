#include "zdr/audio/backends/simulated/simulated_audio_hardware.h"

#include <algorithm>
#include <cmath>

#include "zdr/runtime/clock.h"

namespace zdr::hal {

namespace {

constexpr AudioObjectPropertyScope kGlob = kAudioObjectPropertyScopeGlobal;
constexpr AudioObjectPropertyScope kIn = kAudioObjectPropertyScopeInput;
constexpr AudioObjectPropertyScope kOut = kAudioObjectPropertyScopeOutput;
constexpr AudioObjectPropertyElement kMain = kAudioObjectPropertyElementMain;

AudioObjectPropertyAddress addr(AudioObjectPropertySelector s, AudioObjectPropertyScope sc = kGlob,
                                AudioObjectPropertyElement e = kMain) {
    return {s, sc, e};
}

bool matches(const AudioObjectPropertyAddress& listener, const AudioObjectPropertyAddress& change) {
    return (listener.mSelector == kAudioObjectPropertySelectorWildcard ||
            listener.mSelector == change.mSelector) &&
           (listener.mScope == kAudioObjectPropertyScopeWildcard ||
            listener.mScope == change.mScope) &&
           (listener.mElement == kAudioObjectPropertyElementWildcard ||
            listener.mElement == change.mElement);
}

AudioStreamBasicDescription formatFor(const SimulatedDirectionSpec& d, Float64 rate,
                                      UInt32 channels) {
    AudioStreamBasicDescription f;
    f.mSampleRate = rate;
    f.mFormatID = d.formatID;
    f.mFormatFlags = kAudioFormatFlagIsPacked |
                     (d.isFloat ? kAudioFormatFlagIsFloat : kAudioFormatFlagIsSignedInteger);
    f.mBitsPerChannel = d.bitsPerChannel;
    f.mChannelsPerFrame = channels;
    f.mFramesPerPacket = 1;
    f.mBytesPerFrame = channels * (d.bitsPerChannel / 8);
    f.mBytesPerPacket = f.mBytesPerFrame;
    return f;
}

Float32 scalarToDecibels(Float32 scalar) {
    if (scalar <= 0.0f) return -96.0f;
    return std::max(-96.0f, 20.0f * std::log10(scalar));
}

// Index of a default-device selector in SimulatedAudioHardware's tables.
int defaultSlot(AudioObjectPropertySelector s) {
    if (s == kAudioHardwarePropertyDefaultInputDevice) return 0;
    if (s == kAudioHardwarePropertyDefaultOutputDevice) return 1;
    if (s == kAudioHardwarePropertyDefaultSystemOutputDevice) return 2;
    return -1;
}
constexpr AudioObjectPropertySelector kDefaultSelectors[3] = {
    kAudioHardwarePropertyDefaultInputDevice, kAudioHardwarePropertyDefaultOutputDevice,
    kAudioHardwarePropertyDefaultSystemOutputDevice};

}  // namespace

SimulatedAudioHardware::SimulatedAudioHardware(const SimulatedHardwareDescription& description) {
    Object system;
    system.id = kAudioObjectSystemObject;
    for (auto s : kDefaultSelectors) {
        system.properties[{s, kGlob, kMain}] = Property{PropertyValue(UInt32{0}), true};
    }
    system.properties[{kAudioObjectPropertyName, kGlob, kMain}] =
        Property{PropertyValue("Simulated audio server"), false};
    objects_[kAudioObjectSystemObject] = std::move(system);
    preferredDefaults_[0] = description.defaultInput;
    preferredDefaults_[1] = description.defaultOutput;
    preferredDefaults_[2] = description.defaultSystemOutput;
    std::vector<Pending> ignored;
    for (const auto& spec : description.devices) plug(spec, ignored);
    chooseDefaultsLocked(ignored);
}

SimulatedAudioHardware::~SimulatedAudioHardware() = default;

// ---- internals (mutex_ held) ----

SimulatedAudioHardware::Object* SimulatedAudioHardware::find(AudioObjectID id) {
    auto it = objects_.find(id);
    return it == objects_.end() ? nullptr : &it->second;
}

OSStatus SimulatedAudioHardware::precheck(AudioObjectID object,
                                          AudioObjectPropertySelector selector) {
    calls_.fetch_add(1, std::memory_order_relaxed);
    if (!running_) return kAudioHardwareNotRunningError;
    Object* o = find(object);
    if (o == nullptr) return kAudioHardwareBadObjectError;
    if (failuresArmed_.load(std::memory_order_relaxed)) {
        for (auto it = failures_.begin(); it != failures_.end(); ++it) {
            if (it->selector == selector && it->uid == o->uid) {
                const OSStatus status = it->status;
                if (--it->remaining <= 0) failures_.erase(it);
                if (failures_.empty()) failuresArmed_.store(false, std::memory_order_relaxed);
                return status;
            }
        }
    }
    return kAudioHardwareNoError;
}

const SimulatedAudioHardware::Property* SimulatedAudioHardware::findProperty(
    const Object& o, const AudioObjectPropertyAddress& a) const {
    auto it = o.properties.find({a.mSelector, a.mScope, a.mElement});
    if (it != o.properties.end()) return &it->second;
    // Global properties answer in every scope, as on the platform HAL.
    if (a.mScope != kGlob) {
        it = o.properties.find({a.mSelector, kGlob, a.mElement});
        if (it != o.properties.end()) return &it->second;
    }
    return nullptr;
}

bool SimulatedAudioHardware::computed(const Object& o, const AudioObjectPropertyAddress& a,
                                      PropertyValue& out) const {
    if (o.id == kAudioObjectSystemObject) {
        if (a.mSelector == kAudioHardwarePropertyDevices) {
            out = deviceListLocked();
            return true;
        }
        return false;
    }
    if (o.isStream) return false;
    switch (a.mSelector) {
        case kAudioDevicePropertyDeviceIsAlive:
            out = UInt32{o.alive ? 1u : 0u};
            return true;
        case kAudioDevicePropertyStreams: {
            std::vector<UInt32> ids;
            if (a.mScope != kOut) ids = o.inputStreams;
            if (a.mScope != kIn)
                ids.insert(ids.end(), o.outputStreams.begin(), o.outputStreams.end());
            if (a.mScope != kIn && a.mScope != kOut && a.mScope != kGlob) return false;
            out = std::move(ids);
            return true;
        }
        case kAudioDevicePropertyStreamConfiguration: {
            if (a.mScope != kIn && a.mScope != kOut) return false;
            AudioBufferListConfiguration config;
            for (AudioObjectID s : (a.mScope == kIn ? o.inputStreams : o.outputStreams)) {
                auto it = objects_.find(s);
                if (it == objects_.end()) continue;
                auto p =
                    it->second.properties.find({kAudioStreamPropertyVirtualFormat, kGlob, kMain});
                const auto* f = p == it->second.properties.end()
                                    ? nullptr
                                    : p->second.value.getIf<AudioStreamBasicDescription>();
                config.mNumberChannels.push_back(f ? f->mChannelsPerFrame : 0);
            }
            out = std::move(config);
            return true;
        }
        case kAudioDevicePropertyVolumeDecibels: {
            auto it = o.properties.find({kAudioDevicePropertyVolumeScalar, a.mScope, a.mElement});
            if (it == o.properties.end()) return false;
            out = scalarToDecibels(it->second.value.as<Float32>().value_or(0.0f));
            return true;
        }
        default:
            return false;
    }
}

std::vector<UInt32> SimulatedAudioHardware::deviceListLocked() const {
    std::vector<UInt32> ids;
    ids.reserve(deviceOrder_.size());
    for (AudioObjectID id : deviceOrder_) {
        auto it = objects_.find(id);
        if (it == objects_.end()) continue;
        auto h = it->second.properties.find({kAudioDevicePropertyIsHidden, kGlob, kMain});
        const bool hidden =
            h != it->second.properties.end() && h->second.value.as<UInt32>().value_or(0) != 0;
        if (!hidden) ids.push_back(id);
    }
    return ids;
}

AudioObjectID SimulatedAudioHardware::idForUIDLocked(const std::string& uid) const {
    for (AudioObjectID id : deviceOrder_) {
        auto it = objects_.find(id);
        if (it != objects_.end() && it->second.uid == uid) return id;
    }
    return kAudioObjectUnknown;
}

AudioObjectID SimulatedAudioHardware::plug(const SimulatedDeviceSpec& spec,
                                           std::vector<Pending>& pending) {
    generation_.fetch_add(1, std::memory_order_acq_rel);
    if (spec.uid.empty() || idForUIDLocked(spec.uid) != kAudioObjectUnknown) {
        return kAudioObjectUnknown;
    }
    if (!specs_.count(spec.uid)) specOrder_.push_back(spec.uid);
    specs_[spec.uid] = spec;

    Object d;
    d.id = nextID_++;
    d.uid = spec.uid;
    auto set = [&d](AudioObjectPropertySelector s, PropertyValue v, bool settable = false,
                    AudioObjectPropertyScope sc = kGlob, AudioObjectPropertyElement e = kMain) {
        d.properties[{s, sc, e}] = Property{std::move(v), settable};
    };
    set(kAudioObjectPropertyName, spec.name);
    set(kAudioObjectPropertyManufacturer, spec.manufacturer);
    set(kAudioDevicePropertyDeviceUID, spec.uid);
    set(kAudioDevicePropertyModelUID, spec.modelUID.empty() ? spec.uid + ":model" : spec.modelUID);
    set(kAudioDevicePropertyTransportType, spec.transportType);
    set(kAudioDevicePropertyDeviceIsRunning, UInt32{spec.running ? 1u : 0u});
    set(kAudioDevicePropertyDeviceIsRunningSomewhere, UInt32{spec.running ? 1u : 0u});
    set(kAudioDevicePropertyNominalSampleRate, spec.nominalSampleRate, true);
    set(kAudioDevicePropertyActualSampleRate, spec.nominalSampleRate);
    std::vector<AudioValueRange> rates;
    for (Float64 r : spec.availableSampleRates) rates.push_back({r, r});
    set(kAudioDevicePropertyAvailableNominalSampleRates, rates);
    set(kAudioDevicePropertyBufferFrameSize, spec.bufferFrameSize, true);
    set(kAudioDevicePropertyBufferFrameSizeRange, spec.bufferFrameSizeRange);
    if (spec.maxVariableBufferFrameSize) {
        set(kAudioDevicePropertyUsesVariableBufferFrameSizes, *spec.maxVariableBufferFrameSize);
    }
    set(kAudioDevicePropertyIsHidden, UInt32{spec.hidden ? 1u : 0u});
    d.startedAt = spec.running ? currentHostTime() : 0;

    for (bool isInput : {true, false}) {
        const SimulatedDirectionSpec& dir = isInput ? spec.input : spec.output;
        const AudioObjectPropertyScope sc = isInput ? kIn : kOut;
        if (!dir.streamChannels.empty()) {
            set(kAudioDevicePropertyDeviceCanBeDefaultDevice, UInt32{spec.canBeDefault}, false, sc);
            set(kAudioDevicePropertyDeviceCanBeDefaultSystemDevice,
                UInt32{spec.canBeDefaultSystem && !isInput}, false, sc);
            set(kAudioDevicePropertySafetyOffset, dir.safetyOffset, false, sc);
            set(kAudioDevicePropertyLatency, dir.latency, false, sc);
            if (dir.totalChannels() >= 2) {
                set(kAudioDevicePropertyPreferredChannelsForStereo, std::vector<UInt32>{1, 2}, true,
                    sc);
            }
        }
        if (dir.preferredLayout) {
            // Answered in the side's scope and, as the device's own layout, at
            // the global scope (the output side's when both sides have one).
            set(kAudioDevicePropertyPreferredChannelLayout, *dir.preferredLayout, true, sc);
            set(kAudioDevicePropertyPreferredChannelLayout, *dir.preferredLayout, true);
        }
        for (const auto& c : dir.volumes) {
            set(kAudioDevicePropertyVolumeScalar, std::clamp(c.value, 0.0f, 1.0f), c.settable, sc,
                c.element);
        }
        for (const auto& c : dir.mutes) {
            set(kAudioDevicePropertyMute, UInt32{c.value != 0.0f ? 1u : 0u}, c.settable, sc,
                c.element);
        }
        if (!dir.dataSources.empty()) {
            std::vector<UInt32> ids;
            for (const auto& s : dir.dataSources) {
                ids.push_back(s.id);
                d.dataSourceNames[sc][s.id] = s.name;
            }
            set(kAudioDevicePropertyDataSources, ids, false, sc);
            set(kAudioDevicePropertyDataSource, dir.currentDataSource, dir.dataSourceSettable, sc);
            set(kAudioDevicePropertyDataSourceNameForIDCFString, std::string(), false, sc);
        }

        UInt32 startingChannel = 1;
        for (UInt32 channels : dir.streamChannels) {
            Object s;
            s.id = nextID_++;
            s.isStream = true;
            s.streamIsInput = isInput;
            s.owner = d.id;
            s.uid = spec.uid;
            auto sset = [&s](AudioObjectPropertySelector sel, PropertyValue v,
                             bool settable = false) {
                s.properties[{sel, kGlob, kMain}] = Property{std::move(v), settable};
            };
            const auto format = formatFor(dir, spec.nominalSampleRate, channels);
            std::vector<AudioStreamRangedDescription> available;
            for (Float64 r : spec.availableSampleRates) {
                available.push_back({formatFor(dir, r, channels), {r, r}});
            }
            sset(kAudioStreamPropertyIsActive, UInt32{1});
            sset(kAudioStreamPropertyDirection, UInt32{isInput ? 1u : 0u});
            sset(kAudioStreamPropertyTerminalType, UInt32{0});
            sset(kAudioStreamPropertyStartingChannel, startingChannel);
            sset(kAudioStreamPropertyLatency, UInt32{0});
            sset(kAudioStreamPropertyVirtualFormat, format, true);
            sset(kAudioStreamPropertyAvailableVirtualFormats, available);
            sset(kAudioStreamPropertyPhysicalFormat, format, true);
            sset(kAudioStreamPropertyAvailablePhysicalFormats, available);
            startingChannel += channels;
            (isInput ? d.inputStreams : d.outputStreams).push_back(s.id);
            objects_[s.id] = std::move(s);
        }
    }
    const AudioObjectID id = d.id;
    objects_[id] = std::move(d);
    deviceOrder_.push_back(id);
    (void)pending;
    return id;
}

void SimulatedAudioHardware::unplugLocked(AudioObjectID id, std::vector<Pending>& pending) {
    generation_.fetch_add(1, std::memory_order_acq_rel);
    Object* d = find(id);
    if (d == nullptr) return;
    // The device tells its own listeners that it died; the object then stays
    // behind answering "not alive" (as the platform does while it tears a
    // device down) but is no longer listed or found by UID.
    d->alive = false;
    collect(id, {addr(kAudioDevicePropertyDeviceIsAlive)}, pending);
    deviceOrder_.erase(std::remove(deviceOrder_.begin(), deviceOrder_.end(), id),
                       deviceOrder_.end());
}

void SimulatedAudioHardware::chooseDefaultsLocked(std::vector<Pending>& pending) {
    Object& system = objects_[kAudioObjectSystemObject];
    std::vector<AudioObjectPropertyAddress> changed;
    for (int slot = 0; slot < 3; ++slot) {
        const bool isInput = slot == 0;
        auto usable = [&](AudioObjectID id) {
            const Object* o = find(id);
            if (o == nullptr || o->isStream || !o->alive) return false;
            return !(isInput ? o->inputStreams : o->outputStreams).empty();
        };
        auto& prop = system.properties[{kDefaultSelectors[slot], kGlob, kMain}];
        const AudioObjectID before = prop.value.as<UInt32>().value_or(0);
        AudioObjectID chosen = kAudioObjectUnknown;
        // Keep the current default (under its possibly new ID), else the
        // preferred one, else the first listed device that fits.
        for (const std::string& uid : {currentDefaults_[slot], preferredDefaults_[slot]}) {
            if (uid.empty()) continue;
            const AudioObjectID id = idForUIDLocked(uid);
            if (id != kAudioObjectUnknown && usable(id)) {
                chosen = id;
                break;
            }
        }
        if (chosen == kAudioObjectUnknown) {
            for (AudioObjectID id : deviceListLocked()) {
                if (usable(id)) {
                    chosen = id;
                    break;
                }
            }
        }
        prop.value = UInt32{chosen};
        const Object* c = find(chosen);
        if (c != nullptr) currentDefaults_[slot] = c->uid;
        if (chosen != before) changed.push_back(addr(kDefaultSelectors[slot]));
    }
    if (!changed.empty()) collect(kAudioObjectSystemObject, changed, pending);
}

void SimulatedAudioHardware::collect(AudioObjectID object,
                                     const std::vector<AudioObjectPropertyAddress>& addresses,
                                     std::vector<Pending>& pending) const {
    for (const auto& l : listeners_) {
        if (l.object != object) continue;
        std::vector<AudioObjectPropertyAddress> hit;
        for (const auto& a : addresses) {
            if (matches(l.address, a)) hit.push_back(a);
        }
        if (!hit.empty()) pending.push_back({l.queue, l.block, object, std::move(hit)});
    }
}

void SimulatedAudioHardware::deliver(std::vector<Pending>& pending) {
    for (auto& p : pending) {
        p.queue.async([block = std::move(p.block), object = p.object,
                       addresses = std::move(p.addresses)] { (*block)(object, addresses); });
    }
    pending.clear();
}

// ---- AudioHardware ----

bool SimulatedAudioHardware::hasProperty(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address) {
    std::lock_guard lock(mutex_);
    calls_.fetch_add(1, std::memory_order_relaxed);
    if (!running_) return false;
    const Object* o = find(object);
    if (o == nullptr) return false;
    PropertyValue ignored;
    return findProperty(*o, address) != nullptr || computed(*o, address, ignored) ||
           (object == kAudioObjectSystemObject &&
            address.mSelector == kAudioHardwarePropertyTranslateUIDToDevice);
}

OSStatus SimulatedAudioHardware::isPropertySettable(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    bool& outSettable) {
    std::lock_guard lock(mutex_);
    if (OSStatus s = precheck(object, address.mSelector)) return s;
    const Object& o = objects_.at(object);
    if (const Property* p = findProperty(o, address)) {
        outSettable = p->settable;
        return kAudioHardwareNoError;
    }
    if (address.mSelector == kAudioDevicePropertyVolumeDecibels) {
        auto it =
            o.properties.find({kAudioDevicePropertyVolumeScalar, address.mScope, address.mElement});
        if (it != o.properties.end()) {
            outSettable = it->second.settable;
            return kAudioHardwareNoError;
        }
    }
    PropertyValue ignored;
    if (computed(o, address, ignored) ||
        (object == kAudioObjectSystemObject &&
         address.mSelector == kAudioHardwarePropertyTranslateUIDToDevice)) {
        outSettable = false;
        return kAudioHardwareNoError;
    }
    return kAudioHardwareUnknownPropertyError;
}

OSStatus SimulatedAudioHardware::getPropertyDataSize(AudioObjectID object,
                                                     const AudioObjectPropertyAddress& address,
                                                     const PropertyValue* qualifier,
                                                     UInt32& outSize) {
    PropertyValue value;
    // One call, counted once: getPropertyData counts it.
    const OSStatus status = getPropertyData(object, address, qualifier, value);
    if (status == kAudioHardwareNoError) outSize = value.dataSize();
    return status;
}

OSStatus SimulatedAudioHardware::getPropertyData(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 const PropertyValue* qualifier,
                                                 PropertyValue& outValue) {
    std::lock_guard lock(mutex_);
    if (OSStatus s = precheck(object, address.mSelector)) return s;
    const Object& o = objects_.at(object);
    if (object == kAudioObjectSystemObject &&
        address.mSelector == kAudioHardwarePropertyTranslateUIDToDevice) {
        const std::string* uid = qualifier ? qualifier->getIf<std::string>() : nullptr;
        if (uid == nullptr) return kAudioHardwareBadPropertySizeError;
        outValue = UInt32{idForUIDLocked(*uid)};
        return kAudioHardwareNoError;
    }
    if (address.mSelector == kAudioDevicePropertyDataSourceNameForIDCFString && !o.isStream &&
        findProperty(o, address) != nullptr) {
        const UInt32* id = qualifier ? qualifier->getIf<UInt32>() : nullptr;
        if (id == nullptr) return kAudioHardwareBadPropertySizeError;
        auto sc = o.dataSourceNames.find(address.mScope);
        if (sc == o.dataSourceNames.end()) return kAudioHardwareUnknownPropertyError;
        auto name = sc->second.find(*id);
        if (name == sc->second.end()) return kAudioHardwareIllegalOperationError;
        outValue = name->second;
        return kAudioHardwareNoError;
    }
    if (computed(o, address, outValue)) return kAudioHardwareNoError;
    if (const Property* p = findProperty(o, address)) {
        outValue = p->value;
        return kAudioHardwareNoError;
    }
    return kAudioHardwareUnknownPropertyError;
}

OSStatus SimulatedAudioHardware::setPropertyData(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 const PropertyValue& value) {
    std::vector<Pending> pending;
    {
        std::lock_guard lock(mutex_);
        if (OSStatus s = precheck(object, address.mSelector)) return s;
        Object& o = objects_.at(object);
        AudioObjectPropertyAddress target = address;
        PropertyValue stored = value;
        if (address.mSelector == kAudioDevicePropertyVolumeDecibels) {
            // Setting decibels moves the scalar control.
            const Float32* db = value.getIf<Float32>();
            if (db == nullptr) return kAudioHardwareBadPropertySizeError;
            target.mSelector = kAudioDevicePropertyVolumeScalar;
            stored = std::clamp(std::pow(10.0f, *db / 20.0f), 0.0f, 1.0f);
        }
        auto it = o.properties.find({target.mSelector, target.mScope, target.mElement});
        if (it == o.properties.end() && target.mScope != kGlob) {
            it = o.properties.find({target.mSelector, kGlob, target.mElement});
        }
        if (it == o.properties.end()) {
            PropertyValue ignored;
            return computed(o, address, ignored) ? kAudioHardwareIllegalOperationError
                                                 : kAudioHardwareUnknownPropertyError;
        }
        Property& p = it->second;
        if (!p.settable) return kAudioHardwareIllegalOperationError;
        if (p.value.storage().index() != stored.storage().index()) {
            return kAudioHardwareBadPropertySizeError;
        }
        std::vector<AudioObjectPropertyAddress> changed{address};
        switch (target.mSelector) {
            case kAudioDevicePropertyVolumeScalar:
                stored = std::clamp(*stored.getIf<Float32>(), 0.0f, 1.0f);
                changed = {
                    addr(kAudioDevicePropertyVolumeScalar, target.mScope, target.mElement),
                    addr(kAudioDevicePropertyVolumeDecibels, target.mScope, target.mElement)};
                break;
            case kAudioDevicePropertyMute:
                stored = UInt32{*stored.getIf<UInt32>() != 0 ? 1u : 0u};
                break;
            case kAudioDevicePropertyNominalSampleRate: {
                const Float64 rate = *stored.getIf<Float64>();
                auto r = o.properties.find(
                    {kAudioDevicePropertyAvailableNominalSampleRates, kGlob, kMain});
                bool ok = false;
                if (r != o.properties.end()) {
                    for (const auto& range :
                         *r->second.value.getIf<std::vector<AudioValueRange>>()) {
                        ok = ok || (rate >= range.mMinimum && rate <= range.mMaximum);
                    }
                }
                if (!ok) return kAudioDeviceUnsupportedFormatError;
                o.properties[{kAudioDevicePropertyActualSampleRate, kGlob, kMain}].value = rate;
                for (const auto& list : {o.inputStreams, o.outputStreams}) {
                    for (AudioObjectID sid : list) {
                        Object& s = objects_.at(sid);
                        for (auto sel : {kAudioStreamPropertyVirtualFormat,
                                         kAudioStreamPropertyPhysicalFormat}) {
                            auto& f = s.properties[{sel, kGlob, kMain}].value;
                            if (auto fmt = f.as<AudioStreamBasicDescription>()) {
                                fmt->mSampleRate = rate;
                                f = *fmt;
                            }
                        }
                        collect(sid, {addr(kAudioStreamPropertyVirtualFormat)}, pending);
                    }
                }
                break;
            }
            case kAudioDevicePropertyBufferFrameSize: {
                const UInt32 frames = *stored.getIf<UInt32>();
                auto r =
                    o.properties.find({kAudioDevicePropertyBufferFrameSizeRange, kGlob, kMain});
                if (r != o.properties.end()) {
                    const auto range = *r->second.value.getIf<AudioValueRange>();
                    if (frames < range.mMinimum || frames > range.mMaximum) {
                        return kAudioHardwareIllegalOperationError;
                    }
                }
                break;
            }
            case kAudioDevicePropertyDataSource: {
                auto sc = o.dataSourceNames.find(it->first.scope);
                if (sc == o.dataSourceNames.end() || !sc->second.count(*stored.getIf<UInt32>())) {
                    return kAudioHardwareIllegalOperationError;
                }
                break;
            }
            default:
                break;
        }
        if (object == kAudioObjectSystemObject) {
            const int slot = defaultSlot(target.mSelector);
            if (slot >= 0) {
                const Object* d = find(*stored.getIf<UInt32>());
                const bool isInput = slot == 0;
                if (d == nullptr || d->isStream || !d->alive ||
                    (isInput ? d->inputStreams : d->outputStreams).empty()) {
                    return kAudioHardwareBadDeviceError;
                }
                currentDefaults_[slot] = d->uid;
            }
        }
        if (o.isStream && target.mSelector == kAudioStreamPropertyVirtualFormat) {
            collect(o.owner,
                    {addr(kAudioDevicePropertyStreamConfiguration, o.streamIsInput ? kIn : kOut)},
                    pending);
        }
        if (p.value == stored) return kAudioHardwareNoError;  // no change, no notification
        p.value = std::move(stored);
        collect(object, changed, pending);
    }
    deliver(pending);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::addPropertyListenerBlock(AudioObjectID object,
                                                          const AudioObjectPropertyAddress& address,
                                                          const DispatchQueue& queue,
                                                          const ListenerBlockRef& block) {
    std::lock_guard lock(mutex_);
    if (OSStatus s = precheck(object, address.mSelector)) return s;
    if (!block) return kAudioHardwareIllegalOperationError;
    for (const auto& l : listeners_) {
        if (l.object == object && l.address == address && l.queue == queue && l.block == block) {
            return kAudioHardwareIllegalOperationError;
        }
    }
    listeners_.push_back({object, address, queue, block});
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::removePropertyListenerBlock(
    AudioObjectID object, const AudioObjectPropertyAddress& address, const DispatchQueue& queue,
    const ListenerBlockRef& block) {
    std::lock_guard lock(mutex_);
    if (OSStatus s = precheck(object, address.mSelector)) return s;
    for (auto it = listeners_.begin(); it != listeners_.end(); ++it) {
        if (it->object == object && it->address == address && it->queue == queue &&
            it->block == block) {
            listeners_.erase(it);
            return kAudioHardwareNoError;
        }
    }
    return kAudioHardwareIllegalOperationError;
}

OSStatus SimulatedAudioHardware::deviceGetCurrentTime(AudioObjectID device,
                                                      AudioTimeStamp& ioTime) {
    std::lock_guard lock(mutex_);
    calls_.fetch_add(1, std::memory_order_relaxed);
    if (!running_) return kAudioHardwareNotRunningError;
    const Object* o = find(device);
    if (o == nullptr || o->isStream || device == kAudioObjectSystemObject) {
        return kAudioHardwareBadDeviceError;
    }
    auto r = o->properties.find({kAudioDevicePropertyDeviceIsRunning, kGlob, kMain});
    if (!o->alive || r == o->properties.end() || r->second.value.as<UInt32>().value_or(0) == 0) {
        return kAudioHardwareNotRunningError;
    }
    const std::uint64_t now = currentHostTime();
    const Float64 rate = o->properties.at({kAudioDevicePropertyNominalSampleRate, kGlob, kMain})
                             .value.as<Float64>()
                             .value_or(0.0);
    const UInt32 wanted = ioTime.mFlags;
    ioTime = AudioTimeStamp{};
    if (wanted & kAudioTimeStampSampleTimeValid) {
        ioTime.mSampleTime = std::floor(static_cast<double>(now - o->startedAt) * rate / 1e9);
        ioTime.mFlags |= kAudioTimeStampSampleTimeValid;
    }
    if (wanted & kAudioTimeStampHostTimeValid) {
        ioTime.mHostTime = now;
        ioTime.mFlags |= kAudioTimeStampHostTimeValid;
    }
    if (wanted & kAudioTimeStampRateScalarValid) {
        ioTime.mRateScalar = 1.0;
        ioTime.mFlags |= kAudioTimeStampRateScalarValid;
    }
    return kAudioHardwareNoError;
}

// ---- Scripting ----

AudioObjectID SimulatedAudioHardware::addDevice(const SimulatedDeviceSpec& spec) {
    std::vector<Pending> pending;
    AudioObjectID id;
    {
        std::lock_guard lock(mutex_);
        id = plug(spec, pending);
        if (id == kAudioObjectUnknown) return id;
        collect(kAudioObjectSystemObject, {addr(kAudioHardwarePropertyDevices)}, pending);
        chooseDefaultsLocked(pending);
    }
    deliver(pending);
    return id;
}

bool SimulatedAudioHardware::unplugDevice(const std::string& uid) {
    std::vector<Pending> pending;
    {
        std::lock_guard lock(mutex_);
        const AudioObjectID id = idForUIDLocked(uid);
        if (id == kAudioObjectUnknown) return false;
        unplugLocked(id, pending);
        collect(kAudioObjectSystemObject, {addr(kAudioHardwarePropertyDevices)}, pending);
        chooseDefaultsLocked(pending);
    }
    deliver(pending);
    return true;
}

AudioObjectID SimulatedAudioHardware::replugDevice(const std::string& uid) {
    std::optional<SimulatedDeviceSpec> spec;
    {
        std::lock_guard lock(mutex_);
        auto it = specs_.find(uid);
        if (it == specs_.end() || idForUIDLocked(uid) != kAudioObjectUnknown) {
            return kAudioObjectUnknown;
        }
        spec = it->second;
    }
    return addDevice(*spec);
}

void SimulatedAudioHardware::stopServer() {
    generation_.fetch_add(1, std::memory_order_acq_rel);
    std::lock_guard lock(mutex_);
    if (running_) restartUIDs_.clear();
    for (AudioObjectID id : deviceOrder_) restartUIDs_.push_back(objects_.at(id).uid);
    running_ = false;
}

void SimulatedAudioHardware::startServer() {
    generation_.fetch_add(1, std::memory_order_acq_rel);
    std::vector<Pending> pending;
    {
        std::lock_guard lock(mutex_);
        if (running_) return;
        // Every device and stream object is gone, with its listeners; the
        // devices come back under new IDs.
        for (auto it = objects_.begin(); it != objects_.end();) {
            it = it->first == kAudioObjectSystemObject ? std::next(it) : objects_.erase(it);
        }
        listeners_.erase(
            std::remove_if(listeners_.begin(), listeners_.end(),
                           [](const Listener& l) { return l.object != kAudioObjectSystemObject; }),
            listeners_.end());
        deviceOrder_.clear();
        running_ = true;
        for (const auto& uid : restartUIDs_) {
            auto it = specs_.find(uid);
            if (it != specs_.end()) plug(it->second, pending);
        }
        restartUIDs_.clear();
        for (auto sel : kDefaultSelectors) {
            objects_[kAudioObjectSystemObject].properties[{sel, kGlob, kMain}].value = UInt32{0};
        }
        std::vector<Pending> defaults;
        chooseDefaultsLocked(defaults);  // IDs are all new; listeners hear the restart instead
        collect(kAudioObjectSystemObject,
                {addr(kAudioHardwarePropertyDevices), addr(kAudioHardwarePropertyServiceRestarted)},
                pending);
    }
    deliver(pending);
}

void SimulatedAudioHardware::restartServer() {
    stopServer();
    startServer();
}

bool SimulatedAudioHardware::isServerRunning() const {
    std::lock_guard lock(mutex_);
    return running_;
}

bool SimulatedAudioHardware::changeProperties(
    const std::string& uid,
    const std::vector<std::pair<AudioObjectPropertyAddress, PropertyValue>>& changes) {
    generation_.fetch_add(1, std::memory_order_acq_rel);
    std::vector<Pending> pending;
    {
        std::lock_guard lock(mutex_);
        const AudioObjectID id = uid.empty() ? kAudioObjectSystemObject : idForUIDLocked(uid);
        Object* o = find(id);
        if (o == nullptr) return false;
        std::vector<AudioObjectPropertyAddress> changed;
        bool listChanged = false;
        for (const auto& [a, v] : changes) {
            if (a.mSelector == kAudioDevicePropertyDeviceIsAlive && !o->isStream) {
                o->alive = v.as<UInt32>().value_or(1) != 0;
            } else {
                auto it = o->properties.find({a.mSelector, a.mScope, a.mElement});
                if (it == o->properties.end()) {
                    o->properties[{a.mSelector, a.mScope, a.mElement}] = Property{v, true};
                } else {
                    it->second.value = v;
                }
            }
            if (a.mSelector == kAudioDevicePropertyDeviceIsRunning) {
                o->startedAt = v.as<UInt32>().value_or(0) ? currentHostTime() : 0;
            }
            if (a.mSelector == kAudioDevicePropertyIsHidden) listChanged = true;
            if (id == kAudioObjectSystemObject) {
                const int slot = defaultSlot(a.mSelector);
                if (const Object* d = slot >= 0 ? find(v.as<UInt32>().value_or(0)) : nullptr) {
                    currentDefaults_[slot] = d->uid;
                }
            }
            changed.push_back(a);
            if (a.mSelector == kAudioDevicePropertyVolumeScalar) {
                changed.push_back(addr(kAudioDevicePropertyVolumeDecibels, a.mScope, a.mElement));
            }
        }
        collect(id, changed, pending);
        if (listChanged) {
            collect(kAudioObjectSystemObject, {addr(kAudioHardwarePropertyDevices)}, pending);
        }
    }
    deliver(pending);
    return true;
}

bool SimulatedAudioHardware::changeProperty(const std::string& uid,
                                            const AudioObjectPropertyAddress& address,
                                            const PropertyValue& value, bool settable) {
    {
        std::lock_guard lock(mutex_);
        const AudioObjectID id = uid.empty() ? kAudioObjectSystemObject : idForUIDLocked(uid);
        Object* o = find(id);
        if (o == nullptr) return false;
        auto key = PropertyKey{address.mSelector, address.mScope, address.mElement};
        if (!o->properties.count(key) && address.mSelector != kAudioDevicePropertyDeviceIsAlive) {
            o->properties[key] = Property{value, settable};
        }
    }
    return changeProperties(uid, {{address, value}});
}

bool SimulatedAudioHardware::removeProperty(const std::string& uid,
                                            const AudioObjectPropertyAddress& address) {
    generation_.fetch_add(1, std::memory_order_acq_rel);
    std::vector<Pending> pending;
    {
        std::lock_guard lock(mutex_);
        const AudioObjectID id = uid.empty() ? kAudioObjectSystemObject : idForUIDLocked(uid);
        Object* o = find(id);
        if (o == nullptr) return false;
        if (o->properties.erase({address.mSelector, address.mScope, address.mElement}) == 0) {
            return false;
        }
        collect(id, {address}, pending);
    }
    deliver(pending);
    return true;
}

bool SimulatedAudioHardware::raise(const std::string& uid,
                                   const std::vector<AudioObjectPropertyAddress>& addresses) {
    std::vector<Pending> pending;
    {
        std::lock_guard lock(mutex_);
        const AudioObjectID id = uid.empty() ? kAudioObjectSystemObject : idForUIDLocked(uid);
        if (find(id) == nullptr) return false;
        collect(id, addresses, pending);
    }
    deliver(pending);
    return true;
}

bool SimulatedAudioHardware::setVolume(const std::string& uid, bool isInput, UInt32 element,
                                       Float32 scalar) {
    return changeProperty(uid,
                          addr(kAudioDevicePropertyVolumeScalar, isInput ? kIn : kOut, element),
                          std::clamp(scalar, 0.0f, 1.0f));
}

bool SimulatedAudioHardware::setMute(const std::string& uid, bool isInput, UInt32 element,
                                     bool muted) {
    return changeProperty(uid, addr(kAudioDevicePropertyMute, isInput ? kIn : kOut, element),
                          UInt32{muted ? 1u : 0u});
}

bool SimulatedAudioHardware::setRunning(const std::string& uid, bool running) {
    return changeProperties(
        uid, {{addr(kAudioDevicePropertyDeviceIsRunning), UInt32{running}},
              {addr(kAudioDevicePropertyDeviceIsRunningSomewhere), UInt32{running}}});
}

bool SimulatedAudioHardware::setNominalSampleRate(const std::string& uid, Float64 rate) {
    AudioObjectID id;
    {
        std::lock_guard lock(mutex_);
        id = idForUIDLocked(uid);
    }
    return id != kAudioObjectUnknown &&
           setPropertyData(id, addr(kAudioDevicePropertyNominalSampleRate), rate) ==
               kAudioHardwareNoError;
}

bool SimulatedAudioHardware::setDefaultDevice(bool isInput, bool isSystem, const std::string& uid) {
    AudioObjectID id;
    {
        std::lock_guard lock(mutex_);
        id = idForUIDLocked(uid);
    }
    if (id == kAudioObjectUnknown) return false;
    const auto sel = isInput ? kAudioHardwarePropertyDefaultInputDevice
                             : (isSystem ? kAudioHardwarePropertyDefaultSystemOutputDevice
                                         : kAudioHardwarePropertyDefaultOutputDevice);
    return setPropertyData(kAudioObjectSystemObject, addr(sel), UInt32{id}) ==
           kAudioHardwareNoError;
}

bool SimulatedAudioHardware::setHidden(const std::string& uid, bool hidden) {
    return changeProperty(uid, addr(kAudioDevicePropertyIsHidden), UInt32{hidden ? 1u : 0u});
}

void SimulatedAudioHardware::failNextCall(const std::string& uid,
                                          AudioObjectPropertySelector selector, OSStatus status,
                                          int count) {
    generation_.fetch_add(1, std::memory_order_acq_rel);
    std::lock_guard lock(mutex_);
    if (count <= 0) return;
    failures_.push_back({uid, selector, status, count});
    failuresArmed_.store(true, std::memory_order_relaxed);
}

std::optional<AudioObjectID> SimulatedAudioHardware::objectIDForUID(const std::string& uid) const {
    std::lock_guard lock(mutex_);
    const AudioObjectID id = idForUIDLocked(uid);
    if (id == kAudioObjectUnknown) return std::nullopt;
    return id;
}

std::vector<std::string> SimulatedAudioHardware::pluggedDeviceUIDs() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> uids;
    for (AudioObjectID id : deviceOrder_) uids.push_back(objects_.at(id).uid);
    return uids;
}

std::optional<SimulatedDeviceSpec> SimulatedAudioHardware::deviceSpec(
    const std::string& uid) const {
    std::lock_guard lock(mutex_);
    auto it = specs_.find(uid);
    if (it == specs_.end()) return std::nullopt;
    return it->second;
}

std::size_t SimulatedAudioHardware::listenerCount() const {
    std::lock_guard lock(mutex_);
    return listeners_.size();
}

}  // namespace zdr::hal
