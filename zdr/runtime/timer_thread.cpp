#include "zdr/runtime/timer_thread.h"

#include <cstdio>
#include <exception>
#include <thread>

namespace zdr::detail {

TimerThread& TimerThread::shared() {
    static TimerThread* t = new TimerThread();  // leaked: see ThreadPool::shared
    return *t;
}

void TimerThread::schedule(DispatchTime deadline, std::function<void()> callback) {
    std::lock_guard lock(mutex_);
    entries_.push(Entry{deadline, sequence_++, std::move(callback)});
    if (!started_) {
        started_ = true;
        std::thread([this] { loop(); }).detach();
    }
    wake_.notify_one();
}

void TimerThread::loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (entries_.empty()) {
            wake_.wait(lock);
            continue;
        }
        auto deadline = entries_.top().deadline;
        if (dispatchNow() < deadline) {
            wake_.wait_until(lock, deadline);
            continue;
        }
        auto callback = std::move(const_cast<Entry&>(entries_.top()).callback);
        entries_.pop();
        lock.unlock();
        try {
            callback();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "zdr: exception escaped a timer callback: %s\n", e.what());
        } catch (...) {
            // An exception leaving this thread would end the process.
            std::fprintf(stderr, "zdr: unknown exception escaped a timer callback\n");
        }
        callback = nullptr;
        lock.lock();
    }
}

}  // namespace zdr::detail
