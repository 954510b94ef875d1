#include "zdr/system/screen_info.h"

#include <limits>

#include "zdr/system/screen_provider.h"
#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

namespace {

constexpr const char* kRawValues[] = {"name",        "frame",        "screenNumber",
                                      "modelNumber", "serialNumber", "vendorNumber"};
constexpr ScreenInfoKeys kAllKeys[] = {ScreenInfoKeys::name,         ScreenInfoKeys::frame,
                                       ScreenInfoKeys::screenNumber, ScreenInfoKeys::modelNumber,
                                       ScreenInfoKeys::serialNumber, ScreenInfoKeys::vendorNumber};

template <class T>
const T* anyValue(const ScreenInfoDictionary& dict, ScreenInfoKeys key) {
    auto it = dict.find(key);
    return it == dict.end() ? nullptr : std::any_cast<T>(&it->second);
}

std::uint32_t numberOrZero(const ScreenInfoDictionary& dict, ScreenInfoKeys key) {
    const auto* v = anyValue<std::uint32_t>(dict, key);
    return v ? *v : 0;
}

}  // namespace

const char* rawValue(ScreenInfoKeys key) { return kRawValues[static_cast<int>(key)]; }

std::optional<ScreenInfoKeys> screenInfoKeyFromRawValue(const std::string& raw) {
    for (auto key : kAllKeys) {
        if (raw == rawValue(key)) return key;
    }
    return std::nullopt;
}

ScreenInfo::ScreenInfo(std::string name_, Rect frame_, std::uint32_t screenNumber_,
                       std::uint32_t modelNumber_, std::uint32_t serialNumber_,
                       std::uint32_t vendorNumber_)
    : name(std::move(name_)),
      frame(frame_),
      screenNumber(screenNumber_),
      modelNumber(modelNumber_),
      serialNumber(serialNumber_),
      vendorNumber(vendorNumber_) {}

ScreenInfo::ScreenInfo(const Screen& screen)
    : name(screen.humanReadableDescription()),
      frame(screen.frame()),
      screenNumber(screen.displayID()),
      modelNumber(screen.modelNumber()),
      serialNumber(screen.serialNumber()),
      vendorNumber(screen.vendorNumber()) {}

ScreenInfo::ScreenInfo(const ScreenInfoDictionary& dict) {
    if (const auto* v = anyValue<std::string>(dict, ScreenInfoKeys::name)) name = *v;
    if (const auto* v = anyValue<Rect>(dict, ScreenInfoKeys::frame)) frame = *v;
    screenNumber = numberOrZero(dict, ScreenInfoKeys::screenNumber);
    modelNumber = numberOrZero(dict, ScreenInfoKeys::modelNumber);
    serialNumber = numberOrZero(dict, ScreenInfoKeys::serialNumber);
    vendorNumber = numberOrZero(dict, ScreenInfoKeys::vendorNumber);
}

nlohmann::json ScreenInfo::toJSON() const {
    return nlohmann::json{{"name", name},
                          {"frame", {{frame.x(), frame.y()}, {frame.width(), frame.height()}}},
                          {"screenNumber", screenNumber},
                          {"modelNumber", modelNumber},
                          {"serialNumber", serialNumber},
                          {"vendorNumber", vendorNumber}};
}

std::optional<ScreenInfo> ScreenInfo::fromJSON(const nlohmann::json& json, std::string* error) {
    auto fail = [&](std::string reason) -> std::optional<ScreenInfo> {
        if (error) *error = std::move(reason);
        return std::nullopt;
    };
    if (!json.is_object()) return fail("a screen description must be a JSON object");
    ScreenInfo info;
    const auto name = json.find("name");
    if (name == json.end() || !name->is_string()) return fail("\"name\" must be a string");
    info.name = name->get<std::string>();
    const auto frame = json.find("frame");
    auto pair = [](const nlohmann::json& j) {
        return j.is_array() && j.size() == 2 && j[0].is_number() && j[1].is_number();
    };
    if (frame == json.end() || !frame->is_array() || frame->size() != 2 || !pair((*frame)[0]) ||
        !pair((*frame)[1])) {
        return fail("\"frame\" must be [[x, y], [width, height]]");
    }
    info.frame = {(*frame)[0][0].get<double>(), (*frame)[0][1].get<double>(),
                  (*frame)[1][0].get<double>(), (*frame)[1][1].get<double>()};
    for (auto [key, field] : {std::pair{"screenNumber", &ScreenInfo::screenNumber},
                              std::pair{"modelNumber", &ScreenInfo::modelNumber},
                              std::pair{"serialNumber", &ScreenInfo::serialNumber},
                              std::pair{"vendorNumber", &ScreenInfo::vendorNumber}}) {
        const auto it = json.find(key);
        if (it == json.end() || !it->is_number_unsigned() ||
            it->get<std::uint64_t>() > std::numeric_limits<std::uint32_t>::max()) {
            return fail(std::string("\"") + key + "\" must be a whole number from 0 to 4294967295");
        }
        info.*field = static_cast<std::uint32_t>(it->get<std::uint64_t>());
    }
    return info;
}

Screen::Screen(Dictionary deviceDescription, Rect frame, std::optional<std::string> colorSpaceName,
               std::weak_ptr<ScreenProvider> provider)
    : deviceDescription_(std::move(deviceDescription)),
      frame_(frame),
      colorSpaceName_(std::move(colorSpaceName)),
      provider_(std::move(provider)) {}

std::optional<std::int64_t> Screen::screenNumberValue() const {
    auto it = deviceDescription_.find(kNSScreenNumber);
    if (it == deviceDescription_.end()) return std::nullopt;
    const std::any& v = it->second;
    if (auto* u32 = std::any_cast<std::uint32_t>(&v)) return *u32;
    if (auto* i32 = std::any_cast<std::int32_t>(&v)) return *i32;
    if (auto* i64 = std::any_cast<std::int64_t>(&v)) return *i64;
    if (auto* u64 = std::any_cast<std::uint64_t>(&v)) return static_cast<std::int64_t>(*u64);
    return std::nullopt;
}

std::uint32_t Screen::displayID() const {
    const auto value = screenNumberValue();
    if (!value) {
        detail::fatalError("Screen has no NSScreenNumber in its device description");
    }
    return static_cast<std::uint32_t>(*value);
}

std::string Screen::uniqueID() const {
    const auto value = screenNumberValue();
    if (!value) {
        detail::fatalError("Screen has no NSScreenNumber in its device description");
    }
    return std::to_string(*value);
}

std::shared_ptr<ScreenProvider> Screen::provider() const {
    if (auto p = provider_.lock()) return p;
    return ScreenProvider::current();
}

std::string Screen::humanReadableDescription() const {
    std::size_t position = 0;
    const auto mine = screenNumberValue();
    const auto list = provider()->screens();
    for (std::size_t i = 0; i < list.size(); ++i) {
        const auto theirs = list[i]->screenNumberValue();
        const bool same =
            (mine && theirs) ? *mine == *theirs : (!mine && !theirs && list[i]->frame_ == frame_);
        if (same) {
            position = i;
            break;
        }
    }
    return "screen " + std::to_string(position) + ", " +
           colorSpaceName_.value_or("<unknown colorspace>") + ", " + frame_.description();
}

ScreenInfoDictionary Screen::screenInfoDictionary() const {
    return {{ScreenInfoKeys::name, humanReadableDescription()},
            {ScreenInfoKeys::frame, frame_.description()},
            {ScreenInfoKeys::screenNumber, uniqueID()},
            {ScreenInfoKeys::modelNumber, modelNumber()},
            {ScreenInfoKeys::serialNumber, serialNumber()},
            {ScreenInfoKeys::vendorNumber, vendorNumber()}};
}

std::uint32_t Screen::modelNumber() const { return provider()->displayModelNumber(displayID()); }
std::uint32_t Screen::serialNumber() const { return provider()->displaySerialNumber(displayID()); }
std::uint32_t Screen::vendorNumber() const { return provider()->displayVendorNumber(displayID()); }

std::vector<std::shared_ptr<Screen>> Screen::screens() {
    return ScreenProvider::current()->screens();
}

std::size_t Screen::screenCount() { return screens().size(); }

std::shared_ptr<Screen> Screen::findScreenMatchingInfo(const ScreenInfo& info) {
    return findScreenMatchingInfo(*ScreenProvider::current(), info);
}

std::shared_ptr<Screen> Screen::findScreenMatchingInfo(const ScreenInfoDictionary& keys) {
    return findScreenMatchingInfo(ScreenInfo(keys));
}

std::shared_ptr<Screen> Screen::findScreenWithCGDisplayId(std::uint32_t displayID) {
    return findScreenWithCGDisplayId(*ScreenProvider::current(), displayID);
}

std::shared_ptr<Screen> Screen::findScreenMatchingInfo(ScreenProvider& provider,
                                                       const ScreenInfo& info) {
    for (const auto& screen : provider.screens()) {
        if (provider.displaySerialNumber(screen->displayID()) == info.serialNumber) return screen;
    }
    return nullptr;
}

std::shared_ptr<Screen> Screen::findScreenWithCGDisplayId(ScreenProvider& provider,
                                                          std::uint32_t displayID) {
    for (const auto& screen : provider.screens()) {
        if (screen->displayID() == displayID) return screen;
    }
    return nullptr;
}

}  // namespace zdr
