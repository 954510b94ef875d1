#include "zdr/system/frame_size.h"

#include <gtest/gtest.h>

#include <limits>
#include <unordered_set>

namespace zdr {
namespace {

TEST(DescribedFrameSizeTable, KeepsItsNamesSizesAndOrder) {
    const auto& table = DescribedFrameSize::humanReadableFrameSizes();
    ASSERT_EQ(table.size(), 7u);
    const std::vector<std::string> names = {"Half HD",  "High Definition", "Full HD", "Quad HD",
                                            "2K Video", "4K Video",        "8K Video"};
    const std::vector<Size> sizes = {{720, 576},   {1280, 720},  {1920, 1080}, {2560, 1440},
                                     {2048, 1080}, {3840, 2160}, {7680, 4320}};
    for (std::size_t i = 0; i < table.size(); ++i) {
        EXPECT_EQ(table[i].name, names[i]);
        EXPECT_EQ(table[i].size, sizes[i]);
    }
    EXPECT_EQ(DescribedFrameSize::humanReadableSizes(), sizes);
    EXPECT_EQ(DescribedFrameSize::defaultSize().name, "High Definition");
}

TEST(DescribedFrameSizeTable, SizeWithVerticalTakesTheFirstMatchThenFallbackThenDefault) {
    EXPECT_EQ(DescribedFrameSize::sizeWithVertical(1080).name, "Full HD");
    EXPECT_EQ(DescribedFrameSize::sizeWithVertical(2160).name, "4K Video");
    DescribedFrameSize custom{"Custom", {100, 77}};
    EXPECT_EQ(DescribedFrameSize::sizeWithVertical(77, custom), custom);
    EXPECT_EQ(DescribedFrameSize::sizeWithVertical(77).name, "High Definition");
    EXPECT_EQ(DescribedFrameSize::sizeWithVertical(1080, custom).name, "Full HD");
}

TEST(DescribedFrameSizeTable, IdDescriptionAndJSON) {
    const auto& fhd = DescribedFrameSize::humanReadableFrameSizes()[2];
    EXPECT_EQ(fhd.id(), "Full HD, (1920.0, 1080.0)");
    EXPECT_EQ(fhd.description(), "Full HD - 1920x1080");
    EXPECT_EQ(DescribedFrameSize({"Odd", {1280.75, 719.5}}).description(), "Odd - 1280x719");

    auto json = fhd.toJSON();
    EXPECT_EQ(json.dump(), R"({"name":"Full HD","size":[1920.0,1080.0]})");
    EXPECT_EQ(DescribedFrameSize::fromJSON(json), fhd);
    EXPECT_EQ(DescribedFrameSize::fromJSON(nlohmann::json::parse(R"({"name":"X","size":[1]})")),
              std::nullopt);
    EXPECT_EQ(DescribedFrameSize::fromJSON(nlohmann::json::parse(R"({"size":[1,2]})")),
              std::nullopt);
    EXPECT_EQ(DescribedFrameSize::fromJSON(nlohmann::json::parse("[1,2]")), std::nullopt);
}

TEST(DescribedFrameSizeTable, EqualityAndHashUseNameAndSize) {
    std::unordered_set<DescribedFrameSize> set(
        DescribedFrameSize::humanReadableFrameSizes().begin(),
        DescribedFrameSize::humanReadableFrameSizes().end());
    EXPECT_EQ(set.size(), 7u);
    EXPECT_TRUE(set.contains({"Full HD", {1920, 1080}}));
    EXPECT_FALSE(set.contains({"Full HD", {1920, 1081}}));
    EXPECT_FALSE(set.contains({"Full hd", {1920, 1080}}));
}

TEST(SizeNames, ClosestMatchesWithinOnePointInclusive) {
    EXPECT_EQ(humanReadableString({1919.5, 1080.4}), "Full HD");
    EXPECT_EQ(humanReadableString({1921, 1079}), "Full HD");
    EXPECT_EQ(closestDescribedFrameSize({1918, 1080}), std::nullopt);
    EXPECT_EQ(humanReadableString({1918, 1080}), "(1918.0, 1080.0)");
    EXPECT_EQ(humanReadableString({0.5, 0.25}), "(0.5, 0.25)");
    // 2048x1080 is its own entry, not "Full HD".
    EXPECT_EQ(humanReadableString({2048, 1080}), "2K Video");
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(closestDescribedFrameSize({nan, 1080}), std::nullopt);
}

TEST(SizeNames, DescriptionWithAccuracy) {
    EXPECT_EQ(descriptionWithAccuracy({1919.5, 1080.4}, 1), "1919.5x1080.4");
    EXPECT_EQ(descriptionWithAccuracy({1919.5, 1080.4}, 0), "1920x1080");
    EXPECT_EQ(descriptionWithAccuracy({1280.25, 720}, 1), "1280.2x720");  // half to even
    EXPECT_EQ(descriptionWithAccuracy({1280.125, 720.5}, 3), "1280.125x720.5");
    EXPECT_EQ(descriptionWithAccuracy({-0.4, 2.5}, 0), "0x2");
    EXPECT_EQ(descriptionAsPoints({3.5, 1080}), "4x1080");
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(descriptionWithAccuracy({std::numeric_limits<double>::quiet_NaN(), -inf}, 2),
              "NaNx-∞");
}

TEST(SizeNames, ArithmeticHelpersArePerComponent) {
    EXPECT_EQ(halfTheDifference({1920, 1080}, {1280, 720}), Size(320, 180));
    EXPECT_EQ(add({1, 2}, {3, 4}), Size(4, 6));
    EXPECT_EQ(subtract({1, 2}, {3, 5}), Size(-2, -3));
    EXPECT_EQ(multiply({2, 3}, {4, 5}), Size(8, 15));
    EXPECT_EQ(multiply({2, 3}, 0.5), Size(1, 1.5));
}

}  // namespace
}  // namespace zdr
