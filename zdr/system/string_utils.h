// String utilities for labels and file names: tilde expansion, optional
// labelled text, splitting text into words of letters and digits, word-wise
// matching with case- and diacritic-insensitive comparison, initials, and the
// decimal form of a four-character code.
//
// Text is UTF-8. "Letter or digit" and "white space" are Unicode's classes
// (general categories L*, M*, N* and Zs plus tab), so a Greek or accented
// title keeps its letters. Bytes that are not valid UTF-8 count as neither:
// they separate words and never reach a result.
//
// Threads: any; no shared state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zdr {

/// Comparison options of matchesWordsOf (the values of the original
/// platform's string-comparison options).
enum class StringCompareOptions : unsigned {
    none = 0,
    caseInsensitive = 1,
    diacriticInsensitive = 128,
};
constexpr StringCompareOptions operator|(StringCompareOptions a, StringCompareOptions b) {
    return static_cast<StringCompareOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool hasOption(StringCompareOptions set, StringCompareOptions option) {
    return (static_cast<unsigned>(set) & static_cast<unsigned>(option)) != 0;
}

/// The string with every "~" replaced by the current user's home folder ($HOME,
/// else the password database's entry).
std::string expandingTildeInPath(std::string_view string);

/// "[" + label + ": " + text + "]" when text is present and not empty, else "".
std::string optionalText(std::string_view label, std::optional<std::string_view> text);

/// The string cut at every character that is not a letter or digit, empty
/// pieces dropped, the rest joined with single spaces: "Take #2 — Ελλάδα!"
/// gives "Take 2 Ελλάδα".
std::string removeNonAlphaNumerics(std::string_view string);

/// Word-wise, positional comparison: both texts become words
/// (removeNonAlphaNumerics, split at spaces); true when the first `mustMatch`
/// words compare equal pairwise under `opt`. False when mustMatch is 0 or
/// less or either text has fewer words. Comparison is always between
/// canonically equivalent forms (a precomposed "é" equals "e" + U+0301).
bool matchesWordsOf(std::string_view string, std::string_view other, long mustMatch,
                    StringCompareOptions opt = StringCompareOptions::none);

/// The string upper-cased, split at spaces, and the first character (grapheme
/// cluster) of each non-empty word concatenated; "" when there are no words.
std::string initials(std::string_view string);

/// The decimal digits of the number: deliberately not the four-character
/// code ("AAAA" = 0x41414141 gives "1094795585").
std::string osTypeToString(std::uint32_t code);

}  // namespace zdr
