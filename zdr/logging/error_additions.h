// Error and exception helpers for code that reports failures as Error values:
// building errors from printf-style formats, attaching the stack trace of the
// exception that caused an error, and running a block so that a zdr::Exception
// it throws becomes an Error instead of unwinding through callers that cannot
// handle exceptions (C callbacks, for one).
//
// Errors built here have the domain "ZDR" and code 0, with the message under
// kNSLocalizedDescriptionKey. Formats are those of app_log.h (printf plus %@
// for a UTF-8 C string).
//
// Threads: all functions may be called from any thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "zdr/runtime/error.h"

namespace zdr {

/// The error domain of the library.
inline constexpr const char* kZDRErrorDomain = "ZDR";
/// User-info key of the stack trace text of the exception behind an error.
inline constexpr const char* kNSErrorAdditionsUnderlyingExceptionStackTrace =
    "kNSErrorAdditionsUnderlyingExceptionStackTrace";

struct ErrorExtensions {
    /// If `error` is not null, stores a new error whose message is `format`
    /// formatted with the arguments and, when `causedBy` is not null, whose
    /// user info holds the exception's stack trace. Always returns true (the
    /// result marks that the error path was taken, also for a null `error`).
    static bool create(Error* error, const Exception* causedBy, const char* format, ...);

    /// Formats the message, then hands it to the form above as its format.
    /// The text is therefore read as a format a second time, as the existing
    /// callers expect: "%%" that survives the first pass becomes "%". Other
    /// directives of the second pass have no arguments and stay as text.
    static bool create(Error* error, const char* format, ...);

    /// An error in domain "ZDR" with code 0 and `message` as its description.
    static Error errorWithMessage(const std::string& message);
};

/// The exception's return addresses as symbolic text, one entry per address
/// (through the C library's backtrace_symbols); empty if that fails.
std::vector<std::string> backtraceSymbols(const Exception& exception);

/// The entries of backtraceSymbols(), each followed by a newline.
std::string stackTraceForException(const Exception& exception);

struct ObjCExceptionPropagation {
    /// Runs `block`. True if it returns normally. If it throws a
    /// zdr::Exception, stores in `error` (when not null) an error whose domain
    /// is the exception's name, with code 0 and the exception's user info,
    /// and returns false. Other exceptions propagate.
    static bool catchException(const std::function<void()>& block, Error* error);
};

}  // namespace zdr
