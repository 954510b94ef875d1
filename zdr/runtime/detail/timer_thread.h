// The single thread that holds every pending deadline (asyncAfter, timer
// sources) and hands each due callback off at its time. Callbacks run on that
// thread and must be short: they only submit work to a queue. An entry can be
// withdrawn before its time (a cancelled work item), which frees it at once.
//
// Thread safety: every member may be called from any thread. Internal.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr::detail {

class TimerThread {
 public:
    /// Names one scheduled entry, for cancel().
    using Handle = std::pair<DispatchTime, std::uint64_t>;

    static TimerThread& shared();
    Handle schedule(DispatchTime deadline, std::function<void()> callback);
    /// Removes the entry if it has not been handed off yet; true when it was
    /// still waiting.
    bool cancel(const Handle& handle);
    /// Entries waiting for their time.
    std::size_t pendingCount();

 private:
    void loop();

    std::mutex mutex_;
    std::condition_variable wake_;
    // Ordered by deadline, then by order of scheduling; a map rather than a
    // heap so that a withdrawn entry goes at once instead of at its deadline.
    std::map<Handle, std::function<void()>> entries_;
    std::uint64_t sequence_ = 0;
    bool started_ = false;
};

}  // namespace zdr::detail
