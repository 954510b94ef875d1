// Channel labels: naming through the channel-name table, equality, copying and
// the keyed archive.
#include "zdr/audio/channel_label.h"

#include <gtest/gtest.h>

#include "zdr/audio/channel_names.h"

namespace zdr {
namespace {

TEST(ChannelLabel, ClassLabelsCarryThePlatformNumbersAndNames) {
    struct Case {
        std::shared_ptr<ChannelLabel> label;
        const char* name;
        hal::AudioChannelLabel number;
    };
    const Case cases[] = {
        {ChannelLabel::mono(), "Mono", 42},
        {ChannelLabel::unknown(), "Unknown", 4294967295u},
        {ChannelLabel::unused(), "Unused", 0},
        {ChannelLabel::left(), "Left", 1},
        {ChannelLabel::right(), "Right", 2},
        {ChannelLabel::leftSurround(), "Left Surround", 5},
        {ChannelLabel::rightSurround(), "Right Surround", 6},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(c.label) << c.name;
        EXPECT_EQ(c.label->name(), c.name);
        EXPECT_EQ(c.label->label(), c.number);
        EXPECT_EQ(c.label->description(), c.name);
    }
    EXPECT_EQ(ChannelLabel::right()->fullDescription(), "Right (2)");
    EXPECT_EQ(ChannelLabel::unknown()->fullDescription(), "Unknown (4294967295)");
    EXPECT_EQ(ChannelLabel::labelForChannelTag(hal::kAudioChannelLabel_Discrete_0 + 7)->name(),
              "Discrete 7");
}

TEST(ChannelLabel, UnnameableLabelGivesNoneAndTheStatus) {
    hal::AudioChannelDescription description;
    description.mChannelLabel = 12345;
    Error error;
    EXPECT_EQ(ChannelLabel::labelForAudioChannelDescription(description, &error), nullptr);
    EXPECT_EQ(error.domain, "ZDR");
    EXPECT_EQ(error.localizedDescription(),
              "Could not create a human readable label from description, code: " +
                  std::to_string(kAudioFormatUnknownFormatError));
    EXPECT_EQ(ChannelLabel::labelForChannelTag(12345), nullptr);
}

TEST(ChannelLabel, NameTableIsSortedAndFormatServiceChecksSizes) {
    auto names = channelLabelNames();
    for (std::size_t i = 1; i < names.size(); ++i) EXPECT_LT(names[i - 1].label, names[i].label);
    hal::AudioChannelDescription d;
    d.mChannelLabel = 3;
    std::string name;
    hal::UInt32 size = 8;
    EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_ChannelName, 20, &d, &size, &name), 0);
    EXPECT_EQ(name, "Center");
    EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_ChannelName, 12, &d, &size, &name),
              kAudioFormatBadSpecifierSizeError);
    size = 4;
    EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_ChannelName, 20, &d, &size, &name),
              kAudioFormatBadPropertySizeError);
    EXPECT_EQ(AudioFormatGetProperty(hal::fourcc("xxxx"), 20, &d, &size, &name),
              kAudioFormatUnsupportedPropertyError);
}

TEST(ChannelLabel, EqualityIgnoresNamesAndCopiesAreEqualButDistinct) {
    auto left = ChannelLabel::left();
    auto renamed = ChannelLabel::initWithNameAndTag("Links", 1);
    EXPECT_TRUE(*left == *renamed);
    EXPECT_FALSE(*left == *ChannelLabel::right());
    auto copy = left->copy();
    EXPECT_NE(copy.get(), left.get());
    EXPECT_TRUE(*copy == *left);
    EXPECT_EQ(copy->name(), "Left");

    struct Special : ChannelLabel {
        Special() : ChannelLabel("Left", 1) {}
    };
    Special special;
    EXPECT_FALSE(special == *left);  // another class is never equal
    EXPECT_FALSE(*left == special);
}

TEST(ChannelLabel, ArchiveRoundTripsAndRefusesForeignData) {
    for (auto label : {ChannelLabel::left(), ChannelLabel::unknown(), ChannelLabel::unused()}) {
        const nlohmann::json archive = nlohmann::json::parse(label->archived().dump());
        EXPECT_EQ(archive.at("name"), label->name());
        auto back = ChannelLabel::unarchive(archive);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->name(), label->name());
        EXPECT_EQ(back->label(), label->label());
    }
    EXPECT_EQ(ChannelLabel::unknown()->archived().at("label"), -1);  // a 32-bit integer
    auto unsignedForm = ChannelLabel::unarchive(
        {{"$class", "ChannelLabel"}, {"name", "Unknown"}, {"label", 4294967295u}});
    ASSERT_TRUE(unsignedForm);
    EXPECT_EQ(unsignedForm->label(), hal::kAudioChannelLabel_Unknown);

    const nlohmann::json bad[] = {
        nullptr,
        nlohmann::json::array({1, 2}),
        {{"$class", "BookmarkedURL"}, {"name", "x"}, {"label", 1}},
        {{"$class", "ChannelLabel"}, {"name", 3}, {"label", 1}},
        {{"$class", "ChannelLabel"}, {"name", "x"}, {"label", "1"}},
        {{"$class", "ChannelLabel"}, {"name", "x"}, {"label", 1.5}},
        {{"$class", "ChannelLabel"}, {"name", "x"}, {"label", 4294967296ull}},
        {{"$class", "ChannelLabel"}, {"name", "x"}, {"label", -2147483649ll}},
        {{"$class", "ChannelLabel"}, {"name", "x"}},
    };
    for (const auto& archive : bad) {
        Error error;
        EXPECT_EQ(ChannelLabel::unarchive(archive, &error), nullptr) << archive.dump();
        EXPECT_NE(error.localizedDescription().find("Cannot decode a ChannelLabel"),
                  std::string::npos);
    }
}

}  // namespace
}  // namespace zdr
