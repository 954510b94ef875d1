#include "zdr/audio/channel_label.h"

#include <cstdint>
#include <typeinfo>

#include "zdr/audio/channel_names.h"
#include "zdr/audio/hal/property_value.h"

namespace zdr {
namespace {

constexpr const char* kClassName = "ChannelLabel";

Error messageError(std::string message) {
    return Error("ZDR", 0, Dictionary{{kNSLocalizedDescriptionKey, std::move(message)}});
}

}  // namespace

std::shared_ptr<ChannelLabel> ChannelLabel::initWithNameAndTag(std::string name,
                                                               hal::AudioChannelLabel label) {
    return std::shared_ptr<ChannelLabel>(new ChannelLabel(std::move(name), label));
}

std::shared_ptr<ChannelLabel> ChannelLabel::mono() {
    return initWithNameAndTag("Mono", hal::kAudioChannelLabel_Mono);
}
std::shared_ptr<ChannelLabel> ChannelLabel::unknown() {
    return initWithNameAndTag("Unknown", hal::kAudioChannelLabel_Unknown);
}
std::shared_ptr<ChannelLabel> ChannelLabel::unused() {
    return initWithNameAndTag("Unused", hal::kAudioChannelLabel_Unused);
}
std::shared_ptr<ChannelLabel> ChannelLabel::left() { return labelForChannelTag(1); }
std::shared_ptr<ChannelLabel> ChannelLabel::right() { return labelForChannelTag(2); }
std::shared_ptr<ChannelLabel> ChannelLabel::leftSurround() { return labelForChannelTag(5); }
std::shared_ptr<ChannelLabel> ChannelLabel::rightSurround() { return labelForChannelTag(6); }

std::shared_ptr<ChannelLabel> ChannelLabel::labelForChannelTag(hal::AudioChannelLabel label) {
    hal::AudioChannelDescription description;
    description.mChannelLabel = label;
    description.mChannelFlags = 0;
    return labelForAudioChannelDescription(description, nullptr);
}

std::shared_ptr<ChannelLabel> ChannelLabel::labelForAudioChannelDescription(
    const hal::AudioChannelDescription& description, Error* error) {
    std::string name;
    hal::UInt32 size = 8;
    const hal::OSStatus status =
        AudioFormatGetProperty(kAudioFormatProperty_ChannelName,
                               hal::kSizeOfAudioChannelDescription, &description, &size, &name);
    if (status != 0) {
        if (error != nullptr) {
            *error =
                messageError("Could not create a human readable label from description, code: " +
                             std::to_string(status));
        }
        return nullptr;
    }
    return initWithNameAndTag(std::move(name), description.mChannelLabel);
}

std::string ChannelLabel::fullDescription() const {
    return name_ + " (" + std::to_string(label_) + ")";
}

bool ChannelLabel::isEqual(const ChannelLabel& other) const {
    return typeid(*this) == typeid(other) && label_ == other.label_;
}

std::shared_ptr<ChannelLabel> ChannelLabel::copy() const {
    return initWithNameAndTag(name_, label_);
}

nlohmann::json ChannelLabel::archived() const {
    // The label is archived as a signed 32-bit integer, so Unknown
    // (0xFFFFFFFF) is stored as -1; unarchiving maps it back.
    return nlohmann::json{
        {"$class", kClassName}, {"name", name_}, {"label", static_cast<std::int32_t>(label_)}};
}

std::shared_ptr<ChannelLabel> ChannelLabel::unarchive(const nlohmann::json& archive, Error* error) {
    auto refuse = [&](const char* why) -> std::shared_ptr<ChannelLabel> {
        if (error != nullptr) {
            *error = messageError(std::string("Cannot decode a ChannelLabel: ") + why);
        }
        return nullptr;
    };
    if (!archive.is_object()) return refuse("the archive is not a keyed archive");
    auto cls = archive.find("$class");
    if (cls == archive.end() || !cls->is_string() || cls->get<std::string>() != kClassName) {
        return refuse("the archive holds another class");
    }
    auto name = archive.find("name");
    if (name == archive.end() || !name->is_string()) return refuse("\"name\" is not a string");
    auto label = archive.find("label");
    if (label == archive.end() || !label->is_number_integer()) {
        return refuse("\"label\" is not an integer");
    }
    // Accept the signed form we write and, for archives made elsewhere, the
    // unsigned one; anything wider than 32 bits is corrupt.
    std::int64_t value = 0;
    if (label->is_number_unsigned()) {
        const auto u = label->get<std::uint64_t>();
        if (u > UINT32_MAX) return refuse("\"label\" does not fit 32 bits");
        value = static_cast<std::int64_t>(u);
    } else {
        value = label->get<std::int64_t>();
        if (value < INT32_MIN || value > static_cast<std::int64_t>(UINT32_MAX)) {
            return refuse("\"label\" does not fit 32 bits");
        }
    }
    return initWithNameAndTag(
        name->get<std::string>(),
        static_cast<hal::AudioChannelLabel>(static_cast<std::uint64_t>(value) & 0xFFFFFFFFu));
}

}  // namespace zdr
