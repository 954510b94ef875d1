// DispatchLock: a readers/writer lock over a private concurrent DispatchQueue.
//
// Reads are plain submissions, so any number of them run side by side; writes
// are barrier submissions, so a write waits for everything submitted before it,
// runs alone, and holds back everything submitted after it. Writes can be
// synchronous (the caller waits) or asynchronous (fire and forget); an
// asyncWrite followed by a read from the same thread is always seen by the read.
//
// Threads: every operation may be called from any thread. Synchronous work
// (read, readAndReturn, syncWrite) runs on the calling thread; readAsync and
// asyncWrite work runs on a pool thread, and readAsync completions are called
// there, right after the work.
//
// Not reentrant: a syncWrite from inside work already running on this lock, or
// a read from inside a write, waits for itself; the runtime stops the program
// with a message instead of hanging. asyncWrite from inside any work is fine
// and runs after the current work. For a reentrant lock use NormalLock.
//
// Block-based callers use the same members with std::function arguments;
// readAndReturn is the type-erased form for closures that answer an object.
//
// setQueue() replaces the queue: work still pending on the old queue is not
// ordered against work on the new one, and setQueue() itself must not race
// with other calls on the same lock (it is meant for set-up).
#pragma once

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

class DispatchLock {
 public:
    /// Queue label "com.zdr.locking." followed by a random number from 0 to
    /// 100000, so that each lock's queue is told apart in debugging tools.
    DispatchLock();
    /// Queue label "com.zdr.locking." followed by `name` as given.
    explicit DispatchLock(const std::string& name);

    DispatchLock(const DispatchLock&) = delete;
    DispatchLock& operator=(const DispatchLock&) = delete;

    const DispatchQueue& queue() const { return queue_; }
    void setQueue(DispatchQueue queue) { queue_ = std::move(queue); }

    /// Runs `work` as a reader and returns its result (void or a value).
    /// Exceptions thrown by `work` reach the caller.
    template <class F>
    decltype(auto) read(F&& work) const {
        // Straight into the templated sync: an uncontended read then runs
        // inline on this thread without any allocation or type erasure.
        return queue_.sync(std::forward<F>(work));
    }

    /// Object-returning read for type-erased callers (the block-based form):
    /// the closure answers an object or null.
    std::shared_ptr<void> readAndReturn(const std::function<std::shared_ptr<void>()>& work) const;

    /// Submits `work` as a reader without waiting; `completion` is called on
    /// the lock's queue right after it, with the work's result when it has one.
    /// If `work` throws, the exception is reported on standard error and
    /// `completion` is not called; use the std::future form to receive it.
    template <class F, class C>
    void readAsync(F work, C completion) const {
        queue_.async([work = std::move(work), completion = std::move(completion)]() mutable {
            if constexpr (std::is_void_v<std::invoke_result_t<F&>>) {
                work();
                completion();
            } else {
                completion(work());
            }
        });
    }

    /// Submits `work` as a reader without waiting; the future receives its
    /// result or its exception.
    template <class F>
    auto readAsync(F work) const -> std::future<std::invoke_result_t<F&>> {
        using R = std::invoke_result_t<F&>;
        auto promise = std::make_shared<std::promise<R>>();
        auto future = promise->get_future();
        queue_.async([work = std::move(work), promise]() mutable {
            try {
                if constexpr (std::is_void_v<R>) {
                    work();
                    promise->set_value();
                } else {
                    promise->set_value(work());
                }
            } catch (...) {
                promise->set_exception(std::current_exception());
            }
        });
        return future;
    }

    /// Submits `work` as a writer (barrier) and returns at once.
    void asyncWrite(std::function<void()> work) const;

    /// Runs `work` as a writer (barrier) on the calling thread once everything
    /// submitted before it has finished; returns its result. An exception
    /// thrown by `work` is rethrown to the caller after the work has left the
    /// queue, and the lock stays usable.
    template <class F>
    decltype(auto) syncWrite(F&& work) const {
        return queue_.sync(std::forward<F>(work), DispatchFlags::barrier);
    }

 private:
    DispatchQueue queue_;
};

}  // namespace zdr
