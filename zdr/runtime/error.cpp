#include "zdr/runtime/error.h"

#include <execinfo.h>

#include <cstdlib>

namespace zdr {

std::string Error::localizedDescription() const {
    if (auto text = dictionaryGet<std::string>(userInfo, kNSLocalizedDescriptionKey)) return *text;
    return "The operation couldn\u2019t be completed. (" + domain + " error " +
           std::to_string(code) + ".)";
}

Exception::Exception(std::string name, std::string reason, Dictionary userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {
    void* frames[128];
    int n = ::backtrace(frames, 128);
    // Skip this constructor's own frame so the trace starts where it was thrown.
    addresses_.assign(frames + (n > 1 ? 1 : 0), frames + n);
}

std::vector<std::string> Exception::callStackSymbols() const {
    return symbolsForAddresses(addresses_);
}

std::vector<std::string> symbolsForAddresses(const std::vector<void*>& addresses) {
    std::vector<std::string> out;
    if (addresses.empty()) return out;
    char** symbols = ::backtrace_symbols(const_cast<void* const*>(addresses.data()),
                                         static_cast<int>(addresses.size()));
    if (!symbols) return out;
    out.reserve(addresses.size());
    for (std::size_t i = 0; i < addresses.size(); ++i)
        out.emplace_back(symbols[i] ? symbols[i] : "?");
    std::free(symbols);
    return out;
}

}  // namespace zdr
