// Error and Exception: the value type for expected failures (domain, code,
// user info, like NSError) and the exception type for programming errors that
// cross an API boundary (name, reason, user info and the return addresses of
// the stack where it was made, like NSException).
//
// Thread safety: value types.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include "zdr/runtime/dictionary.h"

namespace zdr {

/// User-info key of the human-readable description.
inline constexpr const char* kNSLocalizedDescriptionKey = "NSLocalizedDescription";
/// User-info key of the error that caused this one (value: zdr::Error).
inline constexpr const char* kNSUnderlyingErrorKey = "NSUnderlyingError";

struct Error {
    std::string domain;
    long code = 0;
    Dictionary userInfo;

    Error() = default;
    Error(std::string d, long c, Dictionary info = {})
        : domain(std::move(d)), code(c), userInfo(std::move(info)) {}

    /// The description under kNSLocalizedDescriptionKey, else a generic text
    /// naming the domain and code.
    std::string localizedDescription() const;
};

class Exception : public std::exception {
 public:
    /// Captures the current call stack's return addresses.
    Exception(std::string name, std::string reason, Dictionary userInfo = {});

    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }
    const Dictionary& userInfo() const { return userInfo_; }
    const std::vector<void*>& callStackReturnAddresses() const { return addresses_; }
    /// The return addresses resolved to text (one line a frame).
    std::vector<std::string> callStackSymbols() const;

    const char* what() const noexcept override { return reason_.c_str(); }

 private:
    std::string name_;
    std::string reason_;
    Dictionary userInfo_;
    std::vector<void*> addresses_;
};

/// Frames of `addresses` as text, through the C library's backtrace_symbols.
std::vector<std::string> symbolsForAddresses(const std::vector<void*>& addresses);

}  // namespace zdr
