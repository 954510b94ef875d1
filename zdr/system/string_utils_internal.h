// Internal helpers of the string and file-name utilities: UTF-8 walking with
// Unicode character classes (utf8proc).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zdr::detail {

/// Letters, marks and digits (general categories L*, M*, N*).
bool isAlphaNumeric(char32_t codePoint);
/// Space separators (Zs) and tab: the "white space" of names and labels.
bool isWhitespace(char32_t codePoint);
/// The string without leading and trailing white space.
std::string trimWhitespace(std::string_view text);
/// The string split at " ", empty pieces dropped.
std::vector<std::string_view> splitAtSpaces(std::string_view text);

}  // namespace zdr::detail
