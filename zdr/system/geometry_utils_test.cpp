#include "zdr/system/geometry_utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "zdr/logging/shared2.h"
#include "zdr/system/system_test_support.h"

namespace zdr {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(GeometryFit, WideRectangleIntoSquareIsLetterboxed) {
    EXPECT_EQ(GeometryUtils::fit({0, 0, 1280, 720}, {0, 0, 1000, 1000}),
              Rect(0, 218.75, 1000, 562.5));
}

TEST(GeometryFit, TallRectangleIntoSquareIsPillarboxed) {
    EXPECT_EQ(GeometryUtils::fit({0, 0, 720, 1280}, {0, 0, 1000, 1000}),
              Rect(218.75, 0, 562.5, 1000));
}

TEST(GeometryFit, OriginIsRelativeToTheDestination) {
    // Neither rectangle's own origin moves the result.
    EXPECT_EQ(GeometryUtils::fit({30, 40, 1280, 720}, {500, 600, 1000, 1000}),
              Rect(0, 218.75, 1000, 562.5));
    // Same aspect: fills the destination exactly.
    EXPECT_EQ(GeometryUtils::fit({0, 0, 640, 360}, {0, 0, 1920, 1080}), Rect(0, 0, 1920, 1080));
}

TEST(GeometryFit, OneSensibleRectangleIsReturnedUnchangedWithoutWarning) {
    testing::LogCapture log(Shared2::geometry());
    const Rect source(5, 6, 1280, 720);
    EXPECT_EQ(GeometryUtils::fit(source, {0, 0, 0, 500}), source);
    EXPECT_EQ(GeometryUtils::fit(source, {0, 0, 500, 0}), source);
    EXPECT_EQ(GeometryUtils::fit(source, {kNaN, 0, 500, 500}), source);
    const Rect dest(1, 2, 300, 400);
    EXPECT_EQ(GeometryUtils::fit({0, 0, kNaN, 720}, dest), dest);
    EXPECT_EQ(GeometryUtils::fit({}, dest), dest);
    EXPECT_TRUE(log.lines().empty());
}

TEST(GeometryFit, TwoNonsensicalRectanglesGiveZeroRectAndOneWarning) {
    testing::LogCapture log(Shared2::geometry());
    EXPECT_EQ(GeometryUtils::fit({0, 0, kNaN, 10}, {0, 0, 0, 0}), Rect());
    auto warnings = log.messages(LogLevel::warning);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0],
              "WARNING: you're getting a rect; but BOTH inputs are non-sensible. RETURNING A ZERO "
              "RECT");
}

TEST(GeometryFit, NegativeExtentIsNotEmptyAndFlowsThroughTheArithmetic) {
    // A negative size covers an area, so it counts as sensible; the result is
    // the plain arithmetic and never a crash.
    Rect r = GeometryUtils::fit({0, 0, -100, 50}, {0, 0, 200, 200});
    EXPECT_FALSE(std::isnan(r.width()));
    EXPECT_FALSE(std::isnan(r.height()));
}

TEST(GeometryScale, ScaleNeededToFitSource) {
    EXPECT_EQ(GeometryUtils::scaleNeededToFitSource({0, 0}, {100, 100}), 1.0);
    EXPECT_EQ(GeometryUtils::scaleNeededToFitSource({100, 50}, {200, 200}), 2.0);
    EXPECT_EQ(GeometryUtils::scaleNeededToFitSource({1920, 1080}, {960, 1080}), 0.5);
    // Only one zero side: the other side's ratio decides.
    EXPECT_EQ(GeometryUtils::scaleNeededToFitSource({0, 100}, {50, 50}), 0.5);
}

TEST(GeometryScale, OffsetToCenterUsesUnscaledSizesAlongTheFreeAxis) {
    // Height ratio 4 is not smaller than width ratio 2: offset in y.
    EXPECT_EQ(GeometryUtils::offsetToCenter({100, 50}, {200, 200}), Point(0, 75));
    // Height ratio 2 is smaller than width ratio 4: offset in x.
    EXPECT_EQ(GeometryUtils::offsetToCenter({50, 100}, {200, 200}), Point(75, 0));
    // Equal ratios: the y branch.
    EXPECT_EQ(GeometryUtils::offsetToCenter({100, 100}, {200, 200}), Point(0, 50));
}

TEST(GeometryScale, ScaleToViewKeepsSizeForEmptyCanvas) {
    EXPECT_EQ(GeometryUtils::scale({10, 20}, {0, 0, 0, 0}, {50, 50}), Size(10, 20));
    EXPECT_EQ(GeometryUtils::scale({10, 20}, {7, 7, 100, 100}, {50, 200}), Size(5, 10));
    EXPECT_EQ(GeometryUtils::scale({10, 20}, {0, 0, 100, 100}, {400, 300}), Size(30, 60));
}

TEST(GeometryScale, DistanceFromZeroToFitSize) {
    EXPECT_NEAR(GeometryUtils::distanceFromZeroToFitSize({0, 2}, 90), -1.0, 1e-12);
    EXPECT_NEAR(GeometryUtils::distanceFromZeroToFitSize({0, 1080}, 60),
                -540.0 / std::tan(M_PI / 6), 1e-9);
}

}  // namespace
}  // namespace zdr
