#include "zdr/timing/zdr_throttler.h"

#include <atomic>
#include <limits>
#include <stdexcept>

#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

DispatchQueue ThrottlerActor::shared() {
    // Never destroyed: callers may still submit work while the process exits.
    static auto* queue = new DispatchQueue("com.zdr.ThrottlerActor");
    return *queue;
}

namespace detail {

std::int64_t takeUniqueThrottlerNum() {
    static std::atomic<std::int64_t> uniqueThrottlerNum{0};
    const std::int64_t n = uniqueThrottlerNum.fetch_add(1, std::memory_order_relaxed);
    if (n == std::numeric_limits<std::int64_t>::max()) {
        fatalError("ZDRThrottler: the throttler serial number overflowed");
    }
    return n;
}

DispatchQueue makeThrottlerQueue() { return DispatchQueue("com.zdr.throttler"); }

void logThrottlerClosureFailure(const std::string& name, std::exception_ptr error) {
    std::string what = "an exception of unknown type";
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        what = e.what();
    } catch (...) {
    }
    timingLog(1, "ZDRThrottler [" + name + "]: the closure threw: " + what, "runBatch", __FILE__,
              __LINE__);
}

}  // namespace detail

}  // namespace zdr
