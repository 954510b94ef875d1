// The elastic worker pool behind every queue that is not the main queue.
//
// It starts a thread when work arrives and none is idle (up to the number of
// cores), and beyond that adds a thread whenever queued work has waited while
// fewer workers than cores are actually running (the others are blocked in a
// sleep, a lock or I/O), so a job that blocks never starves the rest. Threads
// that stay idle for the idle timeout exit.
//
// Thread safety: every member may be called from any thread. Internal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace zdr::detail {

class ThreadPool {
 public:
    /// The process-wide pool; lives until the process ends.
    static ThreadPool& shared();

    void submit(std::function<void()> job);

    std::size_t threadCount() const;
    std::size_t idleCount() const;
    /// How long a thread waits for work before it exits.
    void setIdleTimeout(std::chrono::milliseconds timeout);

    ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

 private:
    void spawnLocked();
    void workerLoop(std::size_t slot);
    void watchdogLoop();
    std::size_t runningWorkersLocked() const;

    mutable std::mutex mutex_;
    std::condition_variable workAvailable_;
    std::condition_variable watchdogWake_;
    std::deque<std::function<void()>> jobs_;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    std::uint64_t started_ = 0;  // jobs taken so far: the watchdog's progress mark
    std::size_t softLimit_;
    std::size_t hardLimit_ = 256;
    std::chrono::milliseconds idleTimeout_{5000};
    std::vector<int> workerTids_;  // kernel thread ids by slot, 0 when free
    bool watchdogStarted_ = false;
};

}  // namespace zdr::detail
