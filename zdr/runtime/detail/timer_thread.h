// The single thread that holds every pending deadline (asyncAfter, timer
// sources) and hands each due callback off at its time. Callbacks run on that
// thread and must be short: they only submit work to a queue.
//
// Thread safety: every member may be called from any thread. Internal.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <vector>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr::detail {

class TimerThread {
 public:
    static TimerThread& shared();
    void schedule(DispatchTime deadline, std::function<void()> callback);

 private:
    struct Entry {
        DispatchTime deadline;
        std::uint64_t sequence;
        std::function<void()> callback;
        bool operator>(const Entry& o) const {
            return deadline != o.deadline ? deadline > o.deadline : sequence > o.sequence;
        }
    };
    void loop();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> entries_;
    std::uint64_t sequence_ = 0;
    bool started_ = false;
};

}  // namespace zdr::detail
