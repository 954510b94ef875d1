#include "zdr/runtime/uuid.h"

#include <gtest/gtest.h>

#include <set>

namespace zdr {
namespace {

TEST(UUIDTest, RandomIsVersion4UpperCaseAndUnique) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        auto text = UUID::random().uuidString();
        ASSERT_EQ(text.size(), 36u);
        EXPECT_EQ(text[14], '4');
        EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos);
        for (char c : text) EXPECT_FALSE(c >= 'a' && c <= 'z') << text;
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST(UUIDTest, ParsesEitherCaseAndRejectsMalformedText) {
    auto u = UUID::random();
    EXPECT_EQ(UUID::fromString(u.uuidString()), u);
    std::string lower = u.uuidString();
    for (auto& c : lower) c = static_cast<char>(std::tolower(c));
    EXPECT_EQ(UUID::fromString(lower), u);
    EXPECT_FALSE(UUID::fromString(""));
    EXPECT_FALSE(UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5"));   // short
    EXPECT_FALSE(UUID::fromString("E621E1F8-C36C-495A-93FC+0C247A3E6E5F"));  // separator
    EXPECT_FALSE(UUID::fromString("G621E1F8-C36C-495A-93FC-0C247A3E6E5F"));  // not hex
}

}  // namespace
}  // namespace zdr
