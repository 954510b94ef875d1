// The hardware access layer's vocabulary: object IDs, property addresses
// (selector, scope, element), statuses, and the real four-character values of
// every selector, scope, status, transport type and format the audio layer
// uses, together with the plain records that property values are made of
// (stream descriptions, value ranges, channel layouts, time stamps).
//
// The values are those of the platform HAL that this layer stands in for, so
// that logs, property-name tables and saved settings read the same on every
// platform. A backend (simulated, PulseAudio) answers in these terms.
//
// Thread safety: constants and value types only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zdr::hal {

using AudioObjectID = std::uint32_t;
using AudioObjectPropertySelector = std::uint32_t;
using AudioObjectPropertyScope = std::uint32_t;
using AudioObjectPropertyElement = std::uint32_t;
using OSStatus = std::int32_t;
using UInt32 = std::uint32_t;
using Float32 = float;
using Float64 = double;
using AudioFormatID = std::uint32_t;
using AudioChannelLabel = std::uint32_t;
using AudioChannelLayoutTag = std::uint32_t;

/// A four-character code as the HAL spells it: 'dev#' is fourcc("dev#").
constexpr std::uint32_t fourcc(const char (&s)[5]) {
    return (static_cast<std::uint32_t>(static_cast<unsigned char>(s[0])) << 24) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(s[1])) << 16) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(s[2])) << 8) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(s[3]));
}

/// The four characters of a code in reading order ("dev#"); bytes that are not
/// printable are shown as '.' so the text is always safe to log.
std::string fourCharString(std::uint32_t code);

/// A status in the way the HAL's own tools print it: "'who?'" for a printable
/// four-character code, else the decimal number.
std::string statusString(OSStatus status);

struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector = 0;
    AudioObjectPropertyScope mScope = 0;
    AudioObjectPropertyElement mElement = 0;

    friend bool operator==(const AudioObjectPropertyAddress&,
                           const AudioObjectPropertyAddress&) = default;
};

// ---- Objects and wildcards ----
inline constexpr AudioObjectID kAudioObjectUnknown = 0;
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;
inline constexpr AudioObjectPropertySelector kAudioObjectPropertySelectorWildcard = fourcc("****");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeWildcard = fourcc("****");
inline constexpr AudioObjectPropertyElement kAudioObjectPropertyElementWildcard = 0xFFFFFFFFu;
inline constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

// ---- Scopes ----
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = fourcc("glob");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeInput = fourcc("inpt");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeOutput = fourcc("outp");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopePlayThrough = fourcc("ptru");
inline constexpr AudioObjectPropertyScope kAudioDevicePropertyScopeInput = fourcc("inpt");
inline constexpr AudioObjectPropertyScope kAudioDevicePropertyScopeOutput = fourcc("outp");
inline constexpr AudioObjectPropertyScope kAudioDevicePropertyScopePlayThrough = fourcc("ptru");

// ---- Statuses ----
inline constexpr OSStatus kAudioHardwareNoError = 0;
inline constexpr OSStatus kAudioHardwareNotRunningError = static_cast<OSStatus>(fourcc("stop"));
inline constexpr OSStatus kAudioHardwareUnspecifiedError = static_cast<OSStatus>(fourcc("what"));
inline constexpr OSStatus kAudioHardwareUnknownPropertyError =
    static_cast<OSStatus>(fourcc("who?"));
inline constexpr OSStatus kAudioHardwareBadPropertySizeError =
    static_cast<OSStatus>(fourcc("!siz"));
inline constexpr OSStatus kAudioHardwareIllegalOperationError =
    static_cast<OSStatus>(fourcc("nope"));
inline constexpr OSStatus kAudioHardwareBadObjectError = static_cast<OSStatus>(fourcc("!obj"));
inline constexpr OSStatus kAudioHardwareBadDeviceError = static_cast<OSStatus>(fourcc("!dev"));
inline constexpr OSStatus kAudioHardwareBadStreamError = static_cast<OSStatus>(fourcc("!str"));
inline constexpr OSStatus kAudioHardwareUnsupportedOperationError =
    static_cast<OSStatus>(fourcc("unop"));
inline constexpr OSStatus kAudioHardwareNotReadyError = static_cast<OSStatus>(fourcc("nrdy"));
inline constexpr OSStatus kAudioDeviceUnsupportedFormatError =
    static_cast<OSStatus>(fourcc("!dat"));
inline constexpr OSStatus kAudioDevicePermissionsError = static_cast<OSStatus>(fourcc("!hog"));

// ---- Object properties ----
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyClass = fourcc("clas");
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyOwner = fourcc("stdv");
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyName = fourcc("lnam");
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyManufacturer = fourcc("lmak");
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyOwnedObjects = fourcc("ownd");

// ---- System object properties ----
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices = fourcc("dev#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultInputDevice =
    fourcc("dIn ");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultOutputDevice =
    fourcc("dOut");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultSystemOutputDevice =
    fourcc("sOut");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyTranslateUIDToDevice =
    fourcc("uidd");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyServiceRestarted =
    fourcc("srst");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyIsInitingOrExiting =
    fourcc("inot");

// ---- Device properties ----
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyPlugIn = fourcc("plug");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyConfigurationApplication =
    fourcc("capp");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID = fourcc("uid ");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyModelUID = fourcc("muid");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyTransportType = fourcc("tran");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyRelatedDevices = fourcc("akin");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyClockDomain = fourcc("clkd");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceIsAlive = fourcc("livn");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceHasChanged = fourcc("diff");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceIsRunning = fourcc("goin");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceIsRunningSomewhere =
    fourcc("gone");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceCanBeDefaultDevice =
    fourcc("dflt");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceCanBeDefaultSystemDevice =
    fourcc("sflt");
inline constexpr AudioObjectPropertySelector kAudioDeviceProcessorOverload = fourcc("over");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyHogMode = fourcc("oink");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyLatency = fourcc("ltnc");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferFrameSize = fourcc("fsiz");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferFrameSizeRange =
    fourcc("fsz#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyUsesVariableBufferFrameSizes =
    fourcc("vfsz");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreams = fourcc("stm#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertySafetyOffset = fourcc("saft");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyIOCycleUsage = fourcc("ncyc");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamConfiguration =
    fourcc("slay");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyIOProcStreamUsage = fourcc("suse");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyPreferredChannelsForStereo =
    fourcc("dch2");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyPreferredChannelLayout =
    fourcc("srnd");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyNominalSampleRate = fourcc("nsrt");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyAvailableNominalSampleRates =
    fourcc("nsr#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyActualSampleRate = fourcc("asrt");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyIcon = fourcc("icon");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyIsHidden = fourcc("hidn");
inline constexpr AudioObjectPropertySelector
    kAudioDevicePropertyVolumeDecibelsToScalarTransferFunction = fourcc("vctf");
inline constexpr AudioObjectPropertySelector
    kAudioDevicePropertyPlayThruVolumeDecibelsToScalarTransferFunction = fourcc("mvtf");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDriverShouldOwniSub =
    fourcc("isub");
inline constexpr AudioObjectPropertySelector
    kAudioDevicePropertySubVolumeDecibelsToScalarTransferFunction = fourcc("svtf");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceName = fourcc("name");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceNameCFString =
    fourcc("lnam");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceManufacturer =
    fourcc("makr");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceManufacturerCFString =
    fourcc("lmak");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyRegisterBufferList =
    fourcc("rbuf");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferSize = fourcc("bsiz");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyBufferSizeRange = fourcc("bsz#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyChannelName = fourcc("chnm");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyChannelNameCFString =
    fourcc("lchn");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyChannelCategoryName =
    fourcc("ccnm");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyChannelCategoryNameCFString =
    fourcc("lccn");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyChannelNumberName = fourcc("cnnm");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyChannelNumberNameCFString =
    fourcc("lcnn");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertySupportsMixing = fourcc("mix?");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamFormat = fourcc("sfmt");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamFormats = fourcc("sfm#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamFormatSupported =
    fourcc("sfm?");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamFormatMatch = fourcc("sfmm");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyClockSourceNameForID =
    fourcc("cscn");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyPlayThruDestinationNameForID =
    fourcc("mddn");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyChannelNominalLineLevelNameForID =
    fourcc("cnlv");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyHighPassFilterSettingNameForID =
    fourcc("chip");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyVolumeScalar = fourcc("volm");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyVolumeDecibels = fourcc("vold");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyVolumeRangeDecibels =
    fourcc("vdb#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyMute = fourcc("mute");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDataSource = fourcc("ssrc");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDataSources = fourcc("ssc#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDataSourceNameForIDCFString =
    fourcc("lscn");

// ---- Stream properties ----
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyIsActive = fourcc("sact");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyDirection = fourcc("sdir");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyTerminalType = fourcc("term");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyStartingChannel = fourcc("schn");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyLatency = fourcc("ltnc");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyVirtualFormat = fourcc("sfmt");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyAvailableVirtualFormats =
    fourcc("sfma");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyPhysicalFormat = fourcc("pft ");
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyAvailablePhysicalFormats =
    fourcc("pfta");

// ---- Transport types ----
inline constexpr UInt32 kAudioDeviceTransportTypeUnknown = 0;
inline constexpr UInt32 kAudioDeviceTransportTypeBuiltIn = fourcc("bltn");
inline constexpr UInt32 kAudioDeviceTransportTypeAggregate = fourcc("grup");
inline constexpr UInt32 kAudioDeviceTransportTypeVirtual = fourcc("virt");
inline constexpr UInt32 kAudioDeviceTransportTypePCI = fourcc("pci ");
inline constexpr UInt32 kAudioDeviceTransportTypeUSB = fourcc("usb ");
inline constexpr UInt32 kAudioDeviceTransportTypeFireWire = fourcc("1394");
inline constexpr UInt32 kAudioDeviceTransportTypeBluetooth = fourcc("blue");
inline constexpr UInt32 kAudioDeviceTransportTypeBluetoothLE = fourcc("blea");
inline constexpr UInt32 kAudioDeviceTransportTypeHDMI = fourcc("hdmi");
inline constexpr UInt32 kAudioDeviceTransportTypeDisplayPort = fourcc("dprt");
inline constexpr UInt32 kAudioDeviceTransportTypeAirPlay = fourcc("airp");
inline constexpr UInt32 kAudioDeviceTransportTypeAVB = fourcc("eavb");
inline constexpr UInt32 kAudioDeviceTransportTypeThunderbolt = fourcc("thun");

// ---- Formats ----
inline constexpr AudioFormatID kAudioFormatLinearPCM = fourcc("lpcm");
inline constexpr UInt32 kAudioFormatFlagIsFloat = 1u << 0;
inline constexpr UInt32 kAudioFormatFlagIsBigEndian = 1u << 1;
inline constexpr UInt32 kAudioFormatFlagIsSignedInteger = 1u << 2;
inline constexpr UInt32 kAudioFormatFlagIsPacked = 1u << 3;
inline constexpr UInt32 kAudioFormatFlagIsNonInterleaved = 1u << 5;

// ---- Channel labels and layout tags ----
inline constexpr AudioChannelLabel kAudioChannelLabel_Unknown = 0xFFFFFFFFu;
inline constexpr AudioChannelLabel kAudioChannelLabel_Unused = 0;
inline constexpr AudioChannelLabel kAudioChannelLabel_Left = 1;
inline constexpr AudioChannelLabel kAudioChannelLabel_Right = 2;
inline constexpr AudioChannelLabel kAudioChannelLabel_Center = 3;
inline constexpr AudioChannelLabel kAudioChannelLabel_LFEScreen = 4;
inline constexpr AudioChannelLabel kAudioChannelLabel_LeftSurround = 5;
inline constexpr AudioChannelLabel kAudioChannelLabel_RightSurround = 6;
inline constexpr AudioChannelLabel kAudioChannelLabel_LeftCenter = 7;
inline constexpr AudioChannelLabel kAudioChannelLabel_RightCenter = 8;
inline constexpr AudioChannelLabel kAudioChannelLabel_CenterSurround = 9;
inline constexpr AudioChannelLabel kAudioChannelLabel_LeftSurroundDirect = 10;
inline constexpr AudioChannelLabel kAudioChannelLabel_RightSurroundDirect = 11;
inline constexpr AudioChannelLabel kAudioChannelLabel_TopCenterSurround = 12;
inline constexpr AudioChannelLabel kAudioChannelLabel_RearSurroundLeft = 33;
inline constexpr AudioChannelLabel kAudioChannelLabel_RearSurroundRight = 34;
inline constexpr AudioChannelLabel kAudioChannelLabel_Mono = 42;
inline constexpr AudioChannelLabel kAudioChannelLabel_Discrete_0 = (1u << 16) | 0;

inline constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_UseChannelDescriptions = 0;
inline constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_UseChannelBitmap = 1u << 16;
inline constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Mono = (100u << 16) | 1;
inline constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Stereo = (101u << 16) | 2;

// ---- Time stamps ----
inline constexpr UInt32 kAudioTimeStampSampleTimeValid = 1u << 0;
inline constexpr UInt32 kAudioTimeStampHostTimeValid = 1u << 1;
inline constexpr UInt32 kAudioTimeStampRateScalarValid = 1u << 2;
inline constexpr UInt32 kAudioTimeStampWordClockTimeValid = 1u << 3;
inline constexpr UInt32 kAudioTimeStampSMPTETimeValid = 1u << 4;
inline constexpr UInt32 kAudioTimeStampSampleHostTimeValid =
    kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid;

// ---- Records ----

/// One stream format (the HAL's AudioStreamBasicDescription, 40 bytes there).
struct AudioStreamBasicDescription {
    Float64 mSampleRate = 0.0;
    AudioFormatID mFormatID = 0;
    UInt32 mFormatFlags = 0;
    UInt32 mBytesPerPacket = 0;
    UInt32 mFramesPerPacket = 0;
    UInt32 mBytesPerFrame = 0;
    UInt32 mChannelsPerFrame = 0;
    UInt32 mBitsPerChannel = 0;
    UInt32 mReserved = 0;

    friend bool operator==(const AudioStreamBasicDescription&,
                           const AudioStreamBasicDescription&) = default;
};

struct AudioValueRange {
    Float64 mMinimum = 0.0;
    Float64 mMaximum = 0.0;

    friend bool operator==(const AudioValueRange&, const AudioValueRange&) = default;
};

/// A format with the sample-rate range it covers (56 bytes in the HAL).
struct AudioStreamRangedDescription {
    AudioStreamBasicDescription mFormat;
    AudioValueRange mSampleRateRange;

    friend bool operator==(const AudioStreamRangedDescription&,
                           const AudioStreamRangedDescription&) = default;
};

/// One channel of a layout (20 bytes in the HAL).
struct AudioChannelDescription {
    AudioChannelLabel mChannelLabel = kAudioChannelLabel_Unknown;
    UInt32 mChannelFlags = 0;
    Float32 mCoordinates[3] = {0.0f, 0.0f, 0.0f};

    friend bool operator==(const AudioChannelDescription&,
                           const AudioChannelDescription&) = default;
};

/// A channel layout: tag, bitmap and descriptions (12 bytes plus 20 per
/// description in the HAL). The number of descriptions is the vector's size.
struct AudioChannelLayout {
    AudioChannelLayoutTag mChannelLayoutTag = kAudioChannelLayoutTag_UseChannelDescriptions;
    UInt32 mChannelBitmap = 0;
    std::vector<AudioChannelDescription> mChannelDescriptions;

    UInt32 numberChannelDescriptions() const {
        return static_cast<UInt32>(mChannelDescriptions.size());
    }
    friend bool operator==(const AudioChannelLayout&, const AudioChannelLayout&) = default;
};

/// A device's stream configuration (the HAL's AudioBufferList): one entry per
/// buffer, each the number of interleaved channels in it.
struct AudioBufferListConfiguration {
    std::vector<UInt32> mNumberChannels;

    UInt32 totalChannels() const {
        UInt32 n = 0;
        for (UInt32 c : mNumberChannels) n += c;
        return n;
    }
    friend bool operator==(const AudioBufferListConfiguration&,
                           const AudioBufferListConfiguration&) = default;
};

struct AudioTimeStamp {
    Float64 mSampleTime = 0.0;
    std::uint64_t mHostTime = 0;
    Float64 mRateScalar = 0.0;
    std::uint64_t mWordClockTime = 0;
    UInt32 mFlags = 0;
};

}  // namespace zdr::hal
