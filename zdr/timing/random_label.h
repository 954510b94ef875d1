// The random suffix that makes each lock's queue label distinct. Installed
// because the AtomicProperty template names its queue with it; not meant to be
// called by hosts. Callable from any thread.
#pragma once

#include <string>
#include <typeinfo>

namespace zdr::detail {

/// A uniformly random integer from 0 to 100000 inclusive, as decimal text.
std::string randomLabelNumber();
/// The readable name of a type (demangled where the compiler allows).
std::string typeDisplayName(const std::type_info& type);

}  // namespace zdr::detail
