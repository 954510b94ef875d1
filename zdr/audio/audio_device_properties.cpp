// AudioDevice: reading and writing device properties. Every getter answers a
// documented empty value on a HAL failure, so user-interface code may call
// them freely, also on a device that has just gone away.
#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "zdr/audio/audio_device.h"
#include "zdr/audio/audio_device_internal.h"
#include "zdr/audio/detail/audio_log.h"
#include "zdr/audio/hal/ca_hal_audio_stream.h"

namespace zdr {

using namespace hal;

namespace {
std::atomic<bool> gUsePropertiesCache{true};

AudioObjectPropertyAddress globalMain(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}
}  // namespace

std::string AudioDevice::deviceManufacturer() const {
    if (!coreAudioDevice_) return "Unknown. No CADevice";
    try {
        return coreAudioDevice_->CopyManufacturer();
    } catch (const CAException&) {
        return "Unknown. Prob getting device.";
    }
}

UInt32 AudioDevice::transportType() const {
    if (!coreAudioDevice_) return 0;
    try {
        return coreAudioDevice_->GetTransportType();
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Unable to get the transport type of {}. Error {}", deviceName(),
                      e.GetError());
        return 0;
    }
}

bool AudioDevice::isAirPlay() const {
    if (!coreAudioDevice_) return false;
    try {
        return coreAudioDevice_->GetTransportType() == kAudioDeviceTransportTypeAirPlay;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Unable to see if device is using AirPlay. Error {}",
                      e.GetError());
        return false;
    }
}

bool AudioDevice::isRunning() const {
    if (!coreAudioDevice_) return false;
    try {
        return coreAudioDevice_->IsRunning();
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Unable to see if device is running. Error {}", e.GetError());
        return false;
    }
}

Float64 AudioDevice::nominalSampleRate() const {
    if (!coreAudioDevice_) return 0.0;
    try {
        return coreAudioDevice_->GetNominalSampleRate();
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Cannot get the nominal sample rate for {}, error: {}",
                      deviceName(), e.GetError());
        return 0.0;
    }
}

bool AudioDevice::setNominalSampleRate(Float64 rate, Error* error) {
    // The same no-device text is reported for a HAL failure too; callers
    // match on it.
    auto fill = [error] {
        if (error) {
            *error = Error("ZDR Audio", 0,
                           {{kNSLocalizedDescriptionKey,
                             std::string("No device. Cannot set nominal sample rate")}});
        }
    };
    if (!coreAudioDevice_) {
        fill();
        return false;
    }
    try {
        coreAudioDevice_->SetNominalSampleRate(rate);
        return true;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Cannot set the nominal sample rate for {}, error: {}",
                      deviceName(), e.GetError());
        fill();
        return false;
    }
}

UInt32 AudioDevice::bufferSizeInFrames() const {
    if (!coreAudioDevice_) return 0;
    try {
        return coreAudioDevice_->GetIOBufferSize();
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error,
                      "Unable to get buffer size in frames for {}. Error: {}. Will return 0.",
                      deviceName(), e.GetError());
        return 0;
    }
}

UInt32 AudioDevice::deviceMaxVariableBufferSizeInFrames() const {
    if (!coreAudioDevice_) return 512;
    try {
        return coreAudioDevice_->GetMaximumVariableIOBufferSize();
    } catch (const CAException&) {
    }
    try {
        return coreAudioDevice_->GetIOBufferSize();
    } catch (const CAException&) {
        ZDR_AUDIO_LOG(app, warning,
                      "Cannot get variable IO buffer size, nor IO buffer size. Returning default "
                      "of 512");
        return 512;
    }
}

UInt32 AudioDevice::safetyOffset() const {
    // 512 is not a safety offset at all: it is the deliberate answer for a
    // device that is not in use.
    if (!isAlive() || !isRunning() || !coreAudioDevice_) return 512;
    UInt32 input = 0;
    try {
        input = coreAudioDevice_->GetSafetyOffset(true);
    } catch (const CAException&) {
        ZDR_AUDIO_LOG(debug, warning, "No safety offset for device {} - assuming 0", deviceName());
    }
    try {
        return std::max(input, coreAudioDevice_->GetSafetyOffset(false));
    } catch (const CAException&) {
        ZDR_AUDIO_LOG(debug, warning, "No playback offset for device {} - assuming 0",
                      deviceName());
        return input;
    }
}

bool AudioDevice::doesDeviceHaveStreams(bool isInput) const {
    if (!coreAudioDevice_) return false;
    try {
        return coreAudioDevice_->GetNumberStreams(isInput) > 0;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Unable to get the number of streams on device {}, error: {}",
                      deviceName(), e.GetError());
        return false;
    }
}

UInt32 AudioDevice::numberOfChannels(bool isInput) const {
    // Through the accessor: the default-output proxy answers its device's wrapper.
    auto* hal = coreAudioDevice();
    if (hal == nullptr) return 0;
    try {
        return hal->GetTotalNumberChannels(isInput);
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Cannot get the numberOfChannels for {}, error: {}", deviceName(),
                      e.GetError());
        return 0;
    }
}

UInt32 AudioDevice::numberOfChannelsForStream(bool isInput, UInt32 stream) const {
    if (!coreAudioDevice_) return 0;
    try {
        if (coreAudioDevice_->GetNumberStreams(isInput) == 0) return 0;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error,
                      "Unable to get the number of channels for section {} on device {}, error: {}",
                      isInput ? 1 : 0, deviceName(), e.GetError());
        return 0;
    }
    return _getAvailableVirtualFormat(stream, isInput).mChannelsPerFrame;
}

void AudioDevice::_getAvailableVirtualFormat(UInt32 streamIndex, bool isInput,
                                             AudioStreamBasicDescription* asbd) const {
    if (!coreAudioDevice_) return;
    try {
        const UInt32 count = coreAudioDevice_->GetNumberStreams(isInput);
        // Compared as floating point and truncated back, so that an empty
        // scope (count - 1 = -1) ends up reading index 0 and failing in the HAL.
        const double last = static_cast<double>(count) - 1.0;
        const double k = std::min(static_cast<double>(streamIndex), last);
        const auto index = static_cast<UInt32>(std::max(0.0, k));
        CAHALAudioStream stream(coreAudioDevice_->GetStreamByIndex(isInput, index),
                                coreAudioDevice_->hardware());
        // The stream index doubles as the format index, deliberately.
        const auto formats = stream.GetAvailableVirtualFormats();
        if (index >= formats.size()) throw CAException(kAudioHardwareBadPropertySizeError);
        if (asbd) *asbd = formats[index].mFormat;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error,
                      "Unable to get the _getAvailableVirtualFormat for stream {} on device {}, "
                      "error: {}",
                      streamIndex, deviceName(), e.GetError());
    }
}

AudioStreamBasicDescription AudioDevice::_getAvailableVirtualFormat(UInt32 streamIndex,
                                                                    bool isInput) const {
    AudioStreamBasicDescription asbd{};
    if (!doesDeviceHaveStreams(isInput)) {
        ZDR_AUDIO_LOG(app, error, "ITS A TRAP!");
    }
    _getAvailableVirtualFormat(streamIndex, isInput, &asbd);
    return asbd;
}

bool AudioDevice::audioStreamBasicDescription(bool forOutput,
                                              AudioStreamBasicDescription* asbd) const {
    if (!debugProtectCallFromDeadDevice() || !coreAudioDevice_ || !asbd) return false;
    const bool isInput = !forOutput;
    try {
        const auto streams = coreAudioDevice_->GetStreams(isInput);
        if (streams.empty()) return false;
        AudioStreamBasicDescription first{};
        for (std::size_t i = 0; i < streams.size(); ++i) {
            const auto format = CAHALAudioStream(streams[i], coreAudioDevice_->hardware())
                                    .GetCurrentVirtualFormat();
            if (i == 0) first = format;
        }
        first.mChannelsPerFrame = coreAudioDevice_->GetTotalNumberChannels(isInput);
        *asbd = first;
        return true;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Could not get stream format. err: {}", e.GetError());
        return false;
    }
}

bool AudioDevice::audioStreamBasicDescription(bool forOutput, UInt32 stream,
                                              AudioStreamBasicDescription* asbd) const {
    if (!debugProtectCallFromDeadDevice() || !coreAudioDevice_ || !asbd) return false;
    try {
        const bool isInput = !forOutput;
        const UInt32 count = coreAudioDevice_->GetNumberStreams(isInput);
        if (count == 0) throw CAException(kAudioHardwareBadStreamError);
        const UInt32 index = std::min(stream, count - 1);
        CAHALAudioStream s(coreAudioDevice_->GetStreamByIndex(isInput, index),
                           coreAudioDevice_->hardware());
        const auto formats = s.GetAvailableVirtualFormats();
        if (index >= formats.size()) throw CAException(kAudioHardwareBadPropertySizeError);
        *asbd = formats[index].mFormat;
        return true;
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Could not get stream format. err: {}", e.GetError());
        return false;
    }
}

std::optional<std::string> AudioDevice::nameOfDataSource(bool isInput) const {
    if (!debugProtectCallFromDeadDevice() || !coreAudioDevice_) return std::nullopt;
    const auto scope = scopeForIsInput(isInput);
    try {
        if (!coreAudioDevice_->HasDataSourceControl(scope, kAudioObjectPropertyElementMain)) {
            return std::nullopt;
        }
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error,
                      "Could not get name for datasource. Error during CA Access. Err: {}",
                      e.GetError());
        return std::nullopt;
    }
    try {
        const UInt32 id =
            coreAudioDevice_->GetCurrentDataSourceID(scope, kAudioObjectPropertyElementMain);
        if (id == 0) return std::nullopt;
        return coreAudioDevice_->CopyDataSourceNameForID(scope, kAudioObjectPropertyElementMain,
                                                         id);
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error, "Error getting name of the data source for input:{}, error: {}",
                      isInput ? 1 : 0, e.GetError());
        return std::nullopt;
    }
}

void AudioDevice::setDatasourceByName(const std::string& name, bool isInput) {
    if (!debugProtectCallFromDeadDevice() || !coreAudioDevice_) return;
    const auto scope = scopeForIsInput(isInput);
    const auto main = kAudioObjectPropertyElementMain;
    try {
        if (!coreAudioDevice_->HasDataSourceControl(scope, main) ||
            !coreAudioDevice_->DataSourceControlIsSettable(scope, main)) {
            return;
        }
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error,
                      "Could not set name for datasource. Error during CA Access. Err: {}",
                      e.GetError());
        return;
    }
    try {
        for (UInt32 id : coreAudioDevice_->GetAvailableDataSources(scope, main)) {
            if (coreAudioDevice_->CopyDataSourceNameForID(scope, main, id) == name) {
                coreAudioDevice_->SetCurrentDataSourceByID(scope, main, id);
                return;
            }
        }
    } catch (const CAException& e) {
        ZDR_AUDIO_LOG(app, error,
                      "Error setting the data source name for {} and section {}, error: {}", name,
                      isInput ? 1 : 0, e.GetError());
    }
}

bool AudioDevice::currentTime(AudioTimeStamp* time, Error* error) const {
    if (time == nullptr) throw Exception("Audio", "No timestamp provided");
    time->mFlags = kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid;
    OSStatus status = kAudioHardwareBadDeviceError;
    if (coreAudioDevice_) {
        status = coreAudioDevice_->hardware()->deviceGetCurrentTime(deviceID(), *time);
    }
    if (status != kAudioHardwareNoError && error) {
        *error = Error("Audio", 0,
                       {{kNSLocalizedDescriptionKey,
                         fmt::format("Error {} while getting AudioDeviceCurrentTime", status)}});
    }
    // Callers that pass no error pointer only look at the time stamp.
    return status == kAudioHardwareNoError || error == nullptr;
}

// ---------------------------------------------------------------------------
// Channel layouts

UInt32 AudioDevice::createDefaultChannelLayout(AudioChannelLayout* layout,
                                               bool useExistingChannelLabels, bool recordingSide) {
    if (layout == nullptr) {
        throw Exception("NoLayout",
                        "Cannot return a new audio channel layout, no pointer specified");
    }
    std::lock_guard lock(selfLock_);
    // Through the virtual accessors, so the default-output proxy describes
    // its device's channels. Counting first rebuilds a list whose size
    // changed; the read that follows already sees the rebuilt list.
    (void)(recordingSide ? recordingChannelCount() : playbackChannelCount());
    const ChannelList channels = recordingSide ? recordChannels() : playbackChannels();
    const auto n = static_cast<UInt32>(channels.size());
    AudioChannelLayout out;
    out.mChannelLayoutTag = kAudioChannelLayoutTag_UseChannelDescriptions;
    out.mChannelBitmap = 0;
    out.mChannelDescriptions.resize(n);
    for (UInt32 i = 0; i < n; ++i) {
        UInt32 label = kAudioChannelLabel_Discrete_0 + i;
        if (useExistingChannelLabels) {
            // A channel without a chosen label is described as unused (label 0).
            const auto selected = channels[i]->selectedLabel();
            label = selected ? selected->label() : kAudioChannelLabel_Unused;
        }
        out.mChannelDescriptions[i].mChannelLabel = label;
    }
    *layout = std::move(out);
    return sizeOfAudioChannelLayout(n);
}

UInt32 AudioDevice::currentRecordingChannelLayout(AudioChannelLayout* layout, bool recordingSide) {
    return createDefaultChannelLayout(layout, true, recordingSide);
}

UInt32 AudioDevice::monoChannelLayout(AudioChannelLayout* layout, bool recordingSide) {
    if (layout == nullptr) return 0;
    const UInt32 size = createDefaultChannelLayout(layout, false, recordingSide);
    for (auto& d : layout->mChannelDescriptions) d.mChannelLabel = kAudioChannelLabel_Mono;
    return size;
}

UInt32 AudioDevice::discreteChannelLayout(AudioChannelLayout* layout, bool recordingSide) {
    if (layout == nullptr) return 0;
    const UInt32 size = createDefaultChannelLayout(layout, false, recordingSide);
    for (UInt32 i = 0; i < layout->mChannelDescriptions.size(); ++i) {
        layout->mChannelDescriptions[i].mChannelLabel = kAudioChannelLabel_Discrete_0 + i;
    }
    return size;
}

UInt32 AudioDevice::preferredChannelLayout(AudioChannelLayout* layout, bool recordingSide) {
    if (layout == nullptr) {
        throw Exception("NoLayout",
                        "Cannot return a new audio channel layout, no pointer specified");
    }
    auto* device = coreAudioDevice();
    if (device == nullptr) return createDefaultChannelLayout(layout, false, recordingSide);
    auto& hw = *device->hardware();
    // The device's preferred layout, at the global scope and main element,
    // whichever side is asked about.
    const auto address = globalMain(kAudioDevicePropertyPreferredChannelLayout);
    UInt32 size = 0;
    OSStatus status = hw.getPropertyDataSize(deviceID(), address, nullptr, size);
    if (status == kAudioHardwareUnknownPropertyError) {
        return createDefaultChannelLayout(layout, false, recordingSide);
    }
    if (status != kAudioHardwareNoError) {
        throw Exception(
            "Device",
            fmt::format("Unable to get the preferred device channel layout size, {}", status));
    }
    PropertyValue value;
    status = hw.getPropertyData(deviceID(), address, nullptr, value);
    const auto* read = value.getIf<AudioChannelLayout>();
    if (status != kAudioHardwareNoError || read == nullptr) {
        throw Exception(
            "Device",
            fmt::format(
                "Unable to get the preferred device channel layout, {}",
                status != kAudioHardwareNoError ? status : kAudioHardwareBadPropertySizeError));
    }
    if (read->mChannelLayoutTag == kAudioChannelLayoutTag_UseChannelDescriptions) {
        // The record-side count is compared for either side, deliberately.
        if (read->numberChannelDescriptions() != recordingChannelCount()) {
            return createDefaultChannelLayout(layout, false, recordingSide);
        }
        const bool allUnknown =
            std::all_of(read->mChannelDescriptions.begin(), read->mChannelDescriptions.end(),
                        [](const AudioChannelDescription& d) {
                            return d.mChannelLabel == kAudioChannelLabel_Unknown;
                        });
        if (allUnknown) {
            ZDR_AUDIO_LOG(app, info,
                          "Device {} has a preferred channel map, but all channels are mapped to "
                          "'unknown' - using a default map",
                          deviceName());
            return createDefaultChannelLayout(layout, false, recordingSide);
        }
    }
    *layout = *read;
    return value.dataSize();
}

// ---------------------------------------------------------------------------
// Channel counts and the property cache

UInt32 AudioDevice::channelCount(bool isInput, const char* cacheKey) {
    if (haveCachedPropertyValueFor(cacheKey)) return cachedUInt32PropertyValueFor(cacheKey);
    std::lock_guard lock(selfLock_);
    // Counting rebuilds the side's channel list when the count changed.
    const UInt32 n = isInput ? channels_._checkAndRecreateRecordChannels(channelOwner())
                             : channels_._checkAndRecreatePlaybackChannels(channelOwner());
    setCacheProperty(cacheKey, n);
    return n;
}

UInt32 AudioDevice::recordingChannelCount() { return channelCount(true, "recordingChannelCount"); }
UInt32 AudioDevice::playbackChannelCount() { return channelCount(false, "playbackChannelCount"); }

bool AudioDevice::haveCachedPropertyValueFor(const std::string& key) const {
    if (!gUsePropertiesCache.load()) return false;
    std::lock_guard lock(fieldsMutex_);
    return propertiesCache_.count(key) != 0;
}

UInt32 AudioDevice::cachedUInt32PropertyValueFor(const std::string& key) const {
    std::lock_guard lock(fieldsMutex_);
    auto it = propertiesCache_.find(key);
    return it == propertiesCache_.end() ? 0 : it->second;
}

void AudioDevice::setCacheProperty(const std::string& key, UInt32 value) {
    std::lock_guard lock(fieldsMutex_);
    propertiesCache_[key] = value;
}

void AudioDevice::clearPropertyCacheWithName(const std::string& key) {
    std::lock_guard lock(fieldsMutex_);
    propertiesCache_.erase(key);
}

void AudioDevice::clearPropertiesCache() {
    std::lock_guard lock(fieldsMutex_);
    propertiesCache_ = {};
}

bool AudioDevice::use_propertiesCache() { return gUsePropertiesCache.load(); }
void AudioDevice::set_use_propertiesCache(bool on) { gUsePropertiesCache.store(on); }

const std::vector<std::string>& AudioDevice::defaultSampleRates() {
    // Leaked on purpose, like the property names: it may be read during exit.
    static const auto& rates = *new const std::vector<std::string>{
        "8000.0",  "11025.0", "12000.0", "16000.0", "22050.0", "24000.0", "32000.0",
        "44100.0", "48000.0", "64000.0", "88200.0", "96000.0", "192000.0"};
    return rates;
}

std::string AudioDevice::nameForPropertyID(AudioObjectPropertySelector selector) {
    // Leaked on purpose: listener notifications still running on pool threads
    // while the program exits ask for names after static destructors have run.
    static const auto& names =
        *new const std::unordered_map<AudioObjectPropertySelector, const char*>{
            {fourcc("plug"), "kAudioDevicePropertyPlugIn"},
            {fourcc("capp"), "kAudioDevicePropertyConfigurationApplication"},
            {fourcc("uid "), "kAudioDevicePropertyDeviceUID"},
            {fourcc("muid"), "kAudioDevicePropertyModelUID"},
            {fourcc("tran"), "kAudioDevicePropertyTransportType"},
            {fourcc("akin"), "kAudioDevicePropertyRelatedDevices"},
            {fourcc("clkd"), "kAudioDevicePropertyClockDomain"},
            {fourcc("livn"), "kAudioDevicePropertyDeviceIsAlive"},
            {fourcc("diff"), "kAudioDevicePropertyDeviceHasChanged"},
            {fourcc("goin"), "kAudioDevicePropertyDeviceIsRunning"},
            {fourcc("gone"), "kAudioDevicePropertyDeviceIsRunningSomewhere"},
            {fourcc("dflt"), "kAudioDevicePropertyDeviceCanBeDefaultDevice"},
            {fourcc("sflt"), "kAudioDevicePropertyDeviceCanBeDefaultSystemDevice"},
            {fourcc("over"), "kAudioDeviceProcessorOverload"},
            {fourcc("oink"), "kAudioDevicePropertyHogMode"},
            {fourcc("ltnc"), "kAudioDevicePropertyLatency"},
            {fourcc("fsiz"), "kAudioDevicePropertyBufferFrameSize"},
            {fourcc("fsz#"), "kAudioDevicePropertyBufferFrameSizeRange"},
            {fourcc("vfsz"), "kAudioDevicePropertyUsesVariableBufferFrameSizes"},
            {fourcc("stm#"), "kAudioDevicePropertyStreams"},
            {fourcc("saft"), "kAudioDevicePropertySafetyOffset"},
            {fourcc("ncyc"), "kAudioDevicePropertyIOCycleUsage"},
            {fourcc("slay"), "kAudioDevicePropertyStreamConfiguration"},
            {fourcc("suse"), "kAudioDevicePropertyIOProcStreamUsage"},
            {fourcc("dch2"), "kAudioDevicePropertyPreferredChannelsForStereo"},
            {fourcc("srnd"), "kAudioDevicePropertyPreferredChannelLayout"},
            {fourcc("nsrt"), "kAudioDevicePropertyNominalSampleRate"},
            {fourcc("nsr#"), "kAudioDevicePropertyAvailableNominalSampleRates"},
            {fourcc("asrt"), "kAudioDevicePropertyActualSampleRate"},
            {fourcc("icon"), "kAudioDevicePropertyIcon"},
            {fourcc("hidn"), "kAudioDevicePropertyIsHidden"},
            {fourcc("inpt"), "kAudioDevicePropertyScopeInput"},
            {fourcc("outp"), "kAudioDevicePropertyScopeOutput"},
            {fourcc("ptru"), "kAudioDevicePropertyScopePlayThrough"},
            {fourcc("vctf"), "kAudioDevicePropertyVolumeDecibelsToScalarTransferFunction"},
            {fourcc("mvtf"), "kAudioDevicePropertyPlayThruVolumeDecibelsToScalarTransferFunction"},
            {fourcc("isub"), "kAudioDevicePropertyDriverShouldOwniSub"},
            {fourcc("svtf"), "kAudioDevicePropertySubVolumeDecibelsToScalarTransferFunction"},
            {fourcc("name"), "kAudioDevicePropertyDeviceName"},
            {fourcc("lnam"), "kAudioDevicePropertyDeviceNameCFString"},
            {fourcc("makr"), "kAudioDevicePropertyDeviceManufacturer"},
            {fourcc("lmak"), "kAudioDevicePropertyDeviceManufacturerCFString"},
            {fourcc("rbuf"), "kAudioDevicePropertyRegisterBufferList"},
            {fourcc("bsiz"), "kAudioDevicePropertyBufferSize"},
            {fourcc("bsz#"), "kAudioDevicePropertyBufferSizeRange"},
            {fourcc("chnm"), "kAudioDevicePropertyChannelName"},
            {fourcc("lchn"), "kAudioDevicePropertyChannelNameCFString"},
            {fourcc("ccnm"), "kAudioDevicePropertyChannelCategoryName"},
            {fourcc("lccn"), "kAudioDevicePropertyChannelCategoryNameCFString"},
            {fourcc("cnnm"), "kAudioDevicePropertyChannelNumberName"},
            {fourcc("lcnn"), "kAudioDevicePropertyChannelNumberNameCFString"},
            {fourcc("mix?"), "kAudioDevicePropertySupportsMixing"},
            {fourcc("sfmt"), "kAudioDevicePropertyStreamFormat"},
            {fourcc("sfm#"), "kAudioDevicePropertyStreamFormats"},
            {fourcc("sfm?"), "kAudioDevicePropertyStreamFormatSupported"},
            {fourcc("sfmm"), "kAudioDevicePropertyStreamFormatMatch"},
            {fourcc("cscn"), "kAudioDevicePropertyClockSourceNameForID"},
            {fourcc("mddn"), "kAudioDevicePropertyPlayThruDestinationNameForID"},
            {fourcc("cnlv"), "kAudioDevicePropertyChannelNominalLineLevelNameForID"},
            {fourcc("chip"), "kAudioDevicePropertyHighPassFilterSettingNameForID"},
            {fourcc("volm"), "kAudioDevicePropertyVolumeScalar"},
            {fourcc("vold"), "kAudioDevicePropertyVolumeDecibels"},
        };
    auto it = names.find(selector);
    if (it != names.end()) return it->second;
    return "[Unknown: '" + fourCharString(selector) + "']";
}

}  // namespace zdr
