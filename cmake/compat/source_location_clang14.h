// std::source_location for clang 14 with libstdc++ 12 (Debian 12's clang).
//
// libstdc++ declares std::source_location only when the compiler has
// __builtin_source_location, which clang gained in version 15, so the logging
// headers do not compile with clang 14. The `fuzz` preset force-includes this
// header (-include); every other build uses the standard library's own type
// and never sees it. It is built on the older builtins that clang 14 has, which
// give the caller's place when used in default arguments, as the real one does.
#pragma once

#include <version>

// CMake's compiler checks compile with this header too, in the compiler's
// default language mode, where consteval does not exist yet.
#if defined(__clang__) && __cplusplus >= 202002L && !defined(__cpp_lib_source_location) && \
    !__has_builtin(__builtin_source_location)
#include <cstdint>

namespace std {

struct source_location {
    // constexpr rather than consteval: clang 14 refuses a consteval call as the
    // default argument of another consteval function (the log formats' own).
    static constexpr source_location current(const char* file = __builtin_FILE(),
                                             const char* function = __builtin_FUNCTION(),
                                             uint_least32_t line = __builtin_LINE(),
                                             uint_least32_t column = __builtin_COLUMN()) noexcept {
        source_location here;
        here.file_ = file;
        here.function_ = function;
        here.line_ = line;
        here.column_ = column;
        return here;
    }
    constexpr source_location() noexcept = default;
    constexpr uint_least32_t line() const noexcept { return line_; }
    constexpr uint_least32_t column() const noexcept { return column_; }
    constexpr const char* file_name() const noexcept { return file_; }
    constexpr const char* function_name() const noexcept { return function_; }

 private:
    const char* file_ = "";
    const char* function_ = "";
    uint_least32_t line_ = 0;
    uint_least32_t column_ = 0;
};

}  // namespace std

#endif
