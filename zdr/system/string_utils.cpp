#include "zdr/system/string_utils.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include <utf8proc.h>

#include "zdr/system/string_utils_internal.h"

namespace zdr {

namespace detail {

namespace {

// One step through UTF-8: the code point and its length, or -1 as the code
// point for a byte that does not start a valid sequence (length 1).
struct Step {
    char32_t codePoint;
    bool valid;
    std::size_t length;
};

Step step(std::string_view text, std::size_t at) {
    utf8proc_int32_t cp = 0;
    auto n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + at),
                              static_cast<utf8proc_ssize_t>(text.size() - at), &cp);
    if (n <= 0) return {0, false, 1};
    return {static_cast<char32_t>(cp), true, static_cast<std::size_t>(n)};
}

void appendUTF8(std::string& out, char32_t cp) {
    utf8proc_uint8_t buffer[4];
    auto n = utf8proc_encode_char(static_cast<utf8proc_int32_t>(cp), buffer);
    out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(n));
}

}  // namespace

bool isAlphaNumeric(char32_t codePoint) {
    if (codePoint < 0x80) {
        return (codePoint >= '0' && codePoint <= '9') ||
               ((codePoint | 0x20) >= 'a' && (codePoint | 0x20) <= 'z');
    }
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(codePoint))) {
        case UTF8PROC_CATEGORY_LU:
        case UTF8PROC_CATEGORY_LL:
        case UTF8PROC_CATEGORY_LT:
        case UTF8PROC_CATEGORY_LM:
        case UTF8PROC_CATEGORY_LO:
        case UTF8PROC_CATEGORY_MN:
        case UTF8PROC_CATEGORY_MC:
        case UTF8PROC_CATEGORY_ME:
        case UTF8PROC_CATEGORY_ND:
        case UTF8PROC_CATEGORY_NL:
        case UTF8PROC_CATEGORY_NO:
            return true;
        default:
            return false;
    }
}

bool isWhitespace(char32_t codePoint) {
    if (codePoint == '\t' || codePoint == ' ') return true;
    if (codePoint < 0x80) return false;
    return utf8proc_category(static_cast<utf8proc_int32_t>(codePoint)) == UTF8PROC_CATEGORY_ZS;
}

std::string trimWhitespace(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        auto s = step(text, begin);
        if (!s.valid || !isWhitespace(s.codePoint)) break;
        begin += s.length;
    }
    std::size_t end = begin;
    for (std::size_t at = begin; at < text.size();) {
        auto s = step(text, at);
        at += s.length;
        if (!s.valid || !isWhitespace(s.codePoint)) end = at;
    }
    return std::string(text.substr(begin, end - begin));
}

std::vector<std::string_view> splitAtSpaces(std::string_view text) {
    std::vector<std::string_view> words;
    std::size_t start = 0;
    while (start <= text.size()) {
        auto space = text.find(' ', start);
        if (space == std::string_view::npos) space = text.size();
        if (space > start) words.push_back(text.substr(start, space - start));
        start = space + 1;
    }
    return words;
}

}  // namespace detail

std::string expandingTildeInPath(std::string_view string) {
    if (string.find('~') == std::string_view::npos) return std::string(string);
    std::string home;
    if (const char* env = std::getenv("HOME"); env != nullptr && *env != '\0') {
        home = env;
    } else {
        long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
        passwd entry{};
        passwd* found = nullptr;
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
            found != nullptr && found->pw_dir != nullptr) {
            home = found->pw_dir;
        }
    }
    std::string result;
    result.reserve(string.size() + home.size());
    for (char c : string) {
        if (c == '~') {
            result += home;
        } else {
            result += c;
        }
    }
    return result;
}

std::string optionalText(std::string_view label, std::optional<std::string_view> text) {
    if (!text || text->empty()) return {};
    std::string result;
    result.reserve(label.size() + text->size() + 4);
    result += '[';
    result += label;
    result += ": ";
    result += *text;
    result += ']';
    return result;
}

std::string removeNonAlphaNumerics(std::string_view string) {
    std::string result;
    result.reserve(string.size());
    bool inPiece = false;
    for (std::size_t at = 0; at < string.size();) {
        auto s = detail::step(string, at);
        if (s.valid && detail::isAlphaNumeric(s.codePoint)) {
            // Pieces hold letters and digits only, so they need no trimming;
            // a new piece after an earlier one gets its single space.
            if (!inPiece && !result.empty()) result += ' ';
            result.append(string.substr(at, s.length));
            inPiece = true;
        } else {
            inPiece = false;
        }
        at += s.length;
    }
    return result;
}

namespace {

// The form two words are compared in: canonically composed, case-folded
// and/or stripped of marks as asked. Words come from removeNonAlphaNumerics,
// so they are valid UTF-8.
std::string comparable(std::string_view word, StringCompareOptions opt) {
    int flags = UTF8PROC_STABLE | UTF8PROC_COMPOSE;
    if (hasOption(opt, StringCompareOptions::caseInsensitive)) flags |= UTF8PROC_CASEFOLD;
    if (hasOption(opt, StringCompareOptions::diacriticInsensitive)) flags |= UTF8PROC_STRIPMARK;
    utf8proc_uint8_t* mapped = nullptr;
    auto n = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(word.data()),
                          static_cast<utf8proc_ssize_t>(word.size()), &mapped,
                          static_cast<utf8proc_option_t>(flags));
    if (n < 0) return std::string(word);
    std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(mapped, &std::free);
    return std::string(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(n));
}

}  // namespace

bool matchesWordsOf(std::string_view string, std::string_view other, long mustMatch,
                    StringCompareOptions opt) {
    const std::string ownText = removeNonAlphaNumerics(string);
    const std::string otherText = removeNonAlphaNumerics(other);
    const auto own = detail::splitAtSpaces(ownText);
    const auto theirs = detail::splitAtSpaces(otherText);
    const long m = static_cast<long>(std::min(own.size(), theirs.size()));
    if (mustMatch <= 0 || m < mustMatch) return false;
    long count = 0;
    for (long i = 0; i < std::min(m, mustMatch); ++i) {
        const auto a = static_cast<std::size_t>(i);
        if (comparable(own[a], opt) == comparable(theirs[a], opt)) {
            if (++count >= mustMatch) return true;
        }
    }
    return false;
}

std::string initials(std::string_view string) {
    // Upper-case first (bytes that are not UTF-8 are left out), then take the
    // first grapheme cluster of every word, so "émile zola" gives "ÉZ" and a
    // letter with a combining accent keeps its accent.
    std::vector<char32_t> upper;
    upper.reserve(string.size());
    for (std::size_t at = 0; at < string.size();) {
        auto s = detail::step(string, at);
        at += s.length;
        if (s.valid) {
            upper.push_back(static_cast<char32_t>(
                utf8proc_toupper(static_cast<utf8proc_int32_t>(s.codePoint))));
        }
    }
    std::string result;
    std::size_t i = 0;
    while (i < upper.size()) {
        if (upper[i] == U' ') {
            ++i;
            continue;
        }
        // The first grapheme cluster of this word.
        utf8proc_int32_t state = 0;
        detail::appendUTF8(result, upper[i]);
        std::size_t j = i + 1;
        while (j < upper.size() && upper[j] != U' ' &&
               !utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(upper[j - 1]),
                                                 static_cast<utf8proc_int32_t>(upper[j]), &state)) {
            detail::appendUTF8(result, upper[j]);
            ++j;
        }
        while (j < upper.size() && upper[j] != U' ') ++j;
        i = j;
    }
    return result;
}

std::string osTypeToString(std::uint32_t code) { return std::to_string(code); }

}  // namespace zdr
