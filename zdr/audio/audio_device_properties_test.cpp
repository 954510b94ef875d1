// Device properties: values, the defaults answered on failure, layouts,
// data sources, the clock, the cache and the selector-name table.
#include "zdr/audio/audio_device.h"
#include "zdr/audio/audio_device_test_support.h"

namespace zdr {
namespace {

using namespace hal;
using testing::AudioDeviceTest;
using Properties = AudioDeviceTest;

std::shared_ptr<AudioDevice> get(const char* uid) {
    return AudioDevice::deviceForCoreAudioUID(std::string(uid));
}

TEST_F(Properties, IdentityTransportAndRates) {
    auto speakers = get(kSpeakers);
    EXPECT_EQ(speakers->deviceManufacturer(), "Apple Inc.");
    EXPECT_FALSE(speakers->isAirPlay());
    EXPECT_TRUE(get("AirPlay:Living Room:6C:4A:85:12:34:56")->isAirPlay());
    EXPECT_DOUBLE_EQ(speakers->nominalSampleRate(), 48000.0);
    Error error;
    EXPECT_TRUE(speakers->setNominalSampleRate(96000.0, &error));
    EXPECT_DOUBLE_EQ(speakers->nominalSampleRate(), 96000.0);
    EXPECT_FALSE(speakers->setNominalSampleRate(12345.0, &error));
    EXPECT_EQ(error.domain, "ZDR Audio");
    EXPECT_EQ(error.localizedDescription(), "No device. Cannot set nominal sample rate");
    EXPECT_EQ(logsContaining("Cannot set the nominal sample rate for Built-in Speakers, error: " +
                             std::to_string(kAudioDeviceUnsupportedFormatError))
                  .size(),
              1u);
    EXPECT_EQ(speakers->bufferSizeInFrames(), 512u);
    EXPECT_EQ(speakers->deviceMaxVariableBufferSizeInFrames(), 512u);  // fixed sizes
    EXPECT_EQ(get(kHeadset)->deviceMaxVariableBufferSizeInFrames(), 1024u);
    EXPECT_EQ(AudioDevice::defaultSampleRates().size(), 13u);
    EXPECT_EQ(AudioDevice::defaultSampleRates().front(), "8000.0");
    EXPECT_EQ(AudioDevice::defaultSampleRates().back(), "192000.0");
}

TEST_F(Properties, FailuresAnswerTheDocumentedDefaults) {
    auto speakers = get(kSpeakers);
    hw_->failNextCall(kSpeakers, kAudioObjectPropertyManufacturer, kAudioHardwareNotReadyError);
    EXPECT_EQ(speakers->deviceManufacturer(), "Unknown. Prob getting device.");
    hw_->failNextCall(kSpeakers, kAudioDevicePropertyNominalSampleRate,
                      kAudioHardwareNotReadyError);
    EXPECT_EQ(speakers->nominalSampleRate(), 0.0);
    hw_->failNextCall(kSpeakers, kAudioDevicePropertyBufferFrameSize, kAudioHardwareNotReadyError);
    EXPECT_EQ(speakers->bufferSizeInFrames(), 0u);
    hw_->failNextCall(kSpeakers, kAudioDevicePropertyBufferFrameSize, kAudioHardwareNotReadyError);
    EXPECT_EQ(speakers->deviceMaxVariableBufferSizeInFrames(), 512u);
    EXPECT_EQ(logsContaining("nor IO buffer size. Returning default of 512").size(), 1u);
    hw_->failNextCall(kSpeakers, kAudioDevicePropertyStreams, kAudioHardwareNotReadyError);
    EXPECT_FALSE(speakers->doesDeviceHaveStreams(false));
    hw_->failNextCall(kSpeakers, kAudioDevicePropertyStreamConfiguration,
                      kAudioHardwareNotReadyError);
    EXPECT_EQ(speakers->numberOfChannels(false), 0u);
    hw_->failNextCall(kSpeakers, kAudioDevicePropertyTransportType, kAudioHardwareNotReadyError);
    EXPECT_FALSE(speakers->isAirPlay());
    EXPECT_EQ(logsContaining("Unable to see if device is using AirPlay. Error").size(), 1u);

    // A device that has vanished answers defaults too, without throwing.
    hw_->unplugDevice(kHDMI);
    hw_->restartServer();  // the old object ID is now unknown to the server
    auto stale = AudioDevice::initWithCoreAudioDevice(idOf(kHDMI) + 1000);
    EXPECT_EQ(stale->nominalSampleRate(), 0.0);
    EXPECT_FALSE(stale->isAlive());
    EXPECT_EQ(stale->safetyOffset(), 512u);
}

TEST_F(Properties, SafetyOffsetIsTheLargerSideOfARunningDevice) {
    SimulatedDeviceSpec spec;
    spec.uid = "duplex";
    spec.name = "Duplex";
    spec.input.streamChannels = {2};
    spec.output.streamChannels = {2};
    spec.input.safetyOffset = 24;
    spec.output.safetyOffset = 32;
    hw_->addDevice(spec);
    auto device = get("duplex");
    EXPECT_EQ(device->safetyOffset(), 512u);  // alive but not running
    hw_->setRunning("duplex", true);
    EXPECT_EQ(device->safetyOffset(), 32u);
    hw_->failNextCall("duplex", kAudioDevicePropertySafetyOffset, kAudioHardwareNotReadyError);
    EXPECT_EQ(device->safetyOffset(), 32u);  // input unreadable: assumed 0
    EXPECT_EQ(logsContaining("No safety offset for device Duplex - assuming 0").size(), 1u);
}

TEST_F(Properties, StreamsChannelsAndFormats) {
    auto headset = get(kHeadset);
    EXPECT_TRUE(headset->doesDeviceHaveStreams(true));
    EXPECT_EQ(headset->numberOfChannels(true), 1u);
    EXPECT_EQ(headset->numberOfChannels(false), 2u);
    EXPECT_EQ(headset->numberOfChannelsForStream(false, 0), 2u);
    EXPECT_EQ(headset->recordingChannelCount(), 1u);
    EXPECT_EQ(headset->playbackChannelCount(), 2u);

    AudioStreamBasicDescription asbd{};
    ASSERT_TRUE(headset->audioStreamBasicDescription(true, &asbd));
    EXPECT_EQ(asbd.mChannelsPerFrame, 2u);
    EXPECT_EQ(asbd.mBitsPerChannel, 16u);
    EXPECT_DOUBLE_EQ(asbd.mSampleRate, 44100.0);
    EXPECT_FALSE(headset->audioStreamBasicDescription(true, nullptr));
    EXPECT_FALSE(get(kMic)->audioStreamBasicDescription(true, &asbd));  // no output streams

    // Stream index 5 on a scope with two streams reads stream 1, format 1.
    SimulatedDeviceSpec spec;
    spec.uid = "two-streams";
    spec.name = "Two streams";
    spec.availableSampleRates = {44100.0, 48000.0};
    spec.input.streamChannels = {2, 4};
    hw_->addDevice(spec);
    auto two = get("two-streams");
    AudioStreamBasicDescription f{};
    two->_getAvailableVirtualFormat(5, true, &f);
    EXPECT_EQ(f.mChannelsPerFrame, 4u);
    EXPECT_DOUBLE_EQ(f.mSampleRate, 48000.0);
    EXPECT_EQ(two->_getAvailableVirtualFormat(0, false).mChannelsPerFrame, 0u);  // no output
    EXPECT_EQ(logsContaining("ITS A TRAP!").size(), 1u);
}

TEST_F(Properties, DataSourcesByName) {
    auto speakers = get(kSpeakers);
    EXPECT_EQ(speakers->currentPlaybackDatasource(), "Internal Speakers");
    speakers->setCurrentPlaybackDatasource("Headphones");
    EXPECT_EQ(speakers->currentPlaybackDatasource(), "Headphones");
    speakers->setCurrentPlaybackDatasource("No such source");
    EXPECT_EQ(speakers->currentPlaybackDatasource(), "Headphones");
    EXPECT_FALSE(speakers->currentRecordingDatasource().has_value());  // no input control
    EXPECT_EQ(get(kMic)->currentRecordingDatasource(), "Internal Microphone");

    hw_->failNextCall(kSpeakers, kAudioDevicePropertyDataSource, kAudioHardwareNotReadyError);
    EXPECT_FALSE(speakers->currentPlaybackDatasource().has_value());
    EXPECT_EQ(logsContaining("Error getting name of the data source for input:0, error: ").size(),
              1u);
}

TEST_F(Properties, ChannelLayouts) {
    EXPECT_EQ(AudioDevice::sizeOfAudioChannelLayout(0), 32u);
    EXPECT_EQ(AudioDevice::sizeOfAudioChannelLayout(2), 72u);
    auto mic = get(kMic);
    EXPECT_THROW(mic->preferredChannelLayout(nullptr, true), Exception);
    EXPECT_THROW(mic->createDefaultChannelLayout(nullptr, false, true), Exception);
    EXPECT_EQ(mic->monoChannelLayout(nullptr, true), 0u);

    AudioChannelLayout layout;
    // No preferred layout: a default, discrete one.
    EXPECT_EQ(mic->preferredChannelLayout(&layout, true), 72u);
    ASSERT_EQ(layout.numberChannelDescriptions(), 2u);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Discrete_0 + 1);
    EXPECT_EQ(mic->monoChannelLayout(&layout, true), 72u);
    EXPECT_EQ(layout.mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Mono);

    // A layout with all-unknown labels is replaced by a default one, with a note.
    AudioChannelLayout unknown;
    unknown.mChannelDescriptions.resize(2);
    hw_->changeProperty(
        kMic, {kAudioDevicePropertyPreferredChannelLayout, kAudioObjectPropertyScopeGlobal, 0},
        PropertyValue(unknown));
    EXPECT_EQ(mic->preferredChannelLayout(&layout, true), 72u);
    EXPECT_EQ(layout.mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Discrete_0);
    EXPECT_EQ(logsContaining("all channels are mapped to 'unknown'").size(), 1u);

    // A real stereo layout is handed out as read.
    AudioChannelLayout stereo = unknown;
    stereo.mChannelDescriptions[0].mChannelLabel = kAudioChannelLabel_Left;
    stereo.mChannelDescriptions[1].mChannelLabel = kAudioChannelLabel_Right;
    hw_->changeProperty(
        kMic, {kAudioDevicePropertyPreferredChannelLayout, kAudioObjectPropertyScopeGlobal, 0},
        PropertyValue(stereo));
    // The device's layout is read at the global scope, not the side's.
    AudioChannelLayout other = stereo;
    other.mChannelDescriptions[0].mChannelLabel = kAudioChannelLabel_Center;
    other.mChannelDescriptions[1].mChannelLabel = kAudioChannelLabel_LFEScreen;
    hw_->changeProperty(
        kMic, {kAudioDevicePropertyPreferredChannelLayout, kAudioObjectPropertyScopeInput, 0},
        PropertyValue(other));
    EXPECT_EQ(mic->preferredChannelLayout(&layout, true), 52u);
    EXPECT_EQ(layout.mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Left);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Right);
    // The description count is compared with the record side even for
    // playback: the speakers (no record channels) get a default layout.
    auto speakers = get(kSpeakers);
    EXPECT_EQ(speakers->preferredChannelLayout(&layout, false), 72u);
    EXPECT_EQ(layout.mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Discrete_0);

    hw_->failNextCall(kSpeakers, kAudioDevicePropertyPreferredChannelLayout,
                      kAudioHardwareNotReadyError);
    EXPECT_THROW(speakers->preferredChannelLayout(&layout, false), Exception);
}

TEST_F(Properties, DefaultLayoutUsesTheChannelsChosenLabelsWhenAsked) {
    auto mic = get(kMic);
    ASSERT_EQ(mic->recordingChannelCount(), 2u);
    auto channels = mic->recordChannels();
    ASSERT_EQ(channels.size(), 2u);
    channels[0]->setSelectedLabel(ChannelLabel::left());
    channels[1]->setSelectedLabel(ChannelLabel::right());

    AudioChannelLayout layout;
    EXPECT_EQ(mic->createDefaultChannelLayout(&layout, true, true), 72u);
    ASSERT_EQ(layout.numberChannelDescriptions(), 2u);
    EXPECT_EQ(layout.mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Left);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Right);
    EXPECT_EQ(mic->currentRecordingChannelLayout(&layout, true), 72u);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Right);

    // Without existing labels: discrete ones, whatever was chosen.
    mic->createDefaultChannelLayout(&layout, false, true);
    EXPECT_EQ(layout.mChannelDescriptions[0].mChannelLabel, kAudioChannelLabel_Discrete_0);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Discrete_0 + 1);

    // A mono device describes every channel as mono; a channel without a
    // chosen label as unused.
    mic->setMono(true);
    mic->createDefaultChannelLayout(&layout, true, true);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Mono);
    mic->setMono(false);
    channels[1]->setSelectedLabel(nullptr);
    mic->createDefaultChannelLayout(&layout, true, true);
    EXPECT_EQ(layout.mChannelDescriptions[1].mChannelLabel, kAudioChannelLabel_Unused);
}

TEST_F(Properties, DeviceClock) {
    auto mic = get(kMic);
    AudioTimeStamp ts;
    EXPECT_THROW(mic->currentTime(nullptr, nullptr), Exception);
    Error error;
    EXPECT_FALSE(mic->currentTime(&ts, &error));  // not running
    EXPECT_EQ(error.domain, "Audio");
    EXPECT_EQ(error.localizedDescription(), "Error " +
                                                std::to_string(kAudioHardwareNotRunningError) +
                                                " while getting AudioDeviceCurrentTime");
    EXPECT_TRUE(mic->currentTime(&ts, nullptr));  // no error pointer: always true
    hw_->setRunning(kMic, true);
    EXPECT_TRUE(mic->currentTime(&ts, &error));
    EXPECT_EQ(ts.mFlags, kAudioTimeStampSampleHostTimeValid);
    EXPECT_GT(ts.mHostTime, 0u);
}

TEST_F(Properties, CacheCanBeSwitchedOff) {
    auto mic = get(kMic);
    mic->recordingChannelCount();
    const auto before = hw_->callCount();
    mic->recordingChannelCount();
    EXPECT_EQ(hw_->callCount(), before);
    AudioDevice::set_use_propertiesCache(false);
    mic->recordingChannelCount();
    mic->recordingChannelCount();
    AudioDevice::set_use_propertiesCache(true);
    EXPECT_EQ(hw_->callCount(), before + 2);
    mic->setCacheProperty("x", 7);
    EXPECT_EQ(mic->cachedUInt32PropertyValueFor("x"), 7u);
    mic->clearPropertyCacheWithName("x");
    EXPECT_FALSE(mic->haveCachedPropertyValueFor("x"));
}

TEST(PropertyNames, KnownSelectorsAndTheUnknownText) {
    EXPECT_EQ(AudioDevice::nameForPropertyID(kAudioDeviceProcessorOverload),
              "kAudioDeviceProcessorOverload");
    EXPECT_EQ(AudioDevice::nameForPropertyID(fourcc("inpt")), "kAudioDevicePropertyScopeInput");
    EXPECT_EQ(AudioDevice::nameForPropertyID(fourcc("lnam")),
              "kAudioDevicePropertyDeviceNameCFString");
    EXPECT_EQ(AudioDevice::nameForPropertyID(fourcc("abcd")), "[Unknown: 'abcd']");
    EXPECT_EQ(AudioDevice::nameForPropertyID(0), "[Unknown: '....']");
}

}  // namespace
}  // namespace zdr
