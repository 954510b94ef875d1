#include "zdr/logging/error_additions.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zdr {
namespace {

std::string description(const Error& e) {
    auto text = dictionaryGet<std::string>(e.userInfo, kNSLocalizedDescriptionKey);
    return text.value_or("<none>");
}

TEST(ErrorExtensions, CreateWithANullOutParameterStillAnswersTrue) {
    EXPECT_TRUE(ErrorExtensions::create(nullptr, nullptr, "ignored %d", 1));
    EXPECT_TRUE(ErrorExtensions::create(nullptr, "ignored %s", "x"));
}

TEST(ErrorExtensions, CreateFormatsIntoADomainZdrError) {
    Error error;
    EXPECT_TRUE(ErrorExtensions::create(&error, nullptr, "device %@ failed with %d", "mic", -50));
    EXPECT_EQ(error.domain, "ZDR");
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(description(error), "device mic failed with -50");
    EXPECT_EQ(error.userInfo.count(kNSErrorAdditionsUnderlyingExceptionStackTrace), 0u);
}

TEST(ErrorExtensions, CreateCausedByAnExceptionCarriesItsStackTrace) {
    Exception cause("CAException", "status 1852797029");
    Error error;
    ErrorExtensions::create(&error, &cause, "could not read %s", "volume");
    auto trace =
        dictionaryGet<std::string>(error.userInfo, kNSErrorAdditionsUnderlyingExceptionStackTrace);
    ASSERT_TRUE(trace.has_value());
    EXPECT_EQ(*trace, stackTraceForException(cause));
    EXPECT_FALSE(trace->empty());
}

TEST(ErrorExtensions, CreateFormatReadsTheMessageAsAFormatASecondTime) {
    Error error;
    ErrorExtensions::create(&error, "level at %s", "50%%");
    EXPECT_EQ(description(error), "level at 50%");
    // Directives that would need arguments in the second pass stay as text.
    ErrorExtensions::create(&error, "name %s", "100%s and %d");
    EXPECT_EQ(description(error), "name 100%s and %d");
}

TEST(ErrorExtensions, ErrorWithMessage) {
    Error error = ErrorExtensions::errorWithMessage("no such device");
    EXPECT_EQ(error.domain, "ZDR");
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(error.localizedDescription(), "no such device");
}

TEST(ExceptionStack, OneLinePerReturnAddress) {
    Exception exception("X", "reason");
    auto symbols = backtraceSymbols(exception);
    ASSERT_FALSE(exception.callStackReturnAddresses().empty());
    EXPECT_EQ(symbols.size(), exception.callStackReturnAddresses().size());
    std::string trace = stackTraceForException(exception);
    EXPECT_EQ(static_cast<std::size_t>(std::count(trace.begin(), trace.end(), '\n')),
              symbols.size());
    EXPECT_EQ(trace.back(), '\n');
    EXPECT_NE(trace.find("logging_tests"), std::string::npos) << trace;
}

TEST(ObjCExceptionPropagation, ExceptionsBecomeErrorsInTheirNamesDomain) {
    Error error("untouched", 9);
    EXPECT_TRUE(ObjCExceptionPropagation::catchException([] {}, &error));
    EXPECT_EQ(error.domain, "untouched");

    Dictionary info;
    info["key"] = std::string("value");
    EXPECT_FALSE(ObjCExceptionPropagation::catchException(
        [&] { throw Exception("NSInvalidArgumentException", "bad", info); }, &error));
    EXPECT_EQ(error.domain, "NSInvalidArgumentException");
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(dictionaryGet<std::string>(error.userInfo, "key"), "value");

    EXPECT_THROW(ObjCExceptionPropagation::catchException(
                     [] { throw std::runtime_error("other kind"); }, &error),
                 std::runtime_error);
}

}  // namespace
}  // namespace zdr
