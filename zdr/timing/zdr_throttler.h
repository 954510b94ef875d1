// ZDRThrottler: merges bursts of small units of work into batches and hands
// each batch to a closure at most once per interval. Producers call
// acceptMoreWork() as often as they like, from any thread; the closure sees
// merged batches.
//
//     struct Changed {                       // a unit: which devices changed
//         std::set<std::string> uids;
//         Changed merge(const Changed& other) const { ... union ... }
//     };
//     auto refresh = zdr::ZDRThrottler<Changed>::make(0.25, std::nullopt, "device list",
//         [](const Changed& batch) { rebuildRows(batch.uids); });
//     refresh->start();
//     refresh->acceptMoreWork({{uid}});    // from any thread, never blocks
//     ...
//     refresh->stop();                      // ends it (see Lifecycle)
//
// Units: any type T with a Throttleable description: by default T() is the
// empty batch and `batch.merge(other)` returns the batch with one more unit;
// ThrottleableTraits<T> can say otherwise for types one cannot change.
// VoidThrottleable makes a pure rate limiter of triggers. A throttler of double
// always delivers 0.0 (its merge keeps the batch, which starts at 0.0): use it
// as a trigger only.
//
// Timing: a unit that arrives when no batch went out during the last interval
// goes out at once (leading edge). Later units are merged and go out together
// when the window that began with the previous batch ends (trailing edge), so
// at most one batch per interval and the last unit of a burst is never lost.
// The batch handed over is what was merged up to the moment the batch is taken
// on the throttler's queue. An interval of zero, below zero or NaN paces
// nothing (each unit may go out at once); an infinite one lets only the first
// batch out (the window is capped at about 95 years).
//
// Threads: every member from any thread; acceptMoreWork takes one short lock
// per started pipeline and never waits for the closure. The batch is taken on `queue` (by
// default a new serial queue "com.zdr.throttler"); the closure runs on the
// global queue, never on `queue`. Batches are not serialised: a new batch can
// start while the previous closure is still running; a closure that needs
// mutual exclusion provides it (for example by running on ThrottlerActor).
// The closure comes in two forms: `void(const T&)`, which is done when it
// returns, and `void(const T&, std::function<void()> done)`, done when it
// calls `done` (once; later calls are ignored). A closure that throws is done;
// the exception is logged on the timing logger and goes no further.
//
// Lifecycle: created, nothing runs and units are dropped. start() builds the
// pipeline, which holds the throttler: a started throttler lives until stop(),
// even when every other owner lets it go. stop() discards held units and any
// batch not yet taken; closures already running finish. start() after stop()
// begins afresh with an empty batch; start() twice makes two pipelines, and
// each unit goes into both. When the throttler is destroyed it writes
// "ZDRThrottler deinit" (verbose) to the timing logger.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/publisher.h"
#include "zdr/timing/replay_once.h"
#include "zdr/timing/timing_log.h"

namespace zdr {

/// How a unit type makes an empty batch and merges a unit into a batch.
template <class T>
struct ThrottleableTraits {
    static T empty() { return T(); }
    static T merge(const T& batch, const T& other) { return batch.merge(other); }
};

/// 64-bit floating point: the batch stays as it is and `other` is discarded,
/// so every batch is 0.0. Deliberate: such a throttler is a trigger.
template <>
struct ThrottleableTraits<double> {
    static double empty() { return 0.0; }
    static double merge(double batch, double /*other*/) { return batch; }
};

template <class T>
concept Throttleable = std::copy_constructible<T> && requires(const T& a, const T& b) {
    { ThrottleableTraits<T>::empty() } -> std::convertible_to<T>;
    { ThrottleableTraits<T>::merge(a, b) } -> std::convertible_to<T>;
};

/// The unit of a pure rate limiter: nothing to merge.
struct VoidThrottleable {
    VoidThrottleable merge(const VoidThrottleable&) const { return {}; }
    friend bool operator==(const VoidThrottleable&, const VoidThrottleable&) { return true; }
};

/// A process-wide serial queue, made on first use, that callers may use to
/// give their throttled closures mutual exclusion. No throttler uses it on its
/// own.
class ThrottlerActor {
 public:
    static DispatchQueue shared();
};

namespace detail {
/// The next throttler serial number (0, 1, 2, ...).
std::int64_t takeUniqueThrottlerNum();
DispatchQueue makeThrottlerQueue();
void logThrottlerClosureFailure(const std::string& name, std::exception_ptr error);
}  // namespace detail

template <Throttleable T>
class ZDRThrottler : public std::enable_shared_from_this<ZDRThrottler<T>> {
    struct Key {
        explicit Key() = default;
    };

 public:
    using Done = std::function<void()>;
    using AsyncClosure = std::function<void(const T&, Done)>;

    /// A throttler that paces on `queue` (a new serial "com.zdr.throttler"
    /// queue when none is given). Not started.
    template <class F = std::nullptr_t>
    static std::shared_ptr<ZDRThrottler> make(double interval,
                                              const std::optional<DispatchQueue>& queue,
                                              std::string name, F closure = nullptr) {
        return make(interval, queue ? *queue : defaultQueue(), std::move(name), std::move(closure));
    }
    template <class F = std::nullptr_t>
    static std::shared_ptr<ZDRThrottler> make(double interval, std::nullopt_t, std::string name,
                                              F closure = nullptr) {
        return make(interval, defaultQueue(), std::move(name), std::move(closure));
    }
    template <class F = std::nullptr_t>
    static std::shared_ptr<ZDRThrottler> make(double interval, DispatchQueue queue,
                                              std::string name, F closure = nullptr) {
        return std::make_shared<ZDRThrottler>(Key{}, interval, std::move(queue), std::move(name),
                                              adapt(std::move(closure)));
    }

    ZDRThrottler(Key, double interval, DispatchQueue queue, std::string name, AsyncClosure closure)
        : interval_(interval),
          uniqueNum_(detail::takeUniqueThrottlerNum()),
          asyncClosure_(std::move(closure)),
          name_(std::move(name)),
          queue_(std::move(queue)) {}

    ~ZDRThrottler() { detail::timingLog(4, "ZDRThrottler deinit", "deinit", __FILE__, __LINE__); }

    ZDRThrottler(const ZDRThrottler&) = delete;
    ZDRThrottler& operator=(const ZDRThrottler&) = delete;

    /// Replaces the closure; `void(const T&)` or `void(const T&, Done)`.
    template <class F>
    void setAsyncClosure(F closure) {
        auto adapted = adapt(std::move(closure));
        std::lock_guard lock(mutex_);
        asyncClosure_ = std::move(adapted);
    }

    /// Starts a pipeline with an empty batch.
    void start() {
        auto pipeline = std::make_shared<Pipeline>(this->shared_from_this(), interval_, queue_);
        std::lock_guard lock(mutex_);
        auto next = std::make_unique<PipelineList>(*pipelines_.load(std::memory_order_relaxed));
        next->push_back(std::move(pipeline));
        publish(std::move(next));
    }

    /// Ends every pipeline; held units and untaken batches are dropped.
    void stop() {
        // The pipelines may hold the last reference to this throttler.
        auto keepAlive = this->shared_from_this();
        PipelineList ended;
        {
            std::lock_guard lock(mutex_);
            ended = *pipelines_.load(std::memory_order_relaxed);
            if (ended.empty()) return;  // nothing started: keep the list as it is
            publish(std::make_unique<PipelineList>());
        }
        for (const auto& p : ended) p->cancel();
    }

    /// Merges one unit into every started pipeline; returns at once.
    void acceptMoreWork(const T& work) {
        for (const auto& p : *pipelines_.load(std::memory_order_acquire)) p->accept(work);
    }

    double interval() const { return interval_; }
    std::int64_t uniqueNum() const { return uniqueNum_; }
    const std::string& name() const { return name_; }
    const DispatchQueue& queue() const { return queue_; }
    /// Pipelines currently started (diagnostics and tests).
    std::size_t pipelineCount() const { return pipelines_.load(std::memory_order_acquire)->size(); }

 private:
    using Once = Publishers::ReplayOnce<T>;

    /// One started pipeline: the batch cell and the throttle window, written
    /// by hand rather than as subject -> map -> throttle -> flatMap so that a
    /// producer pays one short lock and the merge. Timing is that of the
    /// latest-value throttle: the first unit after a quiet interval is taken at
    /// once; later ones wait for the window that began with the previous take.
    class Pipeline : public std::enable_shared_from_this<Pipeline> {
     public:
        Pipeline(std::shared_ptr<ZDRThrottler> owner, double seconds, DispatchQueue queue)
            : owner_(std::move(owner)),
              weakOwner_(owner_),
              interval_(detail::pacingInterval(seconds)),
              queue_(std::move(queue)) {}

        void accept(const T& unit) {
            std::lock_guard lock(mutex_);
            if (cancelled_) return;
            batch_ = ThrottleableTraits<T>::merge(batch_, unit);
            if (timerPending_) return;  // the window's end will take it
            const DispatchTime now = dispatchNow();
            std::weak_ptr<Pipeline> weak = this->weak_from_this();
            if (!lastEmit_ || now - *lastEmit_ >= interval_) {
                lastEmit_ = now;  // leading edge
                queue_.async([weak] {
                    if (auto p = weak.lock()) p->emit();
                });
                return;
            }
            timerPending_ = true;  // trailing edge, when the window ends
            queue_.asyncAfter(*lastEmit_ + interval_, [weak] {
                if (auto p = weak.lock()) p->windowEnded();
            });
        }

        void cancel() {
            std::shared_ptr<ZDRThrottler> owner;  // released after the lock
            std::lock_guard lock(mutex_);
            cancelled_ = true;
            batch_ = ThrottleableTraits<T>::empty();
            owner = std::move(owner_);
        }

     private:
        void windowEnded() {
            {
                std::lock_guard lock(mutex_);
                timerPending_ = false;
                if (cancelled_) return;
                lastEmit_ = dispatchNow();
            }
            emit();
        }

        // On the queue: one batch's one-shot publisher. Its work takes the
        // cell's content now (so units that arrived since the window's
        // decision are included) and runs the closure in a task of its own.
        // Nothing downstream reads the published batch; the publisher is the
        // unit of work, and its pending callback keeps it alive until done.
        void emit() {
            {
                std::lock_guard lock(mutex_);
                if (cancelled_) return;
            }
            std::weak_ptr<Pipeline> weakSelf = this->weak_from_this();
            std::weak_ptr<ZDRThrottler> weakOwner = weakOwner_;
            (void)Once::make([weakSelf, weakOwner](typename Once::Callback callback) {
                auto self = weakSelf.lock();
                if (!self) return;
                T batch = ThrottleableTraits<T>::empty();
                {
                    std::lock_guard lock(self->mutex_);
                    if (self->cancelled_) return;
                    std::swap(batch, self->batch_);
                }
                DispatchQueue::global().async(
                    [weakOwner, batch, callback] { runBatch(weakOwner, batch, callback); });
            });
        }

        std::mutex mutex_;
        std::shared_ptr<ZDRThrottler> owner_;  // until cancel(): a started throttler lives
        const std::weak_ptr<ZDRThrottler> weakOwner_;
        const std::chrono::steady_clock::duration interval_;
        const DispatchQueue queue_;
        T batch_ = ThrottleableTraits<T>::empty();  // guarded by mutex_
        std::optional<DispatchTime> lastEmit_;      // guarded by mutex_
        bool timerPending_ = false;                 // guarded by mutex_
        bool cancelled_ = false;                    // guarded by mutex_
    };

    using PipelineList = std::vector<std::shared_ptr<Pipeline>>;

    // Producers read the started pipelines without a lock. A replaced list is
    // kept until the throttler goes, since a producer may still be walking it;
    // each start() or stop() costs one small list for the throttler's life.
    void publish(std::unique_ptr<PipelineList> next) {
        pipelines_.store(next.get(), std::memory_order_release);
        lists_.push_back(std::move(next));
    }

    static DispatchQueue defaultQueue() { return detail::makeThrottlerQueue(); }

    template <class F>
    static AsyncClosure adapt(F closure) {
        if constexpr (std::is_same_v<std::decay_t<F>, std::nullptr_t>) {
            return nullptr;
        } else if constexpr (std::is_invocable_v<F&, const T&, Done>) {
            return AsyncClosure(std::move(closure));
        } else {
            static_assert(std::is_invocable_v<F&, const T&>,
                          "the closure takes a batch, or a batch and a completion");
            return [closure = std::move(closure)](const T& batch, Done done) mutable {
                closure(batch);
                done();
            };
        }
    }

    static void runBatch(const std::weak_ptr<ZDRThrottler>& weakSelf, const T& batch,
                         const typename Once::Callback& callback) {
        using Res = typename Once::ResultType;
        AsyncClosure closure;
        std::string name;
        if (auto self = weakSelf.lock()) {
            std::lock_guard lock(self->mutex_);
            closure = self->asyncClosure_;
            name = self->name_;
        }
        // The throttler is not held while the closure runs: it may be stopped
        // and released meanwhile; the closure copy stays valid.
        auto finish = [callback, batch] { callback(Res::success(batch)); };
        if (!closure) {
            finish();
            return;
        }
        try {
            closure(batch, finish);
        } catch (...) {
            detail::logThrottlerClosureFailure(name, std::current_exception());
            finish();
        }
    }

    const double interval_;
    const std::int64_t uniqueNum_;
    mutable std::mutex mutex_;
    AsyncClosure asyncClosure_;  // guarded by mutex_
    const std::string name_;
    const DispatchQueue queue_;
    std::vector<std::unique_ptr<PipelineList>> lists_ = [] {  // guarded by mutex_
        std::vector<std::unique_ptr<PipelineList>> v;
        v.push_back(std::make_unique<PipelineList>());
        return v;
    }();
    std::atomic<const PipelineList*> pipelines_{lists_.front().get()};
};

}  // namespace zdr
