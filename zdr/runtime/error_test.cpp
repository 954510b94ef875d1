#include "zdr/runtime/error.h"

#include <gtest/gtest.h>

namespace zdr {
namespace {

TEST(ErrorTest, DescriptionComesFromUserInfoOrNamesDomainAndCode) {
    Error described("ZDR", 0, {{kNSLocalizedDescriptionKey, std::string("Device is gone")}});
    EXPECT_EQ(described.localizedDescription(), "Device is gone");
    Error bare("com.example", 42);
    EXPECT_NE(bare.localizedDescription().find("com.example error 42"), std::string::npos);
}

[[gnu::noinline]] void throwFromHere() {
    throw Exception("NSInvalidArgumentException", "bad value");
}

TEST(ExceptionTest, CarriesNameReasonAndTheStackWhereItWasMade) {
    try {
        throwFromHere();
        FAIL() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "NSInvalidArgumentException");
        EXPECT_STREQ(e.what(), "bad value");
        ASSERT_GT(e.callStackReturnAddresses().size(), 2u);
        auto symbols = e.callStackSymbols();
        EXPECT_EQ(symbols.size(), e.callStackReturnAddresses().size());
        EXPECT_FALSE(symbols.front().empty());
    }
}

}  // namespace
}  // namespace zdr
