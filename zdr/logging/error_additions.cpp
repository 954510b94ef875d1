#include "zdr/logging/error_additions.h"

#include <execinfo.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>

#include "zdr/logging/detail/printf_format.h"

namespace zdr {

namespace {

Error makeError(const std::string& message, const Exception* causedBy) {
    Dictionary info;
    info[kNSLocalizedDescriptionKey] = message;
    if (causedBy != nullptr) {
        info[kNSErrorAdditionsUnderlyingExceptionStackTrace] = stackTraceForException(*causedBy);
    }
    return Error(kZDRErrorDomain, 0, std::move(info));
}

}  // namespace

bool ErrorExtensions::create(Error* error, const Exception* causedBy, const char* format, ...) {
    if (error == nullptr) return true;
    std::string message;
    va_list args;
    va_start(args, format);
    detail::appendPrintf(message, format, args);
    va_end(args);
    *error = makeError(message, causedBy);
    return true;
}

bool ErrorExtensions::create(Error* error, const char* format, ...) {
    std::string first;
    va_list args;
    va_start(args, format);
    detail::appendPrintf(first, format, args);
    va_end(args);
    if (error == nullptr) return true;
    // The second reading of the text has no arguments to give: only what
    // needs none ("%%") is interpreted, so a stray "%s" cannot read memory.
    std::string second;
    detail::appendPrintfWithoutArguments(second, first.c_str());
    *error = makeError(second, nullptr);
    return true;
}

Error ErrorExtensions::errorWithMessage(const std::string& message) {
    return makeError(message, nullptr);
}

std::vector<std::string> backtraceSymbols(const Exception& exception) {
    std::vector<std::string> result;
    const auto& addresses = exception.callStackReturnAddresses();
    if (addresses.empty()) return result;
    // As unsigned integers in order, then back to the pointers the C library
    // wants.
    std::vector<std::uintptr_t> values;
    values.reserve(addresses.size());
    for (void* a : addresses) values.push_back(reinterpret_cast<std::uintptr_t>(a));
    std::vector<void*> frames;
    frames.reserve(values.size());
    for (auto v : values) frames.push_back(reinterpret_cast<void*>(v));
    char** symbols = ::backtrace_symbols(frames.data(), static_cast<int>(frames.size()));
    if (symbols == nullptr) return result;
    for (std::size_t i = 0; i < frames.size() && symbols[i] != nullptr; ++i) {
        result.emplace_back(symbols[i]);
    }
    std::free(symbols);
    return result;
}

std::string stackTraceForException(const Exception& exception) {
    std::string text;
    for (const auto& frame : backtraceSymbols(exception)) {
        text += frame;
        text += '\n';
    }
    return text;
}

bool ObjCExceptionPropagation::catchException(const std::function<void()>& block, Error* error) {
    try {
        if (block) block();
        return true;
    } catch (const Exception& exception) {
        if (error != nullptr) *error = Error(exception.name(), 0, exception.userInfo());
        return false;
    }
}

}  // namespace zdr
