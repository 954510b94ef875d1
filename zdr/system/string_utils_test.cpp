#include "zdr/system/string_utils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace zdr {
namespace {

using Opt = StringCompareOptions;

class HomeOverride {
 public:
    explicit HomeOverride(const char* home) {
        if (const char* old = std::getenv("HOME")) old_ = old;
        ::setenv("HOME", home, 1);
    }
    ~HomeOverride() {
        if (old_) {
            ::setenv("HOME", old_->c_str(), 1);
        } else {
            ::unsetenv("HOME");
        }
    }

 private:
    std::optional<std::string> old_;
};

TEST(StringUtils, ExpandingTildeReplacesEveryTilde) {
    HomeOverride home("/home/ann");
    EXPECT_EQ(expandingTildeInPath("~/Movies"), "/home/ann/Movies");
    EXPECT_EQ(expandingTildeInPath("a~b~"), "a/home/annb/home/ann");
    EXPECT_EQ(expandingTildeInPath("/no/tilde"), "/no/tilde");
}

TEST(StringUtils, ExpandingTildeWithoutHomeUsesThePasswordDatabase) {
    HomeOverride home("");
    std::string expanded = expandingTildeInPath("~");
    EXPECT_FALSE(expanded.empty());
    EXPECT_EQ(expanded.find('~'), std::string::npos);
    EXPECT_EQ(expanded[0], '/');
}

TEST(StringUtils, OptionalText) {
    EXPECT_EQ(optionalText("Device", "USB Mic"), "[Device: USB Mic]");
    EXPECT_EQ(optionalText("Device", ""), "");
    EXPECT_EQ(optionalText("Device", std::nullopt), "");
}

TEST(StringUtils, RemoveNonAlphaNumericsKeepsUnicodeLettersAndDigits) {
    EXPECT_EQ(removeNonAlphaNumerics("  Take #2 -- final!! "), "Take 2 final");
    EXPECT_EQ(removeNonAlphaNumerics("Ελλάδα, 2024: Καλημέρα"), "Ελλάδα 2024 Καλημέρα");
    EXPECT_EQ(removeNonAlphaNumerics("Café—Zoë’s\u00a0show"), "Café Zoë s show");
    // A combining accent belongs to its letter.
    EXPECT_EQ(removeNonAlphaNumerics("e\u0301te\u0301"), "e\u0301te\u0301");
    EXPECT_EQ(removeNonAlphaNumerics("日本語の録画 ٣"), "日本語の録画 ٣");
    EXPECT_EQ(removeNonAlphaNumerics("!!! ---"), "");
    EXPECT_EQ(removeNonAlphaNumerics(""), "");
}

TEST(StringUtils, RemoveNonAlphaNumericsCutsAtInvalidUTF8) {
    EXPECT_EQ(removeNonAlphaNumerics(std::string("ab\xff"
                                                 "cd\xc3",
                                                 6)),
              "ab cd");
    EXPECT_EQ(removeNonAlphaNumerics(std::string("\xe2\x82", 2)), "");
}

TEST(StringUtils, MatchesWordsOfIsPositional) {
    EXPECT_TRUE(matchesWordsOf("The Big Show", "the big deal", 2, Opt::caseInsensitive));
    EXPECT_FALSE(matchesWordsOf("The Big Show", "the big deal", 3, Opt::caseInsensitive));
    EXPECT_FALSE(matchesWordsOf("The Big Show", "the big deal", 2));
    EXPECT_TRUE(matchesWordsOf("The Big Show", "The Big deal", 2));
    // Common words in other places do not count.
    EXPECT_FALSE(matchesWordsOf("Big Show", "Show Big", 1));
    EXPECT_FALSE(matchesWordsOf("a b", "a b", 0));
    EXPECT_FALSE(matchesWordsOf("a b", "a b", -1));
    EXPECT_FALSE(matchesWordsOf("a", "a b", 2));
    EXPECT_TRUE(matchesWordsOf("a, b!", "a b c", 2));
}

TEST(StringUtils, MatchesWordsOfDiacriticAndCaseOptions) {
    EXPECT_FALSE(matchesWordsOf("Crème brûlée", "creme brulee", 2, Opt::caseInsensitive));
    EXPECT_FALSE(matchesWordsOf("Crème brûlée", "Creme brulee", 2));
    EXPECT_TRUE(matchesWordsOf("Crème brûlée", "Creme brulee", 2, Opt::diacriticInsensitive));
    EXPECT_TRUE(matchesWordsOf("Crème brûlée", "CREME BRULEE", 2,
                               Opt::caseInsensitive | Opt::diacriticInsensitive));
    // Precomposed and decomposed forms are the same text.
    EXPECT_TRUE(matchesWordsOf("caf\u00e9", "cafe\u0301", 1));
    EXPECT_TRUE(matchesWordsOf("ΚΑΛΗΜΈΡΑ", "καλημέρα", 1, Opt::caseInsensitive));
    EXPECT_TRUE(matchesWordsOf("Straße", "STRASSE", 1, Opt::caseInsensitive));
}

TEST(StringUtils, Initials) {
    EXPECT_EQ(initials("john ronald reuel tolkien"), "JRRT");
    EXPECT_EQ(initials("  émile   zola "), "ÉZ");
    EXPECT_EQ(initials("e\u0301mile"), "E\u0301");  // the whole first character
    EXPECT_EQ(initials("ωμέγα άλφα"), "ΩΆ");
    EXPECT_EQ(initials("   "), "");
    EXPECT_EQ(initials(""), "");
    EXPECT_EQ(initials(std::string("\xff"
                                   "abc def",
                                   8)),
              "AD");
}

TEST(StringUtils, OSTypeToStringIsDecimalNotFourCharacters) {
    const std::uint32_t aaaa = ('A' << 24) | ('A' << 16) | ('A' << 8) | 'A';
    EXPECT_EQ(osTypeToString(aaaa), "1094795585");
    EXPECT_EQ(osTypeToString(0), "0");
    EXPECT_EQ(osTypeToString(0xFFFFFFFFu), "4294967295");
}

}  // namespace
}  // namespace zdr
