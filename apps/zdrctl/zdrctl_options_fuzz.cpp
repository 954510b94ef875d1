// Fuzzes zdrctl's command line: the input is split into arguments at newlines;
// any arguments are either refused with a message or parsed into a command.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "apps/zdrctl/zdrctl_options.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> args(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == '\n') {
            args.emplace_back();
        } else {
            args.back().push_back(static_cast<char>(data[i]));
        }
    }
    if (size == 0) args.clear();
    auto result = zdr::zdrctl::parseArguments(args);
    if (!result.options && result.error.empty()) std::abort();
    return 0;
}
