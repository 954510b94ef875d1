#include "zdr/runtime/detail/thread_pool.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <thread>

namespace zdr::detail {

namespace {

// The kernel's scheduling state of one of our threads: 'R' running or runnable,
// 'S'/'D' blocked. This is how the pool tells a blocked worker from a busy one
// without help from the kernel's scheduler.
char threadState(int tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return '?';
    auto close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) return '?';
    return line[close + 2];
}

}  // namespace

ThreadPool& ThreadPool::shared() {
    // Leaked on purpose: workers may still be finishing jobs while static
    // destructors run at exit.
    static ThreadPool* pool = new ThreadPool();
    return *pool;
}

ThreadPool::ThreadPool() {
    softLimit_ = std::max<std::size_t>(2, std::thread::hardware_concurrency());
}

void ThreadPool::submit(std::function<void()> job) {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    // Compare with the queued jobs, not just "any idle": an idle worker that
    // was already woken for an earlier job has not decremented idle_ yet, and
    // counting it twice would leave this job waiting with nobody woken.
    if (idle_ >= jobs_.size()) {
        workAvailable_.notify_one();
    } else if (threads_ < softLimit_) {
        spawnLocked();
    } else {
        if (!watchdogStarted_) {
            watchdogStarted_ = true;
            std::thread([this] { watchdogLoop(); }).detach();
        }
        watchdogWake_.notify_one();
    }
}

void ThreadPool::spawnLocked() {
    std::size_t slot = 0;
    while (slot < workerTids_.size() && workerTids_[slot] != 0) ++slot;
    if (slot == workerTids_.size()) workerTids_.push_back(0);
    workerTids_[slot] = -1;  // reserved until the thread records its id
    ++threads_;
    try {
        std::thread([this, slot] { workerLoop(slot); }).detach();
    } catch (const std::exception& e) {
        --threads_;
        workerTids_[slot] = 0;
        std::fprintf(stderr, "zdr: could not start a worker thread: %s\n", e.what());
    }
}

void ThreadPool::workerLoop(std::size_t slot) {
    std::unique_lock lock(mutex_);
    workerTids_[slot] = static_cast<int>(::syscall(SYS_gettid));
    for (;;) {
        if (jobs_.empty()) {
            ++idle_;
            bool woke =
                workAvailable_.wait_for(lock, idleTimeout_, [this] { return !jobs_.empty(); });
            --idle_;
            if (!woke) break;
        }
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        ++started_;
        lock.unlock();
        try {
            job();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "zdr: exception escaped asynchronous work: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "zdr: unknown exception escaped asynchronous work\n");
        }
        job = nullptr;  // release captures outside the lock
        lock.lock();
    }
    workerTids_[slot] = 0;
    --threads_;
    // A job may have arrived between the timeout and now with nobody to take it.
    if (jobs_.size() > idle_) spawnLocked();
}

std::size_t ThreadPool::runningWorkersLocked() const {
    std::size_t running = 0;
    for (int tid : workerTids_) {
        if (tid > 0) {
            char s = threadState(tid);
            if (s == 'R' || s == '?') ++running;
        } else if (tid == -1) {
            ++running;  // just starting
        }
    }
    return running;
}

void ThreadPool::watchdogLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        watchdogWake_.wait(lock, [this] { return jobs_.size() > idle_; });
        std::uint64_t mark = started_;
        watchdogWake_.wait_for(lock, std::chrono::milliseconds(3));
        if (jobs_.size() <= idle_ || started_ != mark) continue;
        // Work is waiting and no worker picked anything up: if fewer workers
        // than cores are actually running, the rest are blocked, so add one.
        if (threads_ < hardLimit_ && runningWorkersLocked() < softLimit_) spawnLocked();
    }
}

std::size_t ThreadPool::threadCount() const {
    std::lock_guard lock(mutex_);
    return threads_;
}

std::size_t ThreadPool::idleCount() const {
    std::lock_guard lock(mutex_);
    return idle_;
}

void ThreadPool::setIdleTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(mutex_);
    idleTimeout_ = timeout;
    workAvailable_.notify_all();
}

}  // namespace zdr::detail
