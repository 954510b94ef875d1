#include "zdr/logging/detail/printf_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>

namespace zdr::detail {
namespace {

TEST(PrintfFormat, AgreesWithPrintfOnWellFormedDirectives) {
    char expected[256];
    std::snprintf(expected, sizeof expected, "%d %i %u %o %x %X %c %s %5.2f %e %g %a %%", -7, 42,
                  3000000000u, 8u, 255u, 255u, 'q', "str", 3.14159, 12345.678, 0.5, 1.0);
    EXPECT_EQ(stringWithFormat("%d %i %u %o %x %X %c %s %5.2f %e %g %a %%", -7, 42, 3000000000u, 8u,
                               255u, 255u, 'q', "str", 3.14159, 12345.678, 0.5, 1.0),
              expected);
    std::snprintf(expected, sizeof expected, "%ld %lld %zu %hhd %hd %jd %td %Lf %-6s| %+05d %#x",
                  LONG_MIN, LLONG_MAX, sizeof(int), 300, 70000, static_cast<intmax_t>(-1),
                  static_cast<ptrdiff_t>(9), 2.5L, "ab", 42, 16u);
    EXPECT_EQ(stringWithFormat("%ld %lld %zu %hhd %hd %jd %td %Lf %-6s| %+05d %#x", LONG_MIN,
                               LLONG_MAX, sizeof(int), 300, 70000, static_cast<intmax_t>(-1),
                               static_cast<ptrdiff_t>(9), 2.5L, "ab", 42, 16u),
              expected);
    EXPECT_EQ(stringWithFormat("%qd", 5LL), "5");
    EXPECT_EQ(stringWithFormat("%ls|%lc", L"wide", static_cast<wint_t>(L'w')), "wide|w");
}

TEST(PrintfFormat, CapitalLWithAnIntegerConversionReadsALongLongAsGlibcDoes) {
    // glibc reads %Ld and its siblings as long long; reading an int instead
    // takes half the argument and shifts every argument after it.
    const std::string format = "%Ld|%Li|%Lu|%Lx|%LX|%Lo|%+8Ld|%s";
    const long long minusOne = -1;
    const unsigned long long big = 1ULL << 40, hex = 1ULL << 36;
    char expected[256];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(expected, sizeof expected, format.c_str(), minusOne, LLONG_MIN, big, hex, hex,
                  big, 5LL, "end");
#pragma GCC diagnostic pop
    EXPECT_STREQ(expected,
                 "-1|-9223372036854775808|1099511627776|1000000000|1000000000|"
                 "20000000000000|      +5|end");
    EXPECT_EQ(stringWithFormat(format.c_str(), minusOne, LLONG_MIN, big, hex, hex, big, 5LL, "end"),
              expected);
}

TEST(PrintfFormat, ObjectDirectiveTakesAUtf8StringAndNullIsReadable) {
    EXPECT_EQ(stringWithFormat("[%@] [%10@]", "gr\xC3\xBC\xC3\x9F", "r"),
              "[gr\xC3\xBC\xC3\x9F] [         r]");
    EXPECT_EQ(
        stringWithFormat("%@ %s %ls", static_cast<const char*>(nullptr),
                         static_cast<const char*>(nullptr), static_cast<const wchar_t*>(nullptr)),
        "(null) (null) (null)");
}

TEST(PrintfFormat, StarWidthsAndPrecisions) {
    EXPECT_EQ(stringWithFormat("[%*d|%-*d|%.*s|%.*f]", 4, 7, 3, 1, 2, "abcdef", -1, 1.5),
              "[   7|1  |ab|1.500000]");
}

TEST(PrintfFormat, MalformedDirectivesStayTextAndConsumeNothing) {
    EXPECT_EQ(stringWithFormat("100%"), "100%");
    EXPECT_EQ(stringWithFormat("%y then %d", 5), "%y then 5");
    EXPECT_EQ(stringWithFormat("%2$s then %d", 6), "%2$s then 6");
    EXPECT_EQ(stringWithFormat("%-"), "%-");
    EXPECT_EQ(stringWithFormat("%ll"), "%ll");
    int count = 99;
    EXPECT_EQ(stringWithFormat("ab%ncd %d", &count, 1), "abcd 1");
    EXPECT_EQ(count, 99);
}

TEST(PrintfFormat, HugeWidthsAreCut) {
    EXPECT_EQ(stringWithFormat("%999999999999d", 1).size(), 4096u);
    EXPECT_EQ(stringWithFormat("%.999999999f", 1.0).size(), 2u + 4096u);
    EXPECT_EQ(stringWithFormat("%*d", INT_MIN, 1).size(), 4096u);
}

TEST(PrintfFormat, NullFormatAndFormatsWithoutArguments) {
    std::string out = "x";
    va_list none{};
    (void)none;
    EXPECT_EQ(stringWithFormat(nullptr), "");
    appendPrintfWithoutArguments(out, "a %% b %d c %");
    EXPECT_EQ(out, "xa % b %d c %");
}

}  // namespace
}  // namespace zdr::detail
