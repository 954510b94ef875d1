#include "zdr/runtime/bundle.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace zdr {
namespace {

TEST(BundleTest, EnvironmentSeedsTheMainBundleAndTheHostCanOverride) {
    // Bundle::main() reads the environment on first use; each test runs in its
    // own process, so setting it here comes first.
    ::setenv("ZDR_BUNDLE_IDENTIFIER", "com.example.recorder", 1);
    ::setenv("ZDR_BUNDLE_SHORT_VERSION", "2.4", 1);
    auto& b = Bundle::main();
    EXPECT_EQ(b.bundleIdentifier(), std::optional<std::string>("com.example.recorder"));
    EXPECT_EQ(b.shortVersion(), std::optional<std::string>("2.4"));
    EXPECT_FALSE(b.displayName());
    b.setInfo(kCFBundleDisplayNameKey, "Recorder");
    EXPECT_EQ(b.displayName(), std::optional<std::string>("Recorder"));
    b.setInfo(kCFBundleDisplayNameKey, std::nullopt);
    EXPECT_FALSE(b.displayName());
}

TEST(BundleTest, BuildDateIsTheExecutablesModificationTime) {
    Bundle b;
    auto date = b.buildDate();
    ASSERT_TRUE(date);
    EXPECT_LE(*date, std::chrono::system_clock::now());
    EXPECT_NE(b.executablePath().find("runtime_tests"), std::string::npos);
}

}  // namespace
}  // namespace zdr
