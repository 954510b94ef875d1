#include "zdr/timing/dispatch_lock.h"

#include "zdr/timing/random_label.h"

namespace zdr {

namespace {
constexpr const char* kLabelPrefix = "com.zdr.locking.";

DispatchQueue makeLockQueue(const std::string& suffix) {
    return DispatchQueue(kLabelPrefix + suffix, DispatchQueue::Attributes::concurrent,
                         DispatchQoS::unspecified);
}
}  // namespace

DispatchLock::DispatchLock() : queue_(makeLockQueue(detail::randomLabelNumber())) {}

// A named lock goes straight to its named queue: creating the random-labelled
// one first would only make a queue that never receives work.
DispatchLock::DispatchLock(const std::string& name) : queue_(makeLockQueue(name)) {}

std::shared_ptr<void> DispatchLock::readAndReturn(
    const std::function<std::shared_ptr<void>()>& work) const {
    return queue_.sync([&work] { return work ? work() : nullptr; });
}

void DispatchLock::asyncWrite(std::function<void()> work) const {
    if (!work) return;
    queue_.async(std::move(work), DispatchFlags::barrier);
}

}  // namespace zdr
