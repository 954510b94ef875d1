#include "zdr/runtime/detail/thread_pool.h"
#include "zdr/runtime/layer_log.h"

#include <sys/resource.h>
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
char procThreadState(int tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return '?';
    auto close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) return '?';
    return line[close + 2];
}

// Far beyond what a process blocks at once in practice, but kept under the
// user's process limit so that the pool never fails to start the thread that
// would unblock the others for want of a slot.
std::size_t defaultHardLimit() {
    std::size_t limit = 1024;
    rlimit nproc{};
    if (::getrlimit(RLIMIT_NPROC, &nproc) == 0 && nproc.rlim_cur != RLIM_INFINITY) {
        limit = std::min<std::size_t>(limit, std::max<rlim_t>(64, nproc.rlim_cur / 2));
    }
    return limit;
}

std::size_t levelOf(DispatchQoS qos) {
    return qos == DispatchQoS::unspecified ? static_cast<std::size_t>(DispatchQoS::defaultQoS)
                                           : static_cast<std::size_t>(qos);
}

thread_local DispatchQoS tlsJobQoS = DispatchQoS::defaultQoS;

}  // namespace

ThreadPool& ThreadPool::shared() {
    // Leaked on purpose: workers may still be finishing jobs while static
    // destructors run at exit.
    static ThreadPool* pool = new ThreadPool();
    return *pool;
}

ThreadPool::ThreadPool(Options options)
    : softLimit_(options.softLimit ? options.softLimit
                                   : std::max<std::size_t>(2, std::thread::hardware_concurrency())),
      hardLimit_(options.hardLimit ? options.hardLimit : defaultHardLimit()),
      threadState_(options.threadState ? std::move(options.threadState) : procThreadState) {}

DispatchQoS ThreadPool::currentQoS() { return tlsJobQoS; }

void ThreadPool::submit(std::function<void()> job, DispatchQoS qos) {
    std::lock_guard lock(mutex_);
    jobs_[levelOf(qos)].push_back(std::move(job));
    ++queued_;
    // Compare with the queued jobs, not just "any idle": an idle worker that
    // was already woken for an earlier job has not decremented idle_ yet, and
    // counting it twice would leave this job waiting with nobody woken.
    if (idle_ >= queued_) {
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
        detail::layerLog("general", 1, std::string("Could not start a worker thread: ") + e.what(),
                         __func__, __FILE__, __LINE__);
    }
}

void ThreadPool::workerLoop(std::size_t slot) {
    std::unique_lock lock(mutex_);
    workerTids_[slot] = static_cast<int>(::syscall(SYS_gettid));
    for (;;) {
        if (queued_ == 0) {
            ++idle_;
            bool woke = workAvailable_.wait_for(lock, idleTimeout_, [this] { return queued_ > 0; });
            --idle_;
            if (!woke) break;
        }
        std::size_t level = 0;
        while (jobs_[level].empty()) ++level;
        auto job = std::move(jobs_[level].front());
        jobs_[level].pop_front();
        --queued_;
        ++started_;
        lock.unlock();
        tlsJobQoS = static_cast<DispatchQoS>(level);
        try {
            job();
        } catch (const std::exception& e) {
            detail::layerLog("general", 1, std::string("Asynchronous work threw: ") + e.what(),
                             __func__, __FILE__, __LINE__);
        } catch (...) {
            detail::layerLog("general", 1,
                             "Asynchronous work threw something that is not a std::exception",
                             __func__, __FILE__, __LINE__);
        }
        job = nullptr;  // release captures outside the lock
        tlsJobQoS = DispatchQoS::defaultQoS;
        lock.lock();
    }
    workerTids_[slot] = 0;
    --threads_;
    // A job may have arrived between the timeout and now with nobody to take it.
    if (queued_ > idle_) spawnLocked();
}

std::size_t ThreadPool::countRunning(const std::vector<int>& tids) const {
    std::size_t running = 0;
    for (int tid : tids) {
        if (tid > 0) {
            char s = threadState_(tid);
            if (s == 'R' || s == '?') ++running;
        } else if (tid == -1) {
            ++running;  // just starting
        }
    }
    return running;
}

void ThreadPool::watchdogLoop() {
    std::unique_lock lock(mutex_);
    std::vector<int> tids;
    for (;;) {
        watchdogWake_.wait(lock, [this] { return queued_ > idle_; });
        std::uint64_t mark = started_;
        watchdogWake_.wait_for(lock, std::chrono::milliseconds(3));
        if (queued_ <= idle_ || started_ != mark || threads_ >= hardLimit_) continue;
        // Work is waiting and no worker picked anything up: if fewer workers
        // than cores are actually running, the rest are blocked, so add
        // threads. The states are read without the lock (one file per
        // worker), so submit() and the workers go on meanwhile.
        tids = workerTids_;
        lock.unlock();
        const std::size_t running = countRunning(tids);
        lock.lock();
        if (running >= softLimit_) continue;
        std::size_t add = std::min(softLimit_ - running, queued_ > idle_ ? queued_ - idle_ : 0);
        add = std::min(add, hardLimit_ > threads_ ? hardLimit_ - threads_ : 0);
        for (std::size_t i = 0; i < add; ++i) spawnLocked();
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
