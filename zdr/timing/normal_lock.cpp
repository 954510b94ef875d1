#include "zdr/timing/normal_lock.h"

namespace zdr {

std::shared_ptr<void> NormalLock::readAndReturn(
    const std::function<std::shared_ptr<void>()>& work) const {
    return read([&work] { return work ? work() : nullptr; });
}

}  // namespace zdr
