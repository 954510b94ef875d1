#include "zdr/runtime/detail/timer_thread.h"
#include "zdr/runtime/layer_log.h"

#include <cstdio>
#include <exception>
#include <thread>

namespace zdr::detail {

TimerThread& TimerThread::shared() {
    static TimerThread* t = new TimerThread();  // leaked: see ThreadPool::shared
    return *t;
}

TimerThread::Handle TimerThread::schedule(DispatchTime deadline, std::function<void()> callback) {
    std::lock_guard lock(mutex_);
    Handle handle{deadline, sequence_++};
    const bool earliest = entries_.empty() || handle < entries_.begin()->first;
    entries_.emplace(handle, std::move(callback));
    if (!started_) {
        started_ = true;
        std::thread([this] { loop(); }).detach();
    }
    if (earliest) wake_.notify_one();
    return handle;
}

bool TimerThread::cancel(const Handle& handle) {
    std::function<void()> callback;  // released outside the lock
    std::lock_guard lock(mutex_);
    auto it = entries_.find(handle);
    if (it == entries_.end()) return false;
    callback = std::move(it->second);
    entries_.erase(it);
    return true;
}

std::size_t TimerThread::pendingCount() {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

void TimerThread::loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (entries_.empty()) {
            wake_.wait(lock);
            continue;
        }
        auto first = entries_.begin();
        auto deadline = first->first.first;
        if (dispatchNow() < deadline) {
            wake_.wait_until(lock, deadline);
            continue;
        }
        auto callback = std::move(first->second);
        entries_.erase(first);
        lock.unlock();
        try {
            callback();
        } catch (const std::exception& e) {
            detail::layerLog("timing", 1, std::string("A timer callback threw: ") + e.what(),
                             __func__, __FILE__, __LINE__);
        } catch (...) {
            // An exception leaving this thread would end the process.
            detail::layerLog("timing", 1,
                             "A timer callback threw something that is not a std::exception",
                             __func__, __FILE__, __LINE__);
        }
        callback = nullptr;
        lock.lock();
    }
}

}  // namespace zdr::detail
