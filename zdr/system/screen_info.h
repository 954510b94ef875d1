// Screens: a stable description of each attached display (ScreenInfo), its
// loosely typed dictionary form, and the lookups that find a live screen
// again after displays were added, removed or rearranged.
//
// Where the screens come from is a ScreenProvider (screen_provider.h): the
// default one reads X11 RandR, else the kernel's DRM connectors. A Screen is
// a snapshot of one display as its provider last saw it; the class-level
// lookups ask the installed provider for the current list.
//
// A screen's display ID is the number under "NSScreenNumber" in its device
// description. The Linux providers always put one there (the RandR output,
// or the DRM connector's ID); only a host's own provider can make a screen
// without one, and then displayID(), uniqueID() and the lookups stop the
// program, since a screen that cannot be told apart is a programming error.
//
// Frames are in the X11 desktop's coordinates: origin at the top left of the
// whole desktop, y growing downwards.
//
// Threads: Screen and ScreenInfo are values, safe to read from any thread;
// the lookups may be called from any thread (see ScreenProvider).
#pragma once

#include <any>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zdr/runtime/dictionary.h"
#include "zdr/system/geometry_types.h"

namespace zdr {

class ScreenProvider;

/// The device-description key of the display ID.
inline constexpr const char* kNSScreenNumber = "NSScreenNumber";
/// The device-description key of the display's connector name ("HDMI-1").
inline constexpr const char* kZDRScreenOutputName = "ZDROutputName";

/// The keys of the dictionary form, in order.
enum class ScreenInfoKeys { name, frame, screenNumber, modelNumber, serialNumber, vendorNumber };
/// "name", "frame", "screenNumber", "modelNumber", "serialNumber", "vendorNumber".
const char* rawValue(ScreenInfoKeys key);
std::optional<ScreenInfoKeys> screenInfoKeyFromRawValue(const std::string& raw);

using ScreenInfoDictionary = std::map<ScreenInfoKeys, std::any>;

class Screen;

struct ScreenInfo {
    std::string name;
    Rect frame;
    std::uint32_t screenNumber = 0;
    std::uint32_t modelNumber = 0;
    std::uint32_t serialNumber = 0;
    std::uint32_t vendorNumber = 0;

    ScreenInfo() = default;
    ScreenInfo(std::string name, Rect frame, std::uint32_t screenNumber, std::uint32_t modelNumber,
               std::uint32_t serialNumber, std::uint32_t vendorNumber);
    /// name = humanReadableDescription, frame, screenNumber = displayID, and
    /// the display's model, serial and vendor numbers.
    explicit ScreenInfo(const Screen& screen);
    /// Reads each key, falling back to "", the zero rectangle or 0 when it is
    /// missing or holds another type (a Rect for frame, std::uint32_t
    /// for the numbers). So the dictionary a screen makes comes back with a
    /// zero frame and screenNumber 0: its frame and screen number are stored
    /// as text. Matching uses only the serial number, which survives.
    explicit ScreenInfo(const ScreenInfoDictionary& dict);

    bool operator==(const ScreenInfo&) const = default;

    /// The keyed encoding: {"name", "frame": [[x, y], [w, h]], "screenNumber",
    /// "modelNumber", "serialNumber", "vendorNumber"}.
    nlohmann::json toJSON() const;
    /// None, with the reason in `error`, when a key is missing or of the
    /// wrong type or a number does not fit 32 bits.
    static std::optional<ScreenInfo> fromJSON(const nlohmann::json& json,
                                              std::string* error = nullptr);
};

class Screen {
 public:
    Screen(Dictionary deviceDescription, Rect frame, std::optional<std::string> colorSpaceName,
           std::weak_ptr<ScreenProvider> provider = {});

    const Dictionary& deviceDescription() const { return deviceDescription_; }
    Rect frame() const { return frame_; }
    /// The colour space's name; none when the screen has none.
    const std::optional<std::string>& colorSpaceName() const { return colorSpaceName_; }

    /// "NSScreenNumber" as an unsigned 32-bit number. Stops the program when
    /// it is missing or not a number.
    std::uint32_t displayID() const;
    /// "NSScreenNumber" as a signed number, in decimal. Stops likewise.
    std::string uniqueID() const;
    /// "screen <position>, <colour space>, <frame>": the position in the
    /// provider's current list (0 when it is not in it), the colour space's
    /// name or "<unknown colorspace>", the frame's text form.
    std::string humanReadableDescription() const;
    /// The six entries, with name, frame and screenNumber as text (see
    /// ScreenInfo(const ScreenInfoDictionary&)).
    ScreenInfoDictionary screenInfoDictionary() const;

    /// The display's model, serial and vendor numbers (0 when unknown).
    std::uint32_t modelNumber() const;
    std::uint32_t serialNumber() const;
    std::uint32_t vendorNumber() const;

    /// The installed provider's current screens, in order (the primary first).
    static std::vector<std::shared_ptr<Screen>> screens();
    static std::size_t screenCount();
    /// The first screen, in order, whose display serial number equals
    /// info.serialNumber; none when none matches or there are no screens.
    static std::shared_ptr<Screen> findScreenMatchingInfo(const ScreenInfo& info);
    static std::shared_ptr<Screen> findScreenMatchingInfo(const ScreenInfoDictionary& keys);
    /// The first screen whose "NSScreenNumber" is `displayID`, or none.
    static std::shared_ptr<Screen> findScreenWithCGDisplayId(std::uint32_t displayID);

    /// The same lookups over a given provider.
    static std::shared_ptr<Screen> findScreenMatchingInfo(ScreenProvider& provider,
                                                          const ScreenInfo& info);
    static std::shared_ptr<Screen> findScreenWithCGDisplayId(ScreenProvider& provider,
                                                             std::uint32_t displayID);

 private:
    std::shared_ptr<ScreenProvider> provider() const;
    std::optional<std::int64_t> screenNumberValue() const;

    Dictionary deviceDescription_;
    Rect frame_;
    std::optional<std::string> colorSpaceName_;
    std::weak_ptr<ScreenProvider> provider_;
};

}  // namespace zdr
