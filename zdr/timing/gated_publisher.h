// gatedPublisher: runs asynchronous work for the values of a never-failing
// publisher one at a time. A value that arrives while work is running is
// refused (ifClosed is called for it); with `latest`, the newest refused value
// is remembered and, when the running work ends, the work runs once more on
// the newest upstream value. Without `latest`, refused values are lost.
//
//     auto saved = zdr::gatedPublisher(edits, /*latest=*/true, nullptr,
//                                      [](const Document& d) { return save(d); });
//     auto c = saved->sink([](const SaveReport& r) { show(r); });
//
// The work is either a function `R(const T&)`, run on the global queue, or,
// with the result type named, an asynchronous function that reports through a
// completion callable from any thread:
//
//     zdr::gatedPublisher<Reply>(requests, false, nullptr,
//         [](const Request& r, std::function<void(Reply)> done) { send(r, done); });
//
// The gate is a lock-free flag (acquire load, sequentially consistent store),
// so two values arriving on different threads at the same instant can both
// pass; otherwise at most one work runs at a time. Results arrive on the thread
// that finished the work. A work that throws yields no result for its value
// and opens the gate again; an asynchronous work that never calls back keeps
// the gate closed.
//
// Threads: any. The upstream may send from any thread.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/publisher.h"
#include "zdr/timing/replay_once.h"

namespace zdr {

namespace detail {

template <class T>
struct GateState {
    std::atomic<bool> busy{false};
    std::mutex mutex;
    std::optional<T> remembered;  // guarded by mutex
    std::shared_ptr<CurrentValueSubject<std::optional<T>>> retrigger =
        CurrentValueSubject<std::optional<T>>::make(std::nullopt);
};

template <class R, class T, class F>
AnyPublisher<R> makeGatedPublisher(AnyPublisher<T> upstream, bool latest,
                                   std::function<void()> ifClosed, F work) {
    auto state = std::make_shared<GateState<T>>();
    using Once = Publishers::ReplayOnce<std::optional<R>>;
    std::weak_ptr<GateState<T>> weakState = state;
    return upstream->combineLatest(AnyPublisher<std::optional<T>>(state->retrigger))
        ->compactMap([weakState, latest,
                      ifClosed](const std::pair<T, std::optional<T>>& pair) -> std::optional<T> {
            auto s = weakState.lock();
            if (!s) return std::nullopt;
            if (!s->busy.load(std::memory_order_acquire)) return pair.first;
            if (ifClosed) ifClosed();
            if (latest) {
                std::lock_guard lock(s->mutex);
                s->remembered = pair.first;
            }
            return std::nullopt;
        })
        ->flatMap([weakState, work](const T& value) {
            return Once::make([weakState, work, value](typename Once::Callback done) {
                if (auto s = weakState.lock()) s->busy.store(true, std::memory_order_seq_cst);
                DispatchQueue::global().async([work, value, done] {
                    using Res = typename Once::ResultType;
                    if constexpr (std::is_invocable_v<F&, const T&>) {
                        std::optional<R> out;
                        try {
                            out.emplace(work(value));
                        } catch (...) {
                            // No result for this value; the release stage still
                            // opens the gate.
                        }
                        done(Res::success(std::move(out)));
                    } else {
                        try {
                            work(value, [done](R r) { done(Res::success(std::move(r))); });
                        } catch (...) {
                            done(Res::success(std::nullopt));
                        }
                    }
                });
            });
        })
        ->map([state](const std::optional<R>& r) {
            state->busy.store(false, std::memory_order_seq_cst);
            std::optional<T> again;
            {
                std::lock_guard lock(state->mutex);
                again.swap(state->remembered);
            }
            if (again) {
                // Re-triggered from the global queue rather than from inside
                // this delivery: a value passing the gate on another thread
                // holds the combine stage while it may deliver into the stage
                // that is running here, and the two would wait for each other.
                DispatchQueue::global().async(
                    [retrigger = state->retrigger, again] { retrigger->send(again); });
            }
            return r;
        })
        ->compactMap([](const std::optional<R>& r) { return r; });
}

}  // namespace detail

/// The gated publisher of `upstream` (see the header comment). `ifClosed` may
/// be empty. With R left as void, `work` is `R(const T&)`; with R named, it is
/// `void(const T&, std::function<void(R)>)`.
template <class R = void, class P, class F>
auto gatedPublisher(std::shared_ptr<P> upstream, bool latest, std::function<void()> ifClosed,
                    F work) {
    using T = typename P::Output;
    AnyPublisher<T> up = std::move(upstream);
    if constexpr (std::is_void_v<R>) {
        using Out = std::decay_t<std::invoke_result_t<F&, const T&>>;
        static_assert(!std::is_void_v<Out>, "the work must return a value");
        return detail::makeGatedPublisher<Out, T, F>(std::move(up), latest, std::move(ifClosed),
                                                     std::move(work));
    } else {
        static_assert(std::is_invocable_v<F&, const T&, std::function<void(R)>>,
                      "the work must take the value and a completion");
        return detail::makeGatedPublisher<R, T, F>(std::move(up), latest, std::move(ifClosed),
                                                   std::move(work));
    }
}

/// gatedPublisher without ifClosed.
template <class R = void, class P, class F>
auto gatedPublisher(std::shared_ptr<P> upstream, bool latest, F work) {
    return gatedPublisher<R>(std::move(upstream), latest, std::function<void()>(), std::move(work));
}

}  // namespace zdr
