// DispatchQueue: serial and concurrent work queues, the main queue, global
// queues by quality of service, delayed work and cancellable work items.
//
// Semantics follow Grand Central Dispatch:
//  - A serial queue runs one item at a time in submission order.
//  - A concurrent queue starts items in submission order and lets them run side
//    by side; an item submitted with DispatchFlags::barrier waits for everything
//    submitted before it, runs alone, and holds back everything after it.
//  - sync() waits for its turn and then runs the work on the caller's thread
//    (never overtaking work submitted before it). On a concurrent queue a
//    non-barrier sync with no barrier ahead of it runs at once, inline. On the
//    main queue sync() runs the work on the main thread. A sync() that finds an
//    asynchronous barrier ahead of it that no worker has started yet runs that
//    barrier itself, on its own thread, instead of waiting for a worker to
//    wake up (the order of work is unchanged).
//  - sync() (serial or barrier) onto a queue whose work is running on the
//    calling thread is a deadlock; it stops the program with a message instead.
//    So does a nested read that would have to wait (inside a barrier, or with
//    a barrier queued behind the caller's own read); one that need not wait
//    runs.
//  - Exceptions thrown by sync() work reach the caller; exceptions escaping
//    async() work are reported on standard error and swallowed.
//
// Global queues share one elastic thread pool: it starts threads as work
// arrives, adds more when its workers are blocked (so a sleeping job never
// starves the others) and lets idle threads go. Waiting work of a higher
// quality of service starts first; a queue created with
// DispatchQoS::unspecified runs its work at the quality of the work that
// submitted it.
//
// The main queue has no thread of its own: work waits until the host drains it
// with drain() or run(), or watches pollFd() from its own event loop (GLib, Qt,
// libuv) and calls drain() when it is readable. The thread that drains it is
// the main thread; before anyone drains it, the process's first thread is.
//
// Thread safety: every member may be called from any thread. DispatchQueue is a
// cheap handle; copies refer to the same queue, which lives while any handle or
// pending work refers to it.
#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace zdr {

using DispatchTime = std::chrono::steady_clock::time_point;

/// Now on the monotonic clock that every deadline uses.
inline DispatchTime dispatchNow() { return std::chrono::steady_clock::now(); }

/// now() + seconds. Non-finite or negative values count as 0; values beyond
/// about 100 years are clamped there.
DispatchTime dispatchTimeAfter(double seconds);

enum class DispatchQoS {
    userInteractive,
    userInitiated,
    defaultQoS,
    utility,
    background,
    unspecified
};

enum class DispatchFlags : unsigned { none = 0, barrier = 1 };

class DispatchQueue;

namespace detail {
class QueueImpl;
}

/// A block of work that can be cancelled before it starts, waited for, and
/// followed by a notification. Held by std::shared_ptr.
class DispatchWorkItem : public std::enable_shared_from_this<DispatchWorkItem> {
 public:
    static std::shared_ptr<DispatchWorkItem> make(std::function<void()> block,
                                                  DispatchFlags flags = DispatchFlags::none);

    /// Runs the block on the calling thread unless cancelled; wakes waiters and
    /// fires notify() blocks.
    void perform();
    /// Prevents a not-yet-started item from running. Has no effect on one that
    /// is running or has run. An item that is not running is finished at once:
    /// its block is released, it leaves the queues and timers it waits in,
    /// waiters return and notify() blocks are submitted. One that is running
    /// releases its block when it ends.
    void cancel();
    bool isCancelled() const;
    /// Blocks until the item has run (or was skipped because it was cancelled).
    void wait();
    /// As wait(), at most `seconds`; true when the item finished.
    bool waitFor(double seconds);
    /// Submits `block` to `queue` once this item has finished (or at once if it has).
    void notify(const DispatchQueue& queue, std::function<void()> block);

    DispatchFlags flags() const { return flags_; }

    struct State;
    DispatchWorkItem(std::function<void()> block, DispatchFlags flags);
    ~DispatchWorkItem();

 private:
    friend class DispatchQueue;
    /// Registers what cancel() must undo (a queued entry, a timer entry).
    /// False, without registering, when the item is already cancelled.
    bool addCancelHook(std::function<void()> hook);
    void finish(bool ran);

    DispatchFlags flags_;
    std::unique_ptr<State> state_;
};

class DispatchQueue {
 public:
    enum class Attributes { serial, concurrent };

    explicit DispatchQueue(std::string label, Attributes attributes = Attributes::serial,
                           DispatchQoS qos = DispatchQoS::unspecified);

    /// The process's main queue (see the header comment).
    static DispatchQueue main();
    /// The process-wide concurrent queue for a quality of service.
    static DispatchQueue global(DispatchQoS qos = DispatchQoS::defaultQoS);

    const std::string& label() const;
    bool isConcurrent() const;
    bool isMain() const;
    DispatchQoS qos() const;

    void async(std::function<void()> work, DispatchFlags flags = DispatchFlags::none) const;
    void async(const std::shared_ptr<DispatchWorkItem>& item) const;

    /// Runs `work` (see the header comment for where and when) and returns its
    /// result; exceptions propagate to the caller. Constrained to callables so
    /// that a work item pointer of any constness reaches the overload below.
    template <class F>
    requires std::invocable<F&>
    decltype(auto) sync(F&& work, DispatchFlags flags = DispatchFlags::none) const {
        using R = std::invoke_result_t<F&>;
        if (flags == DispatchFlags::none && tryEnterInlineRead()) {
            InlineReadGuard guard{this};
            return std::forward<F>(work)();
        }
        if constexpr (std::is_void_v<R>) {
            syncSlow([&] { work(); }, flags);
        } else if constexpr (std::is_reference_v<R>) {
            std::remove_reference_t<R>* out = nullptr;
            syncSlow([&] { out = &work(); }, flags);
            return static_cast<R>(*out);
        } else {
            std::optional<R> out;
            syncSlow([&] { out.emplace(work()); }, flags);
            return R(std::move(*out));
        }
    }
    void sync(const std::shared_ptr<DispatchWorkItem>& item) const;

    /// Submits `work` at `deadline` (monotonic). Past deadlines submit at once.
    void asyncAfter(DispatchTime deadline, std::function<void()> work,
                    DispatchFlags flags = DispatchFlags::none) const;
    void asyncAfter(DispatchTime deadline, const std::shared_ptr<DispatchWorkItem>& item) const;

    // ---- Main queue only (no effect, and 0 or -1, on other queues) ----

    /// Runs the work that is pending now on the calling thread, which becomes
    /// the main thread. Work submitted while it drains waits for the next call.
    /// Returns how many items ran.
    std::size_t drain() const;
    /// Drains as work arrives until stop(). A stop() that comes before run()
    /// makes the next run() return at once.
    void run() const;
    void stop() const;
    /// An eventfd that is readable while main-queue work is pending; the host
    /// watches it (level-triggered) and calls drain(). Owned by the library.
    int pollFd() const;

    /// True on the main thread (see the header comment).
    static bool isMainThread();
    /// The label of the queue whose work is running on this thread, if any.
    static std::optional<std::string> currentLabel();

    bool operator==(const DispatchQueue& other) const { return impl_ == other.impl_; }
    bool operator!=(const DispatchQueue& other) const { return impl_ != other.impl_; }

    const std::shared_ptr<detail::QueueImpl>& impl() const { return impl_; }
    explicit DispatchQueue(std::shared_ptr<detail::QueueImpl> impl) : impl_(std::move(impl)) {}

 private:
    struct InlineReadGuard {
        const DispatchQueue* queue;
        ~InlineReadGuard() { queue->leaveInlineRead(); }
    };
    bool tryEnterInlineRead() const;
    void leaveInlineRead() const;
    void syncSlow(const std::function<void()>& work, DispatchFlags flags) const;

    std::shared_ptr<detail::QueueImpl> impl_;
};

}  // namespace zdr
