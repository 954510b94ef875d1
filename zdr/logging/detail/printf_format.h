// printf-style formatting for the C-callable entry points and the error
// helpers: printf's flags, width, precision, length modifiers and conversions,
// plus %@ for a NUL-terminated UTF-8 string (read like %s). As in glibc, L with
// an integer conversion (%Ld, %Lu, %Lx...) reads a long long.
//
// Made to survive bad formats: a null %s or %@ prints "(null)"; %n consumes
// its pointer and writes nothing; an unknown conversion, a positional argument
// (%1$d) or a lone % at the end is copied as text without consuming anything;
// widths and precisions above 4096 are cut to 4096. What it cannot check is
// the argument list: as with printf, each conversion must have its argument.
//
// Threads: pure functions; any thread.
#pragma once

#include <cstdarg>
#include <string>

namespace zdr::detail {

/// Appends `format` formatted with `args` to `out` (args is left untouched:
/// the function works on its own copy). A null format appends nothing.
void appendPrintf(std::string& out, const char* format, va_list args);

/// Reads `format` as a format that was given no arguments: "%%" becomes "%";
/// every other directive is copied as text (there is nothing to fill it).
void appendPrintfWithoutArguments(std::string& out, const char* format);

/// appendPrintf into a new string.
std::string stringWithFormat(const char* format, ...);

}  // namespace zdr::detail
