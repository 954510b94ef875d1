#include "zdr/timing/detail/fatal_error.h"

#include <cstdio>
#include <cstdlib>

namespace zdr::detail {

void fatalError(const std::string& message) {
    std::fprintf(stderr, "Fatal error: %s\n", message.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace zdr::detail
