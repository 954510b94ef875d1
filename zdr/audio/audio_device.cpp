// AudioDevice: the registry, identity and alive/dead bookkeeping.
#include "zdr/audio/audio_device.h"

#include <algorithm>
#include <cctype>
#include <unordered_map>

#include "zdr/audio/audio_device_internal.h"
#include "zdr/audio/default_system_output_audio_device.h"
#include "zdr/audio/detail/audio_log.h"
#include "zdr/audio/hal/ca_hal_audio_system_object.h"
#include "zdr/runtime/notification_center.h"

namespace zdr {

using namespace hal;

namespace detail {

namespace {
constexpr const char* kHiddenPreviewUID = "ZDRAudioCapture:4";
constexpr const char* kHALCaptureUID = "ZDRAudioCapture:3";
constexpr const char* kReelioUID = "ReelioAudioEngine:0";

// The class state in use, and every state ever made: an old state may still
// have listener blocks queued after a reset, so none is ever destroyed.
std::atomic<AudioDeviceClassState*> gState{nullptr};
std::mutex& initMutex() {
    static std::mutex* m = new std::mutex();
    return *m;
}
std::vector<AudioDeviceClassState*>& allStates() {
    static auto* v = new std::vector<AudioDeviceClassState*>();
    return *v;
}
std::function<std::shared_ptr<AudioDevice>()>& proxyFactory() {
    static auto* f = new std::function<std::shared_ptr<AudioDevice>()>();
    return *f;
}

void postOnMain(std::string name, std::shared_ptr<void> object = nullptr) {
    DispatchQueue::main().async([name = std::move(name), object = std::move(object)] {
        NotificationCenter::defaultCenter()->post(name, object);
    });
}

AudioObjectPropertyAddress systemAddress(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

void installSystemListeners(AudioDeviceClassState& s) {
    CAHALAudioSystemObject system(s.hardware);
    s.devicesListener =
        makeListenerBlock([](AudioObjectID, const std::vector<AudioObjectPropertyAddress>&) {
            AudioDevice::hardwarePropertyNotification(0);
        });
    s.restartListener =
        makeListenerBlock([](AudioObjectID, const std::vector<AudioObjectPropertyAddress>&) {
            DispatchQueue::main().async([] {
                ZDR_AUDIO_LOG(audio, info, "coreaudiod was restarted");
                NotificationCenter::defaultCenter()->post(kCoreAudioDRestarted);
            });
        });
    s.defaultOutputListener =
        makeListenerBlock([](AudioObjectID, const std::vector<AudioObjectPropertyAddress>&) {
            NotificationCenter::defaultCenter()->post(kAudioDevicesDefaultOutputChanged);
        });
    OSStatus status = s.hardware->addPropertyListenerBlock(
        kAudioObjectSystemObject, systemAddress(kAudioHardwarePropertyDevices), s.queue,
        s.devicesListener);
    if (status == kAudioHardwareNoError) {
        status = s.hardware->addPropertyListenerBlock(
            kAudioObjectSystemObject, systemAddress(kAudioHardwarePropertyServiceRestarted),
            s.queue, s.restartListener);
    }
    if (status != kAudioHardwareNoError) {
        ZDR_AUDIO_LOG(app, error, "Error registering audio listener, {}", status);
    }
    // Deliberately not caught: without the default-output listener the layer
    // cannot follow the system's output, and the caller must know.
    system.AddPropertyListenerBlock(systemAddress(kAudioHardwarePropertyDefaultOutputDevice),
                                    s.queue, s.defaultOutputListener);
}

void removeSystemListeners(AudioDeviceClassState& s) {
    const std::pair<AudioObjectPropertySelector, ListenerBlockRef> listeners[] = {
        {kAudioHardwarePropertyDevices, s.devicesListener},
        {kAudioHardwarePropertyServiceRestarted, s.restartListener},
        {kAudioHardwarePropertyDefaultOutputDevice, s.defaultOutputListener}};
    for (const auto& [selector, block] : listeners) {
        if (block) {
            s.hardware->removePropertyListenerBlock(kAudioObjectSystemObject,
                                                    systemAddress(selector), s.queue, block);
        }
    }
}

AudioDeviceClassState& initialise(std::shared_ptr<AudioHardware> hardware) {
    // Called with initMutex() held.
    auto* s = new AudioDeviceClassState();
    s->hardware = hardware ? std::move(hardware) : AudioHardware::current();
    allStates().push_back(s);
    gState.store(s, std::memory_order_release);
    try {
        AudioDevice::proxiedDefaultSystemOutput();
    } catch (const std::exception& e) {
        ZDR_AUDIO_LOG(app, error, "Can't register fake audio devices, {}", e.what());
    }
    installSystemListeners(*s);
    return *s;
}
}  // namespace

PossiblyDeadTable& possiblyDead() {
    // Made at library load, before any class state.
    static PossiblyDeadTable* t = new PossiblyDeadTable();
    return *t;
}
[[maybe_unused]] static PossiblyDeadTable& gPossiblyDeadAtLoad = possiblyDead();

std::recursive_mutex& listenerLock() {
    static auto* m = new std::recursive_mutex();
    return *m;
}

AudioDeviceClassState& audioDeviceClass() {
    if (auto* s = gState.load(std::memory_order_acquire)) return *s;
    std::lock_guard lock(initMutex());
    if (auto* s = gState.load(std::memory_order_acquire)) return *s;
    return initialise(nullptr);
}

void postNotificationOnMain(const char* name, std::shared_ptr<void> object) {
    postOnMain(name, std::move(object));
}

}  // namespace detail

using detail::audioDeviceClass;
using detail::possiblyDead;

// ---------------------------------------------------------------------------
// Creation

AudioDevice::AudioDevice() = default;

std::shared_ptr<AudioDevice> AudioDevice::initWithCoreAudioDevice(AudioObjectID deviceID) {
    std::shared_ptr<AudioDevice> device(new AudioDevice());
    device->deviceID_.store(deviceID);
    device->coreAudioDevice_ =
        std::make_unique<CAHALAudioDevice>(deviceID, audioDeviceClass().hardware);
    // The result is deliberately not checked: a device whose setup failed is
    // still handed out (but deviceForCoreAudioID does not register it).
    device->setupUsingCoreAudioDevice();
    return device;
}

AudioDevice::~AudioDevice() {
    try {
        removeNotificationListener();
    } catch (...) {
        ZDR_AUDIO_LOG(app, error, "Error removing property listeners from core audio device.");
    }
}

bool AudioDevice::setupUsingCoreAudioDevice() {
    if (!coreAudioDevice_) return false;
    const AudioObjectID id = deviceID_.load();
    try {
        std::string name, uid;
        try {
            name = coreAudioDevice_->CopyName();
        } catch (const CAException&) {
            ZDR_AUDIO_LOG(app, error,
                          "Unable to get the name of the device with Audio Device ID {}", id);
            return false;
        }
        setDeviceName(name);
        try {
            uid = coreAudioDevice_->CopyDeviceUID();
        } catch (const CAException&) {
            ZDR_AUDIO_LOG(app, error, "Unable to get the UID of the device with Audio Device ID {}",
                          id);
            return false;
        }
        setDeviceUID(uid);
        ZDR_AUDIO_LOG(audio, verbose, "Device with name {}, setup to have uniqueID: {}", name, uid);
        const auto out = kAudioObjectPropertyScopeOutput;
        const auto in = kAudioObjectPropertyScopeInput;
        const auto main = kAudioObjectPropertyElementMain;
        hasMasterOutputVolume_.store(coreAudioDevice_->HasVolumeControl(out, main) &&
                                     coreAudioDevice_->VolumeControlIsSettable(out, main));
        hasMasterInputVolume_.store(coreAudioDevice_->HasVolumeControl(in, main) &&
                                    coreAudioDevice_->VolumeControlIsSettable(in, main));
        hasMasterOutputMute_.store(coreAudioDevice_->HasMuteControl(out, main) &&
                                   coreAudioDevice_->MuteControlIsSettable(out, main));
        removeNotificationListener();
        listenForNotifications();
        didChangeValue("deviceName");
        didChangeValue("deviceUID");
        return true;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error,
                      "Could not setup new AudioDevice. Error during CA Access. Err: {}",
                      e.GetError());
        return false;
    }
}

// ---------------------------------------------------------------------------
// Plain accessors

AudioObjectID AudioDevice::deviceID() const {
    return testMakeIDGoZero_.load() ? 0 : deviceID_.load();
}
void AudioDevice::setDeviceID(AudioObjectID deviceID) { deviceID_.store(deviceID); }
std::string AudioDevice::deviceUID() const {
    std::lock_guard lock(fieldsMutex_);
    return deviceUID_;
}
void AudioDevice::setDeviceUID(const std::string& uid) {
    std::lock_guard lock(fieldsMutex_);
    deviceUID_ = uid;
}
std::string AudioDevice::deviceName() const {
    std::lock_guard lock(fieldsMutex_);
    return deviceName_;
}
void AudioDevice::setDeviceName(const std::string& name) {
    std::lock_guard lock(fieldsMutex_);
    deviceName_ = name;
}

std::string AudioDevice::deviceDescriptionAndID() const {
    return fmt::format("{} - {} (id: {})", deviceName(), deviceUID(), deviceID());
}

std::string AudioDevice::deviceOutputDescription() const {
    AudioStreamBasicDescription asbd;
    if (!audioStreamBasicDescription(true, &asbd)) return "<unknown output format>";
    char text[64];
    std::snprintf(text, sizeof text, "%2u ch, %6.0f Hz, '%-4.4s'", asbd.mChannelsPerFrame,
                  asbd.mSampleRate, fourCharString(asbd.mFormatID).c_str());
    return text;
}

bool AudioDevice::isApplicationAudioCaptureDevice() const {
    const auto ids = applicationAudioCaptureDeviceIDs();
    return std::find(ids.begin(), ids.end(), deviceUID()) != ids.end();
}

bool AudioDevice::isProxyDefaultOutput() const {
    auto proxy = proxiedDefaultSystemOutput();
    return proxy && isEqual(proxy);
}

bool AudioDevice::isEqual(const std::shared_ptr<const AudioDevice>& other) const {
    if (other.get() == this) return true;
    if (!other) return false;
    if (typeid(*other) != typeid(*this)) {
        ZDR_AUDIO_LOG(debug, verbose, "{} not AudioDevice, {} - NO", other->description(),
                      typeid(*other).name());
        return false;
    }
    if (deviceID() != other->deviceID()) return false;
    return deviceUID() == other->deviceUID();
}

Dictionary AudioDevice::momentoDictionary() const {
    std::lock_guard lock(selfLock_);
    return channels_.momentoDictionary(channelOwner());
}

void AudioDevice::setMomentoDictionary(const Dictionary& momento) {
    std::lock_guard lock(selfLock_);
    channels_.setMomentoDictionary(channelOwner(), momento);
}

// ---------------------------------------------------------------------------
// Alive and dead

bool AudioDevice::isAlive() const {
    if (testMakeNotAlive_.load()) return false;
    const auto id = deviceID_.load();
    if (!coreAudioDevice_) {
        ZDR_AUDIO_LOG(audio, debug, "Device {} not alive, because no _coreAudioDevice", id);
        return false;
    }
    try {
        if (coreAudioDevice_->IsAlive()) return true;
        ZDR_AUDIO_LOG(audio, debug, "Device {} not alive, because that's what coreAudio says", id);
        return false;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(audio, debug,
                      "Device {} not alive, because of exception while making IsAlive() call, "
                      "errCode: {}",
                      id, e.GetError());
        ZDR_AUDIO_LOG(app, error, "Unable to see if device is alive. Error {}", e.GetError());
        return false;
    }
}

bool AudioDevice::isMarkedAsDead() const {
    auto& table = possiblyDead();
    const std::string key = singletonKey();
    std::lock_guard lock(table.lock);
    // This object, not merely one of its UID: another object parked under the
    // same UID must not stop this one from being marked (it would then stay
    // registered and never be reported alive again).
    auto it = table.devices.find(key);
    return it != table.devices.end() && it->second.get() == this;
}

bool AudioDevice::belongsToCurrentRegistry() const {
    // Only the one object the registry holds for a UID (or, while none is
    // registered, the one parked as possibly dead) moves between the tables.
    // Another object of the same UID (a device made before the registry was
    // set up again on other hardware, or a twin made directly) keeps working,
    // but must never displace the live object: it would then stay registered
    // while dead and never be reported alive again.
    auto& cls = audioDeviceClass();
    if (coreAudioDevice_ && coreAudioDevice_->hardware() != cls.hardware) return false;
    const std::string key = singletonKey();
    std::lock_guard lock(cls.registryLock);
    if (auto it = cls.registry.find(key); it != cls.registry.end()) return it->second.get() == this;
    auto& table = possiblyDead();
    std::lock_guard deadLock(table.lock);
    auto it = table.devices.find(key);
    return it == table.devices.end() || it->second.get() == this;
}

void AudioDevice::markDeviceAsNotAlive() {
    if (!belongsToCurrentRegistry()) return;
    const std::string key = singletonKey();
    {
        auto& table = possiblyDead();
        std::lock_guard lock(table.lock);
        table.devices[key] = shared_from_this();
    }
    auto& cls = audioDeviceClass();
    std::lock_guard lock(cls.registryLock);
    cls.registry.erase(key);
}

bool AudioDevice::markAsDeadIfDeviceIsNotAlive() {
    if (isAlive()) return false;
    if (!isMarkedAsDead()) markDeviceAsNotAlive();
    detail::postNotificationOnMain(kAudioDriverDeviceGoneDead, shared_from_this());
    return true;
}

bool AudioDevice::refindDeviceIDBasedOnUID() {
    // A device held "not alive" by the test hook stays dead until it is cleared.
    if (!coreAudioDevice_ || testMakeNotAlive_.load()) return false;
    try {
        const std::string uid = deviceUID();
        CAHALAudioDevice fresh(uid, coreAudioDevice_->hardware());
        if (!fresh.IsAlive()) return false;
        coreAudioDevice_->SetObjectID(fresh.GetObjectID());
        if (!coreAudioDevice_->IsAlive()) return false;
        deviceID_.store(fresh.GetObjectID());
        auto& cls = audioDeviceClass();
        std::lock_guard lock(cls.registryLock);
        if (!belongsToCurrentRegistry()) return true;  // re-bound, not registered
        cls.registry[uid] = shared_from_this();
        // The possibly-dead lock is taken here too (after the registry lock,
        // the one order allowed) so the table is never changed unguarded.
        auto& table = possiblyDead();
        std::lock_guard deadLock(table.lock);
        table.devices.erase(uid);
        return true;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Could not . Error during CA Access. Err: {}", e.GetError());
        return false;
    }
}

void AudioDevice::markDeviceAsAlive() { refindDeviceIDBasedOnUID(); }

bool AudioDevice::seeIfDeviceHasComeAliveAndGetNewDeviceID() {
    try {
        if (!refindDeviceIDBasedOnUID()) return false;
        setupUsingCoreAudioDevice();
        return true;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Could not refind the device: {}. Got error: {}", deviceUID(),
                      e.GetError());
        return false;
    }
}

bool AudioDevice::debugProtectCallFromDeadDevice() const {
    if (!isMarkedAsDead()) return true;
    ZDR_AUDIO_LOG(app, warning, "Call being made, but device '{}' is not alive.", deviceName());
    return false;
}

// ---------------------------------------------------------------------------
// Registry

namespace {
// A possibly-dead device whose UID is asked for again is re-found on the spot
// rather than duplicated: a caller that asks between a replug and the
// device-list handler still gets the one object for that UID. Called with the
// registry lock held.
std::shared_ptr<AudioDevice> reviveIfCameBack(const std::string& uid) {
    std::shared_ptr<AudioDevice> dead;
    {
        auto& table = possiblyDead();
        std::lock_guard lock(table.lock);
        auto it = table.devices.find(uid);
        if (it == table.devices.end()) return nullptr;
        dead = it->second;
    }
    if (!dead->seeIfDeviceHasComeAliveAndGetNewDeviceID()) return nullptr;
    ZDR_AUDIO_LOG(audio, info, "{} has come alive again", dead->deviceDescriptionAndID());
    detail::postNotificationOnMain(kAudioDriverDeviceAliveAgain, dead);
    return dead;
}
}  // namespace

std::shared_ptr<AudioDevice> AudioDevice::lookupDeviceSingletonByDeviceUID(const std::string& uid) {
    auto& cls = audioDeviceClass();
    std::lock_guard lock(cls.registryLock);
    auto it = cls.registry.find(uid);
    return it == cls.registry.end() ? nullptr : it->second;
}

std::optional<std::string> AudioDevice::maybeUUIDForHiddenDevices(AudioObjectID deviceID) {
    const AudioObjectID hidden =
        audioDeviceClass().hardware->translateUIDToDevice(detail::kHiddenPreviewUID);
    if (hidden != kAudioObjectUnknown && hidden == deviceID) return detail::kHiddenPreviewUID;
    return std::nullopt;
}

namespace {
std::optional<std::string> findUIDUncached(AudioObjectID deviceID);

// The cached UID of `deviceID` if the cache is for this device list, else
// null. The caller holds uidCacheMutex.
const std::string* cachedUIDLocked(const detail::AudioDeviceClassState& cls, AudioObjectID deviceID,
                                   const std::optional<std::uint64_t>& generation) {
    if (!generation || cls.uidCacheGeneration != *generation) return nullptr;
    auto it = cls.uidCache.find(deviceID);
    return it == cls.uidCache.end() ? nullptr : &it->second;
}
}  // namespace

std::optional<std::string> AudioDevice::findUIDForAudioDeviceID(AudioObjectID deviceID) {
    // The answer depends only on the device list, the hidden device's
    // translation and the devices' UIDs; a backend that numbers its changes
    // lets it be reused until the next change.
    auto& cls = audioDeviceClass();
    const auto generation = cls.hardware->deviceListGeneration();
    if (generation) {
        std::lock_guard lock(cls.uidCacheMutex);
        if (const auto* known = cachedUIDLocked(cls, deviceID, generation)) return *known;
    }
    auto uid = findUIDUncached(deviceID);
    if (generation && uid) {
        std::lock_guard lock(cls.uidCacheMutex);
        if (cls.uidCacheGeneration != *generation) {
            cls.uidCache.clear();
            cls.uidCacheGeneration = *generation;
        }
        cls.uidCache[deviceID] = *uid;
    }
    return uid;
}

namespace {
std::optional<std::string> findUIDUncached(AudioObjectID deviceID) {
    if (auto hidden = AudioDevice::maybeUUIDForHiddenDevices(deviceID)) return hidden;
    auto& hw = *audioDeviceClass().hardware;
    const auto devicesAddress = detail::systemAddress(kAudioHardwarePropertyDevices);
    UInt32 size = 0;
    if (hw.getPropertyDataSize(kAudioObjectSystemObject, devicesAddress, nullptr, size) !=
        kAudioHardwareNoError) {
        return std::nullopt;
    }
    PropertyValue list;
    if (hw.getPropertyData(kAudioObjectSystemObject, devicesAddress, nullptr, list) !=
        kAudioHardwareNoError) {
        return std::nullopt;
    }
    const auto* ids = list.getIf<std::vector<UInt32>>();
    if (ids == nullptr || std::find(ids->begin(), ids->end(), deviceID) == ids->end()) {
        return std::nullopt;
    }
    PropertyValue uid;
    if (hw.getPropertyData(deviceID, detail::systemAddress(kAudioDevicePropertyDeviceUID), nullptr,
                           uid) != kAudioHardwareNoError) {
        return std::nullopt;
    }
    if (const auto* text = uid.getIf<std::string>()) return *text;
    return std::nullopt;
}
}  // namespace

std::shared_ptr<AudioDevice> AudioDevice::deviceForCoreAudioID(AudioObjectID deviceID) {
    auto& cls = audioDeviceClass();
    std::lock_guard lock(cls.registryLock);
    // A registered device whose UID is already known for this device list is
    // found without copying the UID out of the cache.
    if (const auto generation = cls.hardware->deviceListGeneration()) {
        std::lock_guard cacheLock(cls.uidCacheMutex);
        if (const auto* known = cachedUIDLocked(cls, deviceID, generation)) {
            if (auto it = cls.registry.find(*known); it != cls.registry.end()) return it->second;
        }
    }
    const auto uid = findUIDForAudioDeviceID(deviceID);
    if (!uid) {
        ZDR_AUDIO_LOG(audio, warning, "Could not find a device uniqueID for device with id: {}",
                      deviceID);
        return nullptr;
    }
    if (auto it = cls.registry.find(*uid); it != cls.registry.end()) return it->second;
    if (auto revived = reviveIfCameBack(*uid)) return revived;
    auto device = initWithCoreAudioDevice(deviceID);
    const std::string key = device->deviceUID();
    if (!key.empty()) {
        cls.registry[key] = device;
        ZDR_AUDIO_LOG(debug, info, "Added {} - it's alive!", device->description());
    }
    return device;
}

std::shared_ptr<AudioDevice> AudioDevice::deviceForCoreAudioUID(
    const std::optional<std::string>& uid) {
    if (!uid) return nullptr;
    if (auto found = lookupDeviceSingletonByDeviceUID(*uid)) return found;
    const AudioObjectID id = audioDeviceClass().hardware->translateUIDToDevice(*uid);
    if (id == kAudioObjectUnknown) return nullptr;
    return deviceForCoreAudioID(id);
}

std::vector<std::shared_ptr<AudioDevice>> AudioDevice::devices(bool isInput) {
    std::vector<std::shared_ptr<AudioDevice>> result;
    auto hardware = audioDeviceClass().hardware;
    try {
        CAHALAudioSystemObject system(hardware);
        for (AudioObjectID id : system.GetAudioDevices()) {
            if (id == kAudioObjectUnknown) continue;
            CAHALAudioDevice device(id, hardware);
            if (device.GetNumberStreams(isInput) == 0) continue;
            auto audioDevice = deviceForCoreAudioID(id);
            if (!audioDevice) {
                ZDR_AUDIO_LOG(audio, warning, "Attempted to get device ID {} ({}), got nil back",
                              id, device.CopyName());
                continue;
            }
            audioDevice->recordingChannelCount();
            audioDevice->playbackChannelCount();
            result.push_back(std::move(audioDevice));
        }
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(audio, warning, "Error getting list of devices: {}", e.GetError());
    }
    return result;
}

namespace {
std::shared_ptr<AudioDevice> defaultDevice(AudioObjectPropertySelector selector) {
    PropertyValue value;
    if (audioDeviceClass().hardware->getPropertyData(kAudioObjectSystemObject,
                                                     detail::systemAddress(selector), nullptr,
                                                     value) != kAudioHardwareNoError) {
        return nullptr;
    }
    const auto id = value.as<UInt32>();
    return id ? AudioDevice::deviceForCoreAudioID(*id) : nullptr;
}
}  // namespace

std::shared_ptr<AudioDevice> AudioDevice::systemOutputDevice() {
    return defaultDevice(kAudioHardwarePropertyDefaultSystemOutputDevice);
}
std::shared_ptr<AudioDevice> AudioDevice::defaultOutputDevice() {
    return defaultDevice(kAudioHardwarePropertyDefaultOutputDevice);
}
std::shared_ptr<AudioDevice> AudioDevice::defaultInputDevice() {
    return defaultDevice(kAudioHardwarePropertyDefaultInputDevice);
}

std::shared_ptr<AudioDevice> AudioDevice::proxiedDefaultSystemOutput() {
    constexpr const char* kProxyUID = "__ZDR:defaultSystemOutputAudioDeviceUniqueID";
    auto& cls = audioDeviceClass();
    std::lock_guard lock(cls.registryLock);
    if (auto it = cls.registry.find(kProxyUID); it != cls.registry.end()) return it->second;
    auto& factory = detail::proxyFactory();
    std::shared_ptr<AudioDevice> proxy =
        factory ? factory() : DefaultSystemOutputAudioDevice::initWithName("Default Output");
    if (proxy) cls.registry[kProxyUID] = proxy;
    return proxy;
}

void AudioDevice::setProxiedDefaultSystemOutputFactory(
    std::function<std::shared_ptr<AudioDevice>()> factory) {
    std::lock_guard lock(detail::initMutex());
    detail::proxyFactory() = std::move(factory);
}

std::vector<std::string> AudioDevice::applicationAudioCaptureDeviceIDs() {
    return {detail::kReelioUID, detail::kHALCaptureUID};
}

std::shared_ptr<AudioDevice> AudioDevice::ReelioAudioCaptureDevice() {
    if (audioDeviceClass().disappearTheAudioCaptureDriverRegardless.load()) return nullptr;
    return deviceForCoreAudioUID(std::string(detail::kReelioUID));
}
std::shared_ptr<AudioDevice> AudioDevice::zdrAudioCaptureHALDevice() {
    if (audioDeviceClass().disappearTheAudioCaptureDriverRegardless.load()) return nullptr;
    return deviceForCoreAudioUID(std::string(detail::kHALCaptureUID));
}
std::shared_ptr<AudioDevice> AudioDevice::zdrAudioCaptureHALPreviewDevice() {
    if (audioDeviceClass().disappearTheAudioCaptureDriverRegardless.load()) return nullptr;
    return deviceForCoreAudioUID(std::string(detail::kHiddenPreviewUID));
}

std::shared_ptr<AudioDevice> AudioDevice::designatedApplicationAudioDevice() {
    if (willUseNewZDRAudioHALDriver()) {
        if (auto device = zdrAudioCaptureHALDevice()) return device;
    }
    return ReelioAudioCaptureDevice();
}

std::shared_ptr<AudioDevice> AudioDevice::designatedApplicationAudioCapturePreviewDevice() {
    if (willUseNewZDRAudioHALDriver()) {
        if (haveOptedIntoUsingHALPreviewAsSource()) {
            if (auto preview = zdrAudioCaptureHALPreviewDevice()) return preview;
        }
        if (auto device = zdrAudioCaptureHALDevice()) return device;
    }
    return ReelioAudioCaptureDevice();
}

std::shared_ptr<AudioDevice> AudioDevice::firstNonAirplayAppleOutputDevice() {
    // The pattern "(apple|builtinspeakerdevice)", case-insensitive, is fixed,
    // so it is matched directly: nothing can fail to compile, and no regex
    // engine runs for each device.
    auto matches = [](std::string uid) {
        std::transform(uid.begin(), uid.end(), uid.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return uid.find("apple") != std::string::npos ||
               uid.find("builtinspeakerdevice") != std::string::npos;
    };
    for (const auto& device : outputDevices()) {
        if (device->isAirPlay()) continue;
        if (matches(device->deviceUID())) return device;
    }
    return nullptr;
}

void AudioDevice::useTheNewZDRAudioHALCaptureDevicePlease() {
    audioDeviceClass().useNewHALAudioDriver.store(true);
}
void AudioDevice::dontUseTheNewZDRAudioHALCaptureDevicePlease() {
    audioDeviceClass().useNewHALAudioDriver.store(false);
}
bool AudioDevice::willUseNewZDRAudioHALDriver() {
    return audioDeviceClass().useNewHALAudioDriver.load();
}
void AudioDevice::optIntoUsingHALPreviewAsSource() {
    audioDeviceClass().useNewHALAudioPreviewDriver.store(true);
}
void AudioDevice::optOutOfUsingHALPreviewAsSource() {
    audioDeviceClass().useNewHALAudioPreviewDriver.store(false);
}
bool AudioDevice::haveOptedIntoUsingHALPreviewAsSource() {
    return audioDeviceClass().useNewHALAudioPreviewDriver.load();
}

void AudioDevice::_debug_setAudioDriversExistDontReturnNil(bool exist) {
    audioDeviceClass().disappearTheAudioCaptureDriverRegardless.store(false);
    if (exist) NotificationCenter::defaultCenter()->post(kAudioDevicesChanged);
}

void AudioDevice::_debug_toggleExistenceOfAudioCaptureDriver() {
    auto& flag = audioDeviceClass().disappearTheAudioCaptureDriverRegardless;
    flag.store(!flag.load());
    NotificationCenter::defaultCenter()->post(kAudioDevicesChanged);
}

// ---------------------------------------------------------------------------
// The device-list handler

void AudioDevice::hardwarePropertyNotification(AudioObjectPropertySelector propertyID) {
    static constexpr const char* kFunction = "AudioDevice::HardwarePropertyNotification";
    auto& cls = audioDeviceClass();
    try {
        {
            std::lock_guard lock(cls.registryLock);
            std::vector<std::shared_ptr<AudioDevice>> snapshot;
            snapshot.reserve(cls.registry.size());
            for (const auto& [key, device] : cls.registry) snapshot.push_back(device);
            for (const auto& device : snapshot) {
                auto it = cls.registry.find(device->singletonKey());
                if (it == cls.registry.end() || it->second != device) continue;
                if (device->markAsDeadIfDeviceIsNotAlive()) {
                    ZDR_AUDIO_LOG_AT(audio, info, kFunction, "{} ({}/{}) has died",
                                     device->description(), fourCharString(propertyID),
                                     device->deviceID());
                }
            }
            std::vector<std::shared_ptr<AudioDevice>> dead;
            {
                auto& table = possiblyDead();
                std::lock_guard deadLock(table.lock);
                for (const auto& [key, device] : table.devices) dead.push_back(device);
            }
            for (const auto& device : dead) {
                if (!device->seeIfDeviceHasComeAliveAndGetNewDeviceID()) continue;
                ZDR_AUDIO_LOG_AT(audio, info, kFunction, "{} has come alive again",
                                 device->deviceDescriptionAndID());
                detail::postNotificationOnMain(kAudioDriverDeviceAliveAgain, device);
                auto& table = possiblyDead();
                std::lock_guard deadLock(table.lock);
                table.devices.erase(device->singletonKey());
            }
        }
        detail::postNotificationOnMain(kAudioDevicesChanged);
    } catch (const Exception& e) {
        ZDR_AUDIO_LOG_AT(audio, info, kFunction, "Error during hardware change notification, {}",
                         e.reason());
    }
}

// ---------------------------------------------------------------------------
// Plumbing and test hooks

DispatchQueue AudioDevice::notificationQueue() { return audioDeviceClass().queue; }

void AudioDevice::_test_resetRegistry(std::shared_ptr<AudioHardware> hardware) {
    std::vector<std::shared_ptr<AudioDevice>> released;
    std::lock_guard lock(detail::initMutex());
    if (auto* old = detail::gState.load(std::memory_order_acquire)) {
        detail::removeSystemListeners(*old);
        std::lock_guard registryLock(old->registryLock);
        for (auto& [key, device] : old->registry) released.push_back(device);
        old->registry.clear();
        std::lock_guard listeners(detail::listenerLock());
        old->globalAllDevicePropertyListenerBlocks.clear();
    }
    {
        auto& table = possiblyDead();
        std::lock_guard deadLock(table.lock);
        for (auto& [key, device] : table.devices) released.push_back(device);
        table.devices.clear();
    }
    AudioHardware::install(hardware);
    detail::initialise(std::move(hardware));
    // `released` goes here, outside the registry locks: destroying a device
    // removes its HAL listener.
}

std::size_t AudioDevice::_test_registeredCount() {
    auto& cls = audioDeviceClass();
    std::lock_guard lock(cls.registryLock);
    return cls.registry.size();
}

std::size_t AudioDevice::_test_possiblyDeadCount() {
    auto& table = possiblyDead();
    std::lock_guard lock(table.lock);
    return table.devices.size();
}

}  // namespace zdr
