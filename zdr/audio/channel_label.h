// ChannelLabel: a user-chosen label for one audio channel: a human-readable
// name and the channel label number of the platform's audio layer
// (kAudioChannelLabel_Left and so on).
//
// Two labels are equal when they are of the same class and carry the same
// label number; names are ignored. Labels are copied with copy() and archived
// into a keyed JSON archive: {"$class": "ChannelLabel", "name": ..., "label":
// <32-bit integer>}. Unarchiving checks the class and the value types (a
// secure decode) and answers null for anything else.
//
// Names come from the audio-format service's channel-name table
// (channel_names.h); a label it cannot name gives no ChannelLabel and an
// Error with the service's status.
//
// Thread safety: a ChannelLabel is immutable; share it between threads freely.
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "zdr/audio/hal/hal_types.h"
#include "zdr/runtime/error.h"

namespace zdr {

class ChannelLabel {
 public:
    /// Designated initialiser.
    static std::shared_ptr<ChannelLabel> initWithNameAndTag(std::string name,
                                                            hal::AudioChannelLabel label);

    static std::shared_ptr<ChannelLabel> mono();
    static std::shared_ptr<ChannelLabel> unknown();
    static std::shared_ptr<ChannelLabel> unused();
    static std::shared_ptr<ChannelLabel> left();
    static std::shared_ptr<ChannelLabel> right();
    static std::shared_ptr<ChannelLabel> leftSurround();
    static std::shared_ptr<ChannelLabel> rightSurround();

    /// The label for `label` named by the audio-format service; null when it
    /// cannot be named.
    static std::shared_ptr<ChannelLabel> labelForChannelTag(hal::AudioChannelLabel label);
    /// As above for a whole description; on failure `error` (when given) gets
    /// "Could not create a human readable label from description, code: %d".
    static std::shared_ptr<ChannelLabel> labelForAudioChannelDescription(
        const hal::AudioChannelDescription& description, Error* error);

    virtual ~ChannelLabel() = default;

    const std::string& name() const { return name_; }
    hal::AudioChannelLabel label() const { return label_; }

    /// The name.
    std::string description() const { return name_; }
    /// "name (label)".
    std::string fullDescription() const;

    /// Same class and same label number.
    virtual bool isEqual(const ChannelLabel& other) const;
    friend bool operator==(const ChannelLabel& a, const ChannelLabel& b) { return a.isEqual(b); }

    std::shared_ptr<ChannelLabel> copy() const;

    nlohmann::json archived() const;
    /// Null (and `error` filled, when given) for anything but an archive of a
    /// ChannelLabel with a string name and a 32-bit label.
    static std::shared_ptr<ChannelLabel> unarchive(const nlohmann::json& archive,
                                                   Error* error = nullptr);

 protected:
    ChannelLabel(std::string name, hal::AudioChannelLabel label)
        : name_(std::move(name)), label_(label) {}

 private:
    std::string name_;
    hal::AudioChannelLabel label_;
};

}  // namespace zdr
