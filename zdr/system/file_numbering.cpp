#include "zdr/system/file_numbering.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <dirent.h>
#include <pcre2.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <filesystem>
#include <memory>
#include <system_error>

#include "zdr/system/string_utils.h"
#include "zdr/system/string_utils_internal.h"
#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

namespace {

struct NameParts {
    std::string_view base;
    std::string_view extension;
};

// The name without its extension, and the extension without its dot. A dot
// that starts the last path component (".hidden") or ends the name starts no
// extension.
NameParts splitName(std::string_view name) {
    auto slash = name.rfind('/');
    std::size_t componentStart = slash == std::string_view::npos ? 0 : slash + 1;
    auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot <= componentStart || dot + 1 == name.size()) {
        return {name, {}};
    }
    return {name.substr(0, dot), name.substr(dot + 1)};
}

constexpr std::size_t kJitThreshold = 256;

struct CodeDeleter {
    void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct MatchDataDeleter {
    void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

// Digits as a decimal integer; none for digits outside ASCII (Unicode \d
// also matches other scripts' digits) or a number too large for a long.
std::optional<long> parseDecimal(std::string_view digits) {
    long value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return value;
}

std::string numberedName(std::string_view base, long number, std::string_view extension) {
    std::string name(base);
    name += ' ';
    name += std::to_string(number);
    if (!extension.empty()) {
        name += '.';
        name += extension;
    }
    return name;
}

bool pathExists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

std::optional<long> nextHighestNumberFor(std::string_view filename,
                                         const std::vector<std::string>& content) {
    if (content.empty()) return std::nullopt;
    const auto parts = splitName(filename);
    // Base and extension go in as they stand: the applications rely on this
    // loose pattern (no escaping, any character before the extension, no
    // anchors), so it is kept as it is.
    std::string pattern;
    pattern.reserve(parts.base.size() + parts.extension.size() + 16);
    pattern.append(parts.base);
    pattern.append("[\\s ]*(\\d*).");
    pattern.append(parts.extension);

    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    std::unique_ptr<pcre2_code, CodeDeleter> code(
        pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                      PCRE2_CASELESS | PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF, &errorCode,
                      &errorOffset, nullptr));
    if (!code) return std::nullopt;
    // Compiled once per call; for a large folder also to machine code (where
    // the platform allows), which costs more than it saves on a few names.
    if (content.size() >= kJitThreshold) (void)pcre2_jit_compile(code.get(), PCRE2_JIT_COMPLETE);
    std::unique_ptr<pcre2_match_data, MatchDataDeleter> match(
        pcre2_match_data_create_from_pattern(code.get(), nullptr));
    if (!match) return std::nullopt;

    long highest = 0;
    for (const auto& name : content) {
        int rc = pcre2_match(code.get(), reinterpret_cast<PCRE2_SPTR>(name.data()), name.size(), 0,
                             0, match.get(), nullptr);
        if (rc < 2) continue;  // no match, an error, or no capture
        const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(match.get());
        if (ovector[2] == PCRE2_UNSET) continue;
        std::string_view digits(name.data() + ovector[2], ovector[3] - ovector[2]);
        if (digits.empty()) {
            highest = std::max(highest, 1L);
        } else if (auto number = parseDecimal(digits)) {
            highest = std::max(highest, *number);
        }
    }
    if (highest <= 0) return std::nullopt;
    if (highest == LONG_MAX) {
        detail::fatalError("nextHighestNumberFor: the number after " + std::to_string(highest) +
                           " overflows");
    }
    return highest + 1;
}

std::string uniquelyNumbered(std::string_view folder, std::string_view nameWithExtension) {
    std::string expanded = expandingTildeInPath(folder);
    std::string prefix = expanded;
    if (prefix.empty() || prefix.back() != '/') prefix += '/';

    const auto parts = splitName(nameWithExtension);
    const std::string base = detail::trimWhitespace(parts.base);
    const std::string extension = detail::trimWhitespace(parts.extension);

    std::optional<long> number;
    struct stat st {};
    if (::stat(expanded.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(expanded.c_str()), &::closedir);
        if (!dir) {
            throw std::filesystem::filesystem_error(
                "Cannot list the folder", expanded,
                std::error_code(errno, std::generic_category()));
        }
        std::vector<std::string> listing;
        errno = 0;
        while (const dirent* entry = ::readdir(dir.get())) {
            const char* n = entry->d_name;
            if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
            listing.emplace_back(n);
        }
        if (errno != 0) {
            throw std::filesystem::filesystem_error(
                "Cannot list the folder", expanded,
                std::error_code(errno, std::generic_category()));
        }
        number = nextHighestNumberFor(nameWithExtension, listing);
    }

    std::string candidate = number ? prefix + numberedName(base, *number, extension)
                                   : prefix + std::string(nameWithExtension);
    // The rule above looks at names that match its pattern; a name it cannot
    // see (a base that does not match itself as a pattern, a file made since
    // the listing) must still never be handed out.
    long next = number ? *number : 1;
    while (pathExists(candidate)) {
        if (next == LONG_MAX) {
            throw std::filesystem::filesystem_error("No free numbered name", expanded,
                                                    std::make_error_code(std::errc::file_exists));
        }
        ++next;
        candidate = prefix + numberedName(base, next, extension);
    }
    return candidate;
}

std::optional<std::string> uniquelyNumbered(std::string_view folder,
                                            std::string_view nameWithExtension, Error* error) {
    try {
        return uniquelyNumbered(folder, nameWithExtension);
    } catch (const std::filesystem::filesystem_error& e) {
        if (error != nullptr) {
            *error = Error("NSPOSIXErrorDomain", e.code().value(),
                           {{kNSLocalizedDescriptionKey, std::string(e.what())}});
        }
        return std::nullopt;
    }
}

}  // namespace zdr
