// The elastic worker pool behind every queue that is not the main queue.
//
// Jobs carry a quality of service; a free worker always takes the oldest job
// of the highest quality waiting (user-interactive first, background last), as
// the platform's global queues do. Within one quality jobs start in
// submission order.
//
// It starts a thread when work arrives and none is idle (up to the number of
// cores), and beyond that adds threads whenever queued work has waited while
// fewer workers than cores are actually running (the others are blocked in a
// sleep, a lock or I/O), so a job that blocks never starves the rest; the
// hard limit is far above what a process normally blocks at once. Threads that
// stay idle for the idle timeout exit. Telling blocked workers from running
// ones reads the kernel's thread states; that happens outside the pool's lock,
// so submit() never waits for it.
//
// Thread safety: every member may be called from any thread. Internal.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr::detail {

class ThreadPool {
 public:
    struct Options {
        /// Workers that may run at once before blocked ones are replaced; 0:
        /// the number of cores (at least 2).
        std::size_t softLimit = 0;
        /// Threads at most; 0: the default (1024, less when the process may
        /// not start that many).
        std::size_t hardLimit = 0;
        /// The scheduling state of a worker by kernel thread id ('R' running,
        /// anything else blocked); null: read from /proc. Tests inject it.
        std::function<char(int)> threadState;
    };

    /// The process-wide pool; lives until the process ends.
    static ThreadPool& shared();

    /// `qos` unspecified means default.
    void submit(std::function<void()> job, DispatchQoS qos = DispatchQoS::defaultQoS);

    std::size_t threadCount() const;
    std::size_t idleCount() const;
    std::size_t hardLimit() const { return hardLimit_; }
    /// How long a thread waits for work before it exits.
    void setIdleTimeout(std::chrono::milliseconds timeout);

    /// The quality of service of the job running on this thread; default on
    /// threads that are not running a pool job.
    static DispatchQoS currentQoS();

    ThreadPool() : ThreadPool(Options{}) {}
    explicit ThreadPool(Options options);
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

 private:
    static constexpr std::size_t kLevels = 5;  // userInteractive ... background

    void spawnLocked();
    void workerLoop(std::size_t slot);
    void watchdogLoop();
    std::size_t countRunning(const std::vector<int>& tids) const;

    mutable std::mutex mutex_;
    std::condition_variable workAvailable_;
    std::condition_variable watchdogWake_;
    std::array<std::deque<std::function<void()>>, kLevels> jobs_;
    std::size_t queued_ = 0;  // jobs in all levels
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    std::uint64_t started_ = 0;  // jobs taken so far: the watchdog's progress mark
    std::size_t softLimit_;
    std::size_t hardLimit_;
    std::function<char(int)> threadState_;
    std::chrono::milliseconds idleTimeout_{5000};
    std::vector<int> workerTids_;  // kernel thread ids by slot, 0 when free
    bool watchdogStarted_ = false;
};

}  // namespace zdr::detail
