#include "zdr/audio/backends/pulse/pulse_audio_hardware.h"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "zdr/audio/detail/audio_log.h"
#include "zdr/audio/backends/pulse/detail/pulse_connection.h"
#include "zdr/audio/backends/pulse/detail/pulse_properties.h"

namespace zdr::hal {
namespace {

using detail::PulseCallResult;
using detail::PulseDevice;
using detail::PulseDeviceKind;
using detail::PulseEvent;

OSStatus toStatus(PulseCallResult r) {
    switch (r) {
        case PulseCallResult::ok:
            return kAudioHardwareNoError;
        case PulseCallResult::failed:
            return kAudioHardwareUnspecifiedError;
        case PulseCallResult::notConnected:
        case PulseCallResult::timedOut:
            return kAudioHardwareNotRunningError;
    }
    return kAudioHardwareUnspecifiedError;
}

bool matches(const AudioObjectPropertyAddress& wanted, const AudioObjectPropertyAddress& changed) {
    return (wanted.mSelector == kAudioObjectPropertySelectorWildcard ||
            changed.mSelector == kAudioObjectPropertySelectorWildcard ||
            wanted.mSelector == changed.mSelector) &&
           (wanted.mScope == kAudioObjectPropertyScopeWildcard ||
            changed.mScope == kAudioObjectPropertyScopeWildcard ||
            wanted.mScope == changed.mScope) &&
           (wanted.mElement == kAudioObjectPropertyElementWildcard ||
            changed.mElement == kAudioObjectPropertyElementWildcard ||
            wanted.mElement == changed.mElement);
}

bool isDeviceID(AudioObjectID id) { return id >= 0x100 && (id % 2) == 0; }

// Reads fill a value and say whether it may be set; both are optional so that
// has/settable/size/get share one table and can never disagree.
struct Answer {
    PropertyValue* value;
    bool* settable;
    OSStatus give(PropertyValue v, bool canSet = false) const {
        if (value) *value = std::move(v);
        if (settable) *settable = canSet;
        return kAudioHardwareNoError;
    }
};

const AudioObjectPropertyAddress kDevicesAddress{kAudioHardwarePropertyDevices,
                                                 kAudioObjectPropertyScopeGlobal,
                                                 kAudioObjectPropertyElementMain};

}  // namespace

struct PulseAudioHardware::Listeners {
    struct Listener {
        AudioObjectID object;
        AudioObjectPropertyAddress address;
        DispatchQueue queue;
        ListenerBlockRef block;
    };
    std::mutex mutex;
    std::vector<Listener> list;
    std::atomic<bool> quietFirstSync{false};

    void handle(const PulseEvent& event);
    void raise(AudioObjectID object, const std::vector<AudioObjectPropertyAddress>& addresses);
    void drop(AudioObjectID device);
};

std::shared_ptr<PulseAudioHardware> PulseAudioHardware::create(Options options) {
    std::shared_ptr<PulseAudioHardware> self(new PulseAudioHardware());
    self->options_ = options;
    detail::PulseConnection::Options c;
    c.server = options.server;
    c.callTimeout = options.callTimeout;
    // handle() only turns events into queued listener calls, so it can run on
    // the main-loop thread and save a thread hop on every change.
    c.deliverOnLoopThread = true;
    self->listeners_ = std::make_shared<Listeners>();
    self->connection_ = detail::PulseConnection::create(
        c, [listeners = self->listeners_](const PulseEvent& event) { listeners->handle(event); });
    if (options.requireServer) {
        if (!self->connection_->waitUntilSynced(options.connectTimeout,
                                                options.giveUpWhenNoServer)) {
            return nullptr;
        }
        // The caller reads the devices after this returns; announcing the
        // first sync as well would only reach its listeners as a stray change.
        self->listeners_->quietFirstSync = true;
    }
    return self;
}

void PulseAudioHardware::registerBackend() {
    AudioHardware::registerBackend(
        "pulse", [] { return std::shared_ptr<AudioHardware>(PulseAudioHardware::create()); }, true);
}

PulseAudioHardware::~PulseAudioHardware() {
    if (connection_) connection_->shutdown();
}

bool PulseAudioHardware::isConnected() const { return connection_->synced(); }

std::size_t PulseAudioHardware::listenerCount() const {
    std::lock_guard lock(listeners_->mutex);
    return listeners_->list.size();
}

// ---- reads ----

OSStatus PulseAudioHardware::read(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                  const PropertyValue* qualifier, PropertyValue* outValue,
                                  bool* outSettable) {
    if (!connection_->synced()) return kAudioHardwareNotRunningError;
    if (object == kAudioObjectSystemObject) {
        return readSystem(address, qualifier, outValue, outSettable);
    }
    if (object < 0x100) return kAudioHardwareBadObjectError;
    if (isDeviceID(object)) {
        auto d = connection_->device(object);
        if (!d) return kAudioHardwareBadObjectError;
        return readDevice(*d, address, qualifier, outValue, outSettable);
    }
    auto d = connection_->device(object - 1);
    if (!d) return kAudioHardwareBadObjectError;
    return readStream(*d, address, outValue, outSettable);
}

OSStatus PulseAudioHardware::readSystem(const AudioObjectPropertyAddress& address,
                                        const PropertyValue* qualifier, PropertyValue* outValue,
                                        bool* outSettable) {
    Answer a{outValue, outSettable};
    auto defaultID = [&](PulseDeviceKind kind) -> UInt32 {
        auto server = connection_->serverInfo();
        auto d = connection_->deviceByName(kind, kind == PulseDeviceKind::sink
                                                     ? server.defaultSinkName
                                                     : server.defaultSourceName);
        return d ? d->objectID : kAudioObjectUnknown;
    };
    switch (address.mSelector) {
        case kAudioHardwarePropertyDevices: {
            std::vector<UInt32> ids;
            for (const auto& d : connection_->devices()) {
                if (!d->hidden) ids.push_back(d->objectID);
            }
            return a.give(std::move(ids));
        }
        case kAudioHardwarePropertyDefaultOutputDevice:
        case kAudioHardwarePropertyDefaultSystemOutputDevice:
            return a.give(defaultID(PulseDeviceKind::sink), true);
        case kAudioHardwarePropertyDefaultInputDevice:
            return a.give(defaultID(PulseDeviceKind::source), true);
        case kAudioHardwarePropertyTranslateUIDToDevice: {
            const std::string* uid = qualifier ? qualifier->getIf<std::string>() : nullptr;
            if (!outValue) return a.give(UInt32{0});  // has / settable / size need no qualifier
            if (!uid) return kAudioHardwareBadPropertySizeError;
            auto d = connection_->deviceByUID(*uid);
            return a.give(d ? d->objectID : kAudioObjectUnknown);
        }
        case kAudioHardwarePropertyServiceRestarted:
            return a.give(UInt32{0});
        case kAudioObjectPropertyName:
            return a.give(connection_->serverInfo().serverName);
        default:
            return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus PulseAudioHardware::readDevice(const PulseDevice& d,
                                        const AudioObjectPropertyAddress& address,
                                        const PropertyValue* qualifier, PropertyValue* outValue,
                                        bool* outSettable) {
    using namespace detail;
    Answer a{outValue, outSettable};
    const auto scope = pulseScope(d);
    const bool global = address.mScope == kAudioObjectPropertyScopeGlobal;
    const bool ownScope = address.mScope == scope;
    const bool otherScope = (address.mScope == kAudioObjectPropertyScopeInput ||
                             address.mScope == kAudioObjectPropertyScopeOutput) &&
                            !ownScope;
    const UInt32 element = address.mElement;
    switch (address.mSelector) {
        case kAudioObjectPropertyName:
            return a.give(d.description);
        case kAudioObjectPropertyManufacturer: {
            auto m = pulseManufacturer(d);
            if (!m) return kAudioHardwareUnknownPropertyError;
            return a.give(*m);
        }
        case kAudioDevicePropertyDeviceUID:
            return a.give(d.uid);
        case kAudioDevicePropertyModelUID:
            return a.give(pulseModelUID(d));
        case kAudioDevicePropertyTransportType:
            return a.give(pulseTransportType(d));
        case kAudioDevicePropertyDeviceIsAlive:
            return a.give(UInt32{1});
        case kAudioDevicePropertyDeviceIsRunning:
        case kAudioDevicePropertyDeviceIsRunningSomewhere:
            return a.give(UInt32{d.isRunning() ? 1u : 0u});
        case kAudioDevicePropertyDeviceCanBeDefaultDevice:
            return a.give(UInt32{1});
        case kAudioDevicePropertyDeviceCanBeDefaultSystemDevice:
            return a.give(UInt32{d.isInput() ? 0u : 1u});
        case kAudioDevicePropertyIsHidden:
            return a.give(UInt32{d.hidden ? 1u : 0u});
        case kAudioDevicePropertyNominalSampleRate:
        case kAudioDevicePropertyActualSampleRate:
            // The server picks the rate of a sink itself; clients cannot set it.
            return a.give(static_cast<Float64>(d.rate));
        case kAudioDevicePropertyAvailableNominalSampleRates:
            return a.give(std::vector<AudioValueRange>{
                {static_cast<Float64>(d.rate), static_cast<Float64>(d.rate)}});
        case kAudioDevicePropertyBufferFrameSize:
            return a.give(pulseBufferFrames(d));
        case kAudioDevicePropertyBufferFrameSizeRange: {
            const auto frames = static_cast<Float64>(pulseBufferFrames(d));
            return a.give(AudioValueRange{frames, frames});
        }
        case kAudioDevicePropertyPreferredChannelLayout:
            if (d.channelPositions.empty()) return kAudioHardwareUnknownPropertyError;
            return a.give(pulseChannelLayout(d));
        case kAudioDevicePropertyPreferredChannelsForStereo:
            return a.give(std::vector<UInt32>{1, d.channels >= 2 ? 2u : 1u});
        case kAudioDevicePropertyStreams:
            if (global || ownScope) return a.give(std::vector<UInt32>{d.objectID + 1});
            if (otherScope) return a.give(std::vector<UInt32>{});
            return kAudioHardwareUnknownPropertyError;
        case kAudioDevicePropertyStreamConfiguration:
            if (ownScope) return a.give(AudioBufferListConfiguration{{d.channels}});
            if (otherScope) return a.give(AudioBufferListConfiguration{});
            return kAudioHardwareUnknownPropertyError;
        case kAudioDevicePropertyStreamFormat:
            if (!ownScope) return kAudioHardwareUnknownPropertyError;
            return a.give(pulseStreamFormat(d));
        case kAudioDevicePropertyLatency:
            if (!ownScope) return kAudioHardwareUnknownPropertyError;
            return a.give(pulseLatencyFrames(d));
        case kAudioDevicePropertySafetyOffset:
            if (!ownScope) return kAudioHardwareUnknownPropertyError;
            return a.give(UInt32{0});
        case kAudioDevicePropertyVolumeScalar:
            if (!ownScope || element > d.volume.size()) return kAudioHardwareUnknownPropertyError;
            return a.give(
                element == 0 ? pulseMainVolume(d) : pulseVolumeToScalar(d.volume[element - 1]),
                true);
        case kAudioDevicePropertyVolumeDecibels: {
            if (!ownScope || element > d.volume.size()) return kAudioHardwareUnknownPropertyError;
            uint32_t v = 0;
            if (element == 0) {
                for (uint32_t c : d.volume) v = std::max(v, c);
            } else {
                v = d.volume[element - 1];
            }
            return a.give(pulseVolumeToDecibels(v));
        }
        case kAudioDevicePropertyVolumeRangeDecibels:
            if (!ownScope || element > d.volume.size()) return kAudioHardwareUnknownPropertyError;
            return a.give(AudioValueRange{-144.0, 0.0});
        case kAudioDevicePropertyMute:
            if (!ownScope || element != kAudioObjectPropertyElementMain) {
                return kAudioHardwareUnknownPropertyError;
            }
            return a.give(UInt32{d.mute ? 1u : 0u}, true);
        case kAudioDevicePropertyDataSource: {
            if (!ownScope || d.ports.empty()) return kAudioHardwareUnknownPropertyError;
            auto id = pulseDataSourceID(d, d.activePort);
            return a.give(id.value_or(0), d.ports.size() > 1);
        }
        case kAudioDevicePropertyDataSources:
            if (!ownScope || d.ports.empty()) return kAudioHardwareUnknownPropertyError;
            return a.give(pulseDataSourceIDs(d));
        case kAudioDevicePropertyDataSourceNameForIDCFString: {
            if (!ownScope || d.ports.empty()) return kAudioHardwareUnknownPropertyError;
            if (!outValue) return a.give(std::string());
            const UInt32* id = qualifier ? qualifier->getIf<UInt32>() : nullptr;
            if (!id) return kAudioHardwareBadPropertySizeError;
            auto name = pulsePortDescription(d, *id);
            if (!name) return kAudioHardwareIllegalOperationError;
            return a.give(*name);
        }
        default:
            return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus PulseAudioHardware::readStream(const PulseDevice& d,
                                        const AudioObjectPropertyAddress& address,
                                        PropertyValue* outValue, bool* outSettable) {
    Answer a{outValue, outSettable};
    switch (address.mSelector) {
        case kAudioStreamPropertyIsActive:
            return a.give(UInt32{1});
        case kAudioStreamPropertyDirection:
            return a.give(UInt32{d.isInput() ? 1u : 0u});
        case kAudioStreamPropertyTerminalType:
            return a.give(UInt32{0});
        case kAudioStreamPropertyStartingChannel:
            return a.give(UInt32{1});
        case kAudioStreamPropertyLatency:
            return a.give(UInt32{0});
        case kAudioStreamPropertyVirtualFormat:
        case kAudioStreamPropertyPhysicalFormat:
            return a.give(detail::pulseStreamFormat(d));
        case kAudioStreamPropertyAvailableVirtualFormats:
        case kAudioStreamPropertyAvailablePhysicalFormats: {
            AudioStreamRangedDescription r;
            r.mFormat = detail::pulseStreamFormat(d);
            r.mSampleRateRange = {r.mFormat.mSampleRate, r.mFormat.mSampleRate};
            return a.give(std::vector<AudioStreamRangedDescription>{r});
        }
        default:
            return kAudioHardwareUnknownPropertyError;
    }
}

bool PulseAudioHardware::hasProperty(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address) {
    return read(object, address, nullptr, nullptr, nullptr) == kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::isPropertySettable(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                bool& outSettable) {
    outSettable = false;
    return read(object, address, nullptr, nullptr, &outSettable);
}

OSStatus PulseAudioHardware::getPropertyDataSize(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 const PropertyValue* qualifier, UInt32& outSize) {
    PropertyValue value;
    OSStatus status = read(object, address, qualifier, &value, nullptr);
    if (status == kAudioHardwareBadPropertySizeError && !qualifier) {
        // Qualified properties have a fixed size whatever the qualifier.
        status = read(object, address, nullptr, nullptr, nullptr);
        value = PropertyValue(UInt32{0});
    }
    outSize = status == kAudioHardwareNoError ? value.dataSize() : 0;
    return status;
}

OSStatus PulseAudioHardware::getPropertyData(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             const PropertyValue* qualifier,
                                             PropertyValue& outValue) {
    return read(object, address, qualifier, &outValue, nullptr);
}

// ---- writes ----

OSStatus PulseAudioHardware::setDefault(const AudioObjectPropertyAddress& address,
                                        const PropertyValue& value) {
    const UInt32* id = value.getIf<UInt32>();
    if (!id) return kAudioHardwareBadPropertySizeError;
    auto d = connection_->device(*id);
    const bool wantsInput = address.mSelector == kAudioHardwarePropertyDefaultInputDevice;
    if (!d || d->isInput() != wantsInput) return kAudioHardwareBadDeviceError;
    return toStatus(connection_->setDefault(*id));
}

OSStatus PulseAudioHardware::setPropertyData(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             const PropertyValue& value) {
    bool settable = false;
    OSStatus status = read(object, address, nullptr, nullptr, &settable);
    if (status != kAudioHardwareNoError) return status;
    if (!settable) return kAudioHardwareIllegalOperationError;
    if (object == kAudioObjectSystemObject) return setDefault(address, value);

    auto d = connection_->device(object);
    if (!d) return kAudioHardwareBadObjectError;
    switch (address.mSelector) {
        case kAudioDevicePropertyVolumeScalar: {
            const Float32* scalar = value.getIf<Float32>();
            if (!scalar) return kAudioHardwareBadPropertySizeError;
            auto volume = address.mElement == kAudioObjectPropertyElementMain
                              ? detail::pulseWithMainVolume(*d, *scalar)
                              : detail::pulseWithChannelVolume(*d, address.mElement, *scalar);
            return toStatus(connection_->setVolume(object, volume));
        }
        case kAudioDevicePropertyMute: {
            const UInt32* mute = value.getIf<UInt32>();
            if (!mute) return kAudioHardwareBadPropertySizeError;
            return toStatus(connection_->setMute(object, *mute != 0));
        }
        case kAudioDevicePropertyDataSource: {
            const UInt32* id = value.getIf<UInt32>();
            if (!id) return kAudioHardwareBadPropertySizeError;
            auto port = detail::pulsePortName(*d, *id);
            if (!port) return kAudioHardwareIllegalOperationError;
            return toStatus(connection_->setPort(object, *port));
        }
        default:
            return kAudioHardwareIllegalOperationError;
    }
}

// ---- listeners ----

bool PulseAudioHardware::objectExists(AudioObjectID object) const {
    if (object == kAudioObjectSystemObject) return true;
    if (object < 0x100) return false;
    return connection_->device(isDeviceID(object) ? object : object - 1) != nullptr;
}

OSStatus PulseAudioHardware::addPropertyListenerBlock(AudioObjectID object,
                                                      const AudioObjectPropertyAddress& address,
                                                      const DispatchQueue& queue,
                                                      const ListenerBlockRef& block) {
    if (!block) return kAudioHardwareIllegalOperationError;
    if (!objectExists(object)) {
        return connection_->synced() ? kAudioHardwareBadObjectError : kAudioHardwareNotRunningError;
    }
    std::lock_guard lock(listeners_->mutex);
    for (const auto& l : listeners_->list) {
        if (l.object == object && l.address == address && l.queue == queue && l.block == block) {
            return kAudioHardwareIllegalOperationError;
        }
    }
    listeners_->list.push_back({object, address, queue, block});
    return kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::removePropertyListenerBlock(AudioObjectID object,
                                                         const AudioObjectPropertyAddress& address,
                                                         const DispatchQueue& queue,
                                                         const ListenerBlockRef& block) {
    std::lock_guard lock(listeners_->mutex);
    auto& list = listeners_->list;
    auto it = std::find_if(list.begin(), list.end(), [&](const Listeners::Listener& l) {
        return l.object == object && l.address == address && l.queue == queue && l.block == block;
    });
    if (it == list.end()) {
        return objectExists(object) ? kAudioHardwareIllegalOperationError
                                    : kAudioHardwareBadObjectError;
    }
    list.erase(it);
    return kAudioHardwareNoError;
}

void PulseAudioHardware::Listeners::raise(
    AudioObjectID object, const std::vector<AudioObjectPropertyAddress>& addresses) {
    if (addresses.empty()) return;
    struct Call {
        DispatchQueue queue;
        ListenerBlockRef block;
        std::vector<AudioObjectPropertyAddress> addresses;
    };
    std::vector<Call> calls;
    {
        std::lock_guard lock(mutex);
        for (const auto& l : list) {
            if (l.object != object) continue;
            std::vector<AudioObjectPropertyAddress> hit;
            for (const auto& changed : addresses) {
                if (matches(l.address, changed)) hit.push_back(changed);
            }
            if (!hit.empty()) calls.push_back({l.queue, l.block, std::move(hit)});
        }
    }
    // Dispatched outside the lock: a block may add or remove listeners.
    for (auto& c : calls) {
        c.queue.async([block = std::move(c.block), object, hit = std::move(c.addresses)] {
            (*block)(object, hit);
        });
    }
}

void PulseAudioHardware::Listeners::drop(AudioObjectID device) {
    std::lock_guard lock(mutex);
    std::erase_if(list,
                  [&](const Listener& l) { return l.object == device || l.object == device + 1; });
}

// Runs on the connection's main-loop thread, in the order the server reported:
// it only hands listener calls to their queues and never blocks.
void PulseAudioHardware::Listeners::handle(const PulseEvent& event) {
    const AudioObjectPropertyAddress alive{kAudioDevicePropertyDeviceIsAlive,
                                           kAudioObjectPropertyScopeGlobal,
                                           kAudioObjectPropertyElementMain};
    auto global = [](AudioObjectPropertySelector s) {
        return AudioObjectPropertyAddress{s, kAudioObjectPropertyScopeGlobal,
                                          kAudioObjectPropertyElementMain};
    };
    const std::vector<AudioObjectPropertyAddress> defaults = {
        global(kAudioHardwarePropertyDefaultOutputDevice),
        global(kAudioHardwarePropertyDefaultSystemOutputDevice),
        global(kAudioHardwarePropertyDefaultInputDevice)};
    switch (event.type) {
        case PulseEvent::Type::connected:
            if (!event.reconnected && quietFirstSync) break;
            if (event.reconnected) {
                ZDR_AUDIO_LOG(audio, info, "pulse: the audio server answers again");
                raise(kAudioObjectSystemObject, {global(kAudioHardwarePropertyServiceRestarted)});
            }
            raise(kAudioObjectSystemObject, {kDevicesAddress});
            raise(kAudioObjectSystemObject, defaults);
            break;
        case PulseEvent::Type::disconnected:
            for (const auto& d : event.removed) {
                raise(d->objectID, {alive});
                drop(d->objectID);
            }
            raise(kAudioObjectSystemObject, {kDevicesAddress});
            break;
        case PulseEvent::Type::deviceAppearing:
            raise(kAudioObjectSystemObject, {kDevicesAddress});
            break;
        case PulseEvent::Type::deviceAdded:
            if (!event.announced) raise(kAudioObjectSystemObject, {kDevicesAddress});
            break;
        case PulseEvent::Type::deviceRemoved:
            raise(event.before->objectID, {alive});
            drop(event.before->objectID);
            raise(kAudioObjectSystemObject, {kDevicesAddress});
            break;
        case PulseEvent::Type::deviceChanged: {
            auto changed = detail::pulseChangedAddresses(*event.before, *event.after);
            if (event.before->hidden != event.after->hidden) {
                raise(kAudioObjectSystemObject, {kDevicesAddress});
            }
            raise(event.after->objectID, changed);
            break;
        }
        case PulseEvent::Type::serverChanged: {
            std::vector<AudioObjectPropertyAddress> changed;
            if (event.serverBefore.defaultSinkName != event.serverAfter.defaultSinkName) {
                changed.push_back(defaults[0]);
                changed.push_back(defaults[1]);
            }
            if (event.serverBefore.defaultSourceName != event.serverAfter.defaultSourceName) {
                changed.push_back(defaults[2]);
            }
            raise(kAudioObjectSystemObject, changed);
            break;
        }
    }
}

// ---- device clock ----

OSStatus PulseAudioHardware::deviceGetCurrentTime(AudioObjectID device, AudioTimeStamp& ioTime) {
    if (!connection_->synced()) return kAudioHardwareNotRunningError;
    auto d = isDeviceID(device) ? connection_->device(device) : nullptr;
    if (!d) return kAudioHardwareBadDeviceError;
    if (!d->isRunning()) return kAudioHardwareNotRunningError;
    // The server does not expose a device clock to clients; the sample time
    // counts frames at the nominal rate since the device started running,
    // against the same monotonic clock the host time uses.
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - d->runningSince).count();
    ioTime.mSampleTime = seconds * d->rate;
    ioTime.mHostTime = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count());
    ioTime.mRateScalar = 1.0;
    ioTime.mFlags = kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid |
                    kAudioTimeStampRateScalarValid;
    return kAudioHardwareNoError;
}

}  // namespace zdr::hal
