// Internal: stops the program for a programming error that cannot be answered
// safely (an unavailable initializer, an impossible timer interval). The
// message goes to standard error first so that it is what the user sees.
#pragma once

#include <string>

namespace zdr::detail {

[[noreturn]] void fatalError(const std::string& message);

}  // namespace zdr::detail
