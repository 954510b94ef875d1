// NormalLock: the calling surface of DispatchLock over one recursive mutex.
//
// Reads and writes are not told apart: every operation takes the same mutex,
// runs the work on the calling thread and releases it, so there is mutual
// exclusion but no reader parallelism. Because the mutex is recursive, nested
// read/write/syncWrite calls on the same thread do not deadlock. There is no
// asynchronous write: on a plain mutex it would be a synchronous one.
//
// Threads: every operation may be called from any thread; work runs on the
// caller's thread. An exception thrown by the work releases the mutex and
// reaches the caller.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace zdr {

class NormalLock {
 public:
    NormalLock() = default;
    NormalLock(const NormalLock&) = delete;
    NormalLock& operator=(const NormalLock&) = delete;

    /// Lock, run, unlock; returns the work's result (void or a value).
    template <class F>
    decltype(auto) read(F&& work) const {
        std::lock_guard<std::recursive_mutex> guard(lock_);
        return std::forward<F>(work)();
    }

    /// Object-returning read for type-erased callers: the closure answers an
    /// object or null.
    std::shared_ptr<void> readAndReturn(const std::function<std::shared_ptr<void>()>& work) const;

    /// Identical to read().
    template <class F>
    decltype(auto) write(F&& work) const {
        return read(std::forward<F>(work));
    }

    /// Identical to read().
    template <class F>
    decltype(auto) syncWrite(F&& work) const {
        return read(std::forward<F>(work));
    }

 private:
    mutable std::recursive_mutex lock_;
};

}  // namespace zdr
