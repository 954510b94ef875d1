#include "zdr/system/geometry_types.h"

#include <gtest/gtest.h>

namespace zdr {
namespace {

TEST(RectTest, StandardTextForm) {
    EXPECT_EQ((Rect{0, 0, 1920, 1080}).description(), "{{0, 0}, {1920, 1080}}");
    EXPECT_EQ((Rect{-1280, 0.5, 1280, 1024}).description(), "{{-1280, 0.5}, {1280, 1024}}");
    EXPECT_EQ((Rect{-0.0, 0, 0, 0}).description(), "{{0, 0}, {0, 0}}");
}

}  // namespace
}  // namespace zdr
