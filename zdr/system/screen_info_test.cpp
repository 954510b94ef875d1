#include "zdr/system/screen_info.h"

#include <gtest/gtest.h>

#include "zdr/system/edid_test_support.h"
#include "zdr/system/screen_provider.h"

namespace zdr {
namespace {

using testing::EdidBuilder;

DisplayRecord display(std::uint32_t id, Rect frame, std::uint32_t serial,
                      std::uint16_t model = 0x1234, bool srgb = true,
                      const std::string& maker = "DEL") {
    DisplayRecord r;
    r.displayID = id;
    r.frame = frame;
    r.outputName = "DP-" + std::to_string(id);
    r.edid = parseEdid(EdidBuilder()
                           .manufacturer(maker)
                           .productCode(model)
                           .serialNumber(serial)
                           .sRGBDefault(srgb)
                           .build());
    return r;
}

class ScreenInfoTest : public ::testing::Test {
 protected:
    void SetUp() override { ScreenProvider::install(provider_); }
    void TearDown() override { ScreenProvider::install(nullptr); }
    std::shared_ptr<FixedScreenProvider> provider_ = std::make_shared<FixedScreenProvider>();
};

TEST(ScreenInfoKeysTest, RawValuesInOrder) {
    const char* expected[] = {"name",        "frame",        "screenNumber",
                              "modelNumber", "serialNumber", "vendorNumber"};
    for (int i = 0; i < 6; ++i) {
        const auto key = static_cast<ScreenInfoKeys>(i);
        EXPECT_STREQ(rawValue(key), expected[i]);
        EXPECT_EQ(screenInfoKeyFromRawValue(expected[i]), key);
    }
    EXPECT_EQ(screenInfoKeyFromRawValue("NSScreenNumber"), std::nullopt);
}

TEST_F(ScreenInfoTest, DescribesEachScreenByPositionColourSpaceAndFrame) {
    auto noEdid = display(9, {3840, 0, 1024, 768}, 0);
    noEdid.edid.reset();
    provider_->setDisplays({display(41, {0, 0, 1920, 1080}, 111),
                            display(42, {1920, 0, 2560, 1440}, 222, 0x55, false), noEdid});
    const auto screens = Screen::screens();
    ASSERT_EQ(screens.size(), 3u);
    EXPECT_EQ(screens[0]->humanReadableDescription(), "screen 0, sRGB, {{0, 0}, {1920, 1080}}");
    EXPECT_EQ(screens[1]->humanReadableDescription(),
              "screen 1, <unknown colorspace>, {{1920, 0}, {2560, 1440}}");
    EXPECT_EQ(screens[2]->humanReadableDescription(),
              "screen 2, <unknown colorspace>, {{3840, 0}, {1024, 768}}");
    EXPECT_EQ(screens[1]->displayID(), 42u);
    EXPECT_EQ(screens[1]->uniqueID(), "42");
    EXPECT_EQ(screens[2]->serialNumber(), 0u);
    EXPECT_EQ(Screen::screenCount(), 3u);

    const ScreenInfo info(*screens[1]);
    EXPECT_EQ(info, ScreenInfo("screen 1, <unknown colorspace>, {{1920, 0}, {2560, 1440}}",
                               {1920, 0, 2560, 1440}, 42, 0x55, 222, 0x10AC));

    // A screen that was unplugged is no longer in the list: position 0.
    provider_->setDisplays({display(41, {0, 0, 1920, 1080}, 111)});
    EXPECT_EQ(screens[1]->humanReadableDescription().rfind("screen 0, ", 0), 0u);
}

TEST_F(ScreenInfoTest, UniqueIDIsTheSignedNumber) {
    provider_->setDisplays({display(0xFFFFFFF0u, {0, 0, 10, 10}, 1)});
    const auto screen = Screen::screens().at(0);
    EXPECT_EQ(screen->displayID(), 0xFFFFFFF0u);
    EXPECT_EQ(screen->uniqueID(), "4294967280");
    Screen signedNumber(Dictionary{{kNSScreenNumber, std::int32_t{-16}}}, {}, std::nullopt);
    EXPECT_EQ(signedNumber.uniqueID(), "-16");
    EXPECT_EQ(signedNumber.displayID(), 0xFFFFFFF0u);
}

TEST_F(ScreenInfoTest, TheDictionaryRoundTripLosesFrameAndScreenNumberOnly) {
    provider_->setDisplays({display(7, {0, 0, 1920, 1080}, 4242, 0x99, true, "GSM")});
    const auto screen = Screen::screens().at(0);
    const auto dict = screen->screenInfoDictionary();
    ASSERT_EQ(dict.size(), 6u);
    EXPECT_EQ(std::any_cast<std::string>(dict.at(ScreenInfoKeys::frame)), "{{0, 0}, {1920, 1080}}");
    EXPECT_EQ(std::any_cast<std::string>(dict.at(ScreenInfoKeys::screenNumber)), "7");
    EXPECT_EQ(std::any_cast<std::uint32_t>(dict.at(ScreenInfoKeys::serialNumber)), 4242u);

    const ScreenInfo direct(*screen);
    const ScreenInfo roundTrip(dict);
    ScreenInfo expected = direct;
    expected.frame = {};
    expected.screenNumber = 0;
    EXPECT_EQ(roundTrip, expected);
    // The serial number survives, so the screen is found again.
    const auto found = Screen::findScreenMatchingInfo(dict);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->displayID(), 7u);
}

TEST(ScreenInfoDictTest, WrongTypesFallBack) {
    const ScreenInfo info(ScreenInfoDictionary{
        {ScreenInfoKeys::name, 42},
        {ScreenInfoKeys::frame, Rect{1, 2, 3, 4}},
        {ScreenInfoKeys::modelNumber, std::int64_t{5}},
        {ScreenInfoKeys::serialNumber, std::uint32_t{6}},
    });
    EXPECT_EQ(info, ScreenInfo("", {1, 2, 3, 4}, 0, 0, 6, 0));
    EXPECT_EQ(ScreenInfo(ScreenInfoDictionary{}), ScreenInfo());
}

TEST_F(ScreenInfoTest, IdenticalMonitorsMatchTheFirstInOrder) {
    // Two monitors of one model that both report serial 0, as many do.
    provider_->setDisplays({display(10, {0, 0, 100, 100}, 5), display(11, {100, 0, 100, 100}, 0),
                            display(12, {200, 0, 100, 100}, 0)});
    ScreenInfo wanted("whatever", {}, 12, 0x1234, 0, 0x10AC);
    auto found = Screen::findScreenMatchingInfo(wanted);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->displayID(), 11u) << "serial 0 matches the first screen reporting 0";
    wanted.serialNumber = 5;
    EXPECT_EQ(Screen::findScreenMatchingInfo(wanted)->displayID(), 10u);
    wanted.serialNumber = 6;
    EXPECT_EQ(Screen::findScreenMatchingInfo(wanted), nullptr);

    EXPECT_EQ(Screen::findScreenWithCGDisplayId(12)->frame(), (Rect{200, 0, 100, 100}));
    EXPECT_EQ(Screen::findScreenWithCGDisplayId(13), nullptr);
}

TEST_F(ScreenInfoTest, WithNoScreensEveryLookupAnswersNone) {
    EXPECT_TRUE(Screen::screens().empty());
    EXPECT_EQ(Screen::findScreenMatchingInfo(ScreenInfo()), nullptr);
    EXPECT_EQ(Screen::findScreenMatchingInfo(ScreenInfoDictionary{}), nullptr);
    EXPECT_EQ(Screen::findScreenWithCGDisplayId(0), nullptr);
}

TEST_F(ScreenInfoTest, NumbersOfAnUnknownDisplayAreZero) {
    provider_->setDisplays({display(1, {}, 77)});
    EXPECT_EQ(provider_->displaySerialNumber(1), 77u);
    EXPECT_EQ(provider_->displaySerialNumber(2), 0u);
    EXPECT_EQ(provider_->displayVendorNumber(2), 0u);
    EXPECT_EQ(provider_->displayModelNumber(2), 0u);
}

using ScreenInfoDeathTest = ScreenInfoTest;

TEST_F(ScreenInfoDeathTest, AScreenWithoutNumberStopsTheLookups) {
    DisplayRecord anonymous;
    anonymous.frame = {0, 0, 10, 10};
    provider_->setDisplays({anonymous});
    const auto screen = Screen::screens().at(0);
    EXPECT_EQ(screen->humanReadableDescription(),
              "screen 0, <unknown colorspace>, {{0, 0}, {10, 10}}");
    EXPECT_DEATH(screen->displayID(), "Screen has no NSScreenNumber in its device description");
    EXPECT_DEATH(screen->uniqueID(), "NSScreenNumber");
    EXPECT_DEATH(Screen::findScreenWithCGDisplayId(1), "NSScreenNumber");
    EXPECT_DEATH(Screen::findScreenMatchingInfo(ScreenInfo()), "NSScreenNumber");
    Screen notANumber(Dictionary{{kNSScreenNumber, std::string("1")}}, {}, std::nullopt);
    EXPECT_DEATH(notANumber.displayID(), "NSScreenNumber");
}

TEST(ScreenInfoJSONTest, EncodesTheSixKeysAndDecodesStrictly) {
    const ScreenInfo info("screen 0, sRGB, {{0, 0}, {1920, 1080}}", {0, 0, 1920, 1080}, 7, 8,
                          4294967295u, 10);
    const auto json = info.toJSON();
    EXPECT_EQ(json.size(), 6u);
    EXPECT_EQ(json["frame"], nlohmann::json::parse("[[0.0, 0.0], [1920.0, 1080.0]]"));
    EXPECT_EQ(json["serialNumber"], 4294967295u);
    EXPECT_EQ(ScreenInfo::fromJSON(nlohmann::json::parse(json.dump())), info);

    std::string error;
    auto broken = json;
    broken["serialNumber"] = 4294967296ull;
    EXPECT_EQ(ScreenInfo::fromJSON(broken, &error), std::nullopt);
    EXPECT_NE(error.find("serialNumber"), std::string::npos);
    broken = json;
    broken["frame"] = "{{0, 0}, {1, 1}}";
    EXPECT_EQ(ScreenInfo::fromJSON(broken, &error), std::nullopt);
    EXPECT_NE(error.find("frame"), std::string::npos);
    broken = json;
    broken.erase("name");
    EXPECT_EQ(ScreenInfo::fromJSON(broken, &error), std::nullopt);
    EXPECT_EQ(ScreenInfo::fromJSON(nlohmann::json::array(), &error), std::nullopt);
    broken = json;
    broken["modelNumber"] = -1;
    EXPECT_EQ(ScreenInfo::fromJSON(broken, &error), std::nullopt);
}

}  // namespace
}  // namespace zdr
