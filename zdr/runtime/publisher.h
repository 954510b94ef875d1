// Publishers: a small reactive-stream layer (subjects, operators, sinks and
// cancellables) for pipelines such as throttlers, statistics and one-shot work.
//
// A Publisher<T> emits values of T and, at most once, a completion; it never
// fails. Publishers are always held by std::shared_ptr (AnyPublisher<T> is the
// type-erased form); subjects and Just are created with make(). Operators are
// member functions that return a new publisher, so pipelines read left to right:
//
//     auto subject = zdr::PassthroughSubject<int>::make();
//     zdr::AnyCancellable c = subject
//         ->map([](int v) { return v * 2; })
//         ->throttle(0.5, queue, /*latest=*/true)
//         ->sink([](const int& v) { use(v); });
//     subject->send(21);
//
// There is no back-pressure: every subscriber takes all values.
//
// Delivery guarantees
//  - Thread: a value arrives on the thread that sent it (the thread calling
//    send(), or the thread on which an inner publisher of flatMap emitted),
//    except downstream of receiveOn(queue) and throttle(..., queue, ...), which
//    deliver on that queue.
//  - Serial delivery: one subscriber never receives two calls at once. Sends
//    from several threads are serialised per subscription; each subscriber
//    sees the values of one sending thread in that thread's order, and sees the
//    values of different threads in some interleaving. receiveOn and throttle
//    deliver one at a time and in order even on a concurrent queue.
//  - Re-entrancy: a subscriber may send into the publisher it is subscribed to
//    from inside a delivery; the nested value is delivered before the call
//    returns (depth first).
//  - Completion is delivered once, after every value, and nothing follows it.
//    A subscription made after a subject completed receives only the
//    completion.
//  - Cancellation: cancel() (or destroying the AnyCancellable) detaches the
//    subscriber. Once cancel() has returned on the thread that is delivering,
//    for example when a sink cancels itself from its own closure, nothing more
//    arrives. A delivery already running on another thread when cancel() is
//    called may still finish. cancel() never waits for a delivery.
//  - Closures given to operators and sinks must not throw.
//  - A subscriber's closure must not block waiting for another thread that is
//    sending into the same subscription: that thread waits for the closure to
//    return (serial delivery), so both would wait for ever.
//
// Thread safety: every member of every type here may be called from any
// thread. Writing a publisher of your own: derive from Publisher<T>, create it
// with std::make_shared, and implement subscribe() so that it honours the
// guarantees above.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

/// How a stream ended. Publishers here never fail, so the only case is
/// `finished`.
enum class Completion { finished };

/// Something that can be cancelled. cancel() is idempotent.
class Cancellable {
 public:
    virtual ~Cancellable() = default;
    virtual void cancel() = 0;
};

/// Owns a subscription and cancels it when destroyed. Move-only; ordered by
/// identity so that it can live in a std::set.
class AnyCancellable {
 public:
    AnyCancellable() = default;
    explicit AnyCancellable(std::shared_ptr<Cancellable> cancellable)
        : cancellable_(std::move(cancellable)) {}
    /// Runs `onCancel` once, on the first cancel() or on destruction.
    explicit AnyCancellable(std::function<void()> onCancel);

    AnyCancellable(AnyCancellable&& other) noexcept = default;
    AnyCancellable& operator=(AnyCancellable&& other) noexcept {
        if (this != &other) {
            cancel();
            cancellable_ = std::move(other.cancellable_);
        }
        return *this;
    }
    AnyCancellable(const AnyCancellable&) = delete;
    AnyCancellable& operator=(const AnyCancellable&) = delete;
    ~AnyCancellable() { cancel(); }

    /// Cancels the subscription (also for an element of a std::set, hence const).
    void cancel() const {
        if (cancellable_) cancellable_->cancel();
    }

    /// Moves this cancellable into `set` or `vector`, which then keeps the
    /// subscription alive: `subject->sink(...).store(subscriptions_);`
    void store(std::set<AnyCancellable>& set) { set.insert(std::move(*this)); }
    void store(std::vector<AnyCancellable>& vector) { vector.push_back(std::move(*this)); }

    explicit operator bool() const { return cancellable_ != nullptr; }

    friend bool operator<(const AnyCancellable& a, const AnyCancellable& b) {
        return std::less<const Cancellable*>()(a.cancellable_.get(), b.cancellable_.get());
    }
    friend bool operator==(const AnyCancellable& a, const AnyCancellable& b) {
        return a.cancellable_ == b.cancellable_;
    }

 private:
    std::shared_ptr<Cancellable> cancellable_;
};

/// Receives values and the completion of one subscription.
template <class T>
class Subscriber {
 public:
    virtual ~Subscriber() = default;
    virtual void receiveValue(const T& value) = 0;
    virtual void receiveCompletion(Completion completion) = 0;
};

template <class T>
class Publisher;

/// The type-erased publisher every operator returns.
template <class T>
using AnyPublisher = std::shared_ptr<Publisher<T>>;

namespace detail {
/// A pacing interval in seconds as a clock duration. Zero, negative or NaN
/// paces nothing; absurd values are capped (~95 years) so that deadline
/// arithmetic cannot overflow.
inline std::chrono::steady_clock::duration pacingInterval(double seconds) {
    if (!(seconds > 0)) seconds = 0;
    seconds = std::min(seconds, 3e9);
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

template <class F, class T>
using MapOutput = std::decay_t<std::invoke_result_t<F&, const T&>>;
template <class F, class T>
using CompactMapOutput = typename MapOutput<F, T>::value_type;
template <class F, class T>
using FlatMapOutput = typename MapOutput<F, T>::element_type::Output;
}  // namespace detail

template <class T>
class Publisher : public std::enable_shared_from_this<Publisher<T>> {
 public:
    using Output = T;
    virtual ~Publisher() = default;

    /// Attaches `subscriber`. The returned handle detaches it when cancelled;
    /// keep it (or cancel it), or the pipeline may stay alive. Most callers use
    /// sink(), which wraps the handle in an AnyCancellable.
    [[nodiscard]] virtual std::shared_ptr<Cancellable> subscribe(
        std::shared_ptr<Subscriber<T>> subscriber) = 0;

    /// Each value transformed by `transform(const T&) -> U`.
    template <class F>
    AnyPublisher<detail::MapOutput<F, T>> map(F transform);

    /// Each value transformed by `transform(const T&) -> std::optional<U>`;
    /// empty results are dropped.
    template <class F>
    AnyPublisher<detail::CompactMapOutput<F, T>> compactMap(F transform);

    /// For each value, `transform(const T&)` returns a publisher (any
    /// std::shared_ptr to a Publisher<U>; null is skipped); the values of all
    /// of them, any number at a time, are merged into one stream. Finishes when
    /// this publisher and every inner publisher have finished.
    template <class F>
    AnyPublisher<detail::FlatMapOutput<F, T>> flatMap(F transform);

    /// Pairs of the latest value of each side; emits on every value of either
    /// side once both have emitted. Finishes when both sides have finished.
    template <class U>
    AnyPublisher<std::pair<T, U>> combineLatest(std::shared_ptr<Publisher<U>> other);

    /// At most one value per `intervalSeconds`, delivered on `scheduler`. A value
    /// that arrives when nothing was emitted during the last interval goes out
    /// at once (leading edge). Later values are held; when the window that
    /// started with the previous emission ends, the held value goes out (the
    /// newest one if `latest`, else the first of the window) and a new window
    /// starts. A window with nothing held ends silently. On completion a held
    /// value is delivered first.
    AnyPublisher<T> throttle(double intervalSeconds, DispatchQueue scheduler, bool latest);

    /// The same values and completion, delivered on `queue`, in order, one at a
    /// time (also on a concurrent queue).
    AnyPublisher<T> receiveOn(DispatchQueue queue);

    AnyPublisher<T> eraseToAnyPublisher() { return this->shared_from_this(); }

    /// Calls `receiveValue` for each value. Keep the result: destroying it
    /// cancels the subscription.
    [[nodiscard]] AnyCancellable sink(std::function<void(const T&)> receiveValue);
    [[nodiscard]] AnyCancellable sink(std::function<void(Completion)> receiveCompletion,
                                      std::function<void(const T&)> receiveValue);
};

namespace detail {

/// Cancellable that only records that it was cancelled.
class FlagCancellable final : public Cancellable {
 public:
    void cancel() override { cancelled_.store(true); }
    bool isCancelled() const { return cancelled_.load(); }

 private:
    std::atomic<bool> cancelled_{false};
};

/// Cancellable that runs a closure once.
class ClosureCancellable final : public Cancellable {
 public:
    explicit ClosureCancellable(std::function<void()> f) : f_(std::move(f)) {}
    void cancel() override {
        std::function<void()> f;
        {
            std::lock_guard lock(mutex_);
            f = std::move(f_);
            f_ = nullptr;
        }
        if (f) f();
    }

 private:
    std::mutex mutex_;
    std::function<void()> f_;
};

/// The handle of an upstream subscription, held by an operator. Cancelling the
/// operator cancels it; completion just lets it go (which also breaks the
/// reference cycle that upstream -> operator -> upstream would form). A handle
/// that arrives after either event is dropped, or cancelled.
class UpstreamLink {
 public:
    void attach(std::shared_ptr<Cancellable> upstream) {
        bool cancelIt = false;
        {
            std::lock_guard lock(mutex_);
            if (state_ == State::open) {
                upstream_ = std::move(upstream);
                return;
            }
            cancelIt = state_ == State::cancelled;
        }
        if (cancelIt && upstream) upstream->cancel();
    }
    void cancel() {
        std::shared_ptr<Cancellable> up;
        {
            std::lock_guard lock(mutex_);
            state_ = State::cancelled;
            up = std::move(upstream_);
        }
        if (up) up->cancel();
    }
    void release() {
        std::shared_ptr<Cancellable> up;
        std::lock_guard lock(mutex_);
        if (state_ == State::open) state_ = State::released;
        up = std::move(upstream_);
        // `up` goes out of scope after the lock: its owner (the sender) still
        // holds it while it delivers, so this never destroys a running object.
    }

 private:
    enum class State { open, released, cancelled };
    std::mutex mutex_;
    State state_ = State::open;
    std::shared_ptr<Cancellable> upstream_;
};

/// Subscriber built from two closures (operators use it with weak captures so
/// that the upstream never owns the operator).
template <class T>
class CallbackSubscriber final : public Subscriber<T> {
 public:
    CallbackSubscriber(std::function<void(const T&)> v, std::function<void(Completion)> c)
        : value_(std::move(v)), completion_(std::move(c)) {}
    void receiveValue(const T& value) override { value_(value); }
    void receiveCompletion(Completion completion) override { completion_(completion); }

 private:
    std::function<void(const T&)> value_;
    std::function<void(Completion)> completion_;
};

template <class T>
class SubjectCore;

/// One subscriber of a subject. Its recursive mutex serialises deliveries from
/// several sending threads while letting a subscriber send re-entrantly.
template <class T>
class SubjectSubscription final : public Cancellable {
 public:
    SubjectSubscription(std::weak_ptr<SubjectCore<T>> core, std::shared_ptr<Subscriber<T>> d)
        : core_(std::move(core)), downstream_(std::move(d)) {}

    void deliverValue(const T& value) {
        std::lock_guard lock(deliveryMutex_);
        if (cancelled_.load(std::memory_order_acquire) || finished_) return;
        downstream_->receiveValue(value);
    }
    void deliverCompletion(Completion completion) {
        std::lock_guard lock(deliveryMutex_);
        if (cancelled_.load(std::memory_order_acquire) || finished_) return;
        finished_ = true;
        downstream_->receiveCompletion(completion);
    }
    void cancel() override {
        if (cancelled_.exchange(true)) return;
        if (auto core = core_.lock()) core->remove(this);
    }

    std::recursive_mutex deliveryMutex_;

 private:
    std::weak_ptr<SubjectCore<T>> core_;
    std::shared_ptr<Subscriber<T>> downstream_;
    std::atomic<bool> cancelled_{false};
    bool finished_ = false;  // guarded by deliveryMutex_
};

/// The subscriber list shared by both subjects. The list is copy-on-write, so
/// a send takes the lock only to copy one pointer and delivers without it.
template <class T>
class SubjectCore : public std::enable_shared_from_this<SubjectCore<T>> {
 public:
    using Subscription = SubjectSubscription<T>;
    using List = std::vector<std::shared_ptr<Subscription>>;

    explicit SubjectCore(std::optional<T> current = std::nullopt) : current_(std::move(current)) {}

    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<T>> subscriber) {
        std::unique_lock lock(mutex_);
        if (completed_) {
            lock.unlock();
            subscriber->receiveCompletion(Completion::finished);
            return std::make_shared<FlagCancellable>();
        }
        auto sub = std::make_shared<Subscription>(this->weak_from_this(), std::move(subscriber));
        auto list = std::make_shared<List>(*list_);
        list->push_back(sub);
        list_ = std::move(list);
        if (!current_) return sub;
        // Replay the current value before any newer send can reach this
        // subscriber: its delivery lock is taken while the list lock is still
        // held, so a sender that sees the new entry waits behind the replay.
        std::unique_lock delivery(sub->deliveryMutex_);
        T value = *current_;
        lock.unlock();
        sub->deliverValue(value);
        return sub;
    }

    void send(const T& value) {
        std::shared_ptr<const List> list;
        {
            std::lock_guard lock(mutex_);
            if (completed_) return;
            if (current_) current_ = value;
            list = list_;
        }
        for (const auto& sub : *list) sub->deliverValue(value);
    }

    void send(Completion completion) {
        std::shared_ptr<const List> list;
        {
            std::lock_guard lock(mutex_);
            if (completed_) return;
            completed_ = true;
            list = std::move(list_);
            list_ = std::make_shared<const List>();
        }
        for (const auto& sub : *list) sub->deliverCompletion(completion);
    }

    void remove(const Subscription* sub) {
        std::shared_ptr<const List> old;
        std::lock_guard lock(mutex_);
        auto list = std::make_shared<List>();
        list->reserve(list_->size());
        for (const auto& s : *list_)
            if (s.get() != sub) list->push_back(s);
        old = std::move(list_);  // released after the lock (may free the entry)
        list_ = std::move(list);
    }

    std::optional<T> current() const {
        std::lock_guard lock(mutex_);
        return current_;
    }
    std::size_t count() const {
        std::lock_guard lock(mutex_);
        return list_->size();
    }

 private:
    mutable std::mutex mutex_;
    std::shared_ptr<const List> list_ = std::make_shared<const List>();
    std::optional<T> current_;  // engaged only for a current-value subject
    bool completed_ = false;
};

}  // namespace detail

/// A subject that forwards every value it is sent to its current subscribers
/// (multicast, no replay).
template <class T>
class PassthroughSubject final : public Publisher<T> {
    struct Key {
        explicit Key() = default;
    };

 public:
    static std::shared_ptr<PassthroughSubject> make() {
        return std::make_shared<PassthroughSubject>(Key{});
    }
    explicit PassthroughSubject(Key) : core_(std::make_shared<detail::SubjectCore<T>>()) {}
    ~PassthroughSubject() override = default;

    void send(const T& value) { core_->send(value); }
    /// Ends the stream; later sends are ignored.
    void send(Completion completion) { core_->send(completion); }
    /// Subscribers currently attached (diagnostics and tests).
    std::size_t subscriberCount() const { return core_->count(); }

    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        return core_->subscribe(std::move(subscriber));
    }

 private:
    std::shared_ptr<detail::SubjectCore<T>> core_;
};

/// A subject that holds a current value: a new subscriber receives it first,
/// and send() replaces it.
template <class T>
class CurrentValueSubject final : public Publisher<T> {
    struct Key {
        explicit Key() = default;
    };

 public:
    static std::shared_ptr<CurrentValueSubject> make(T initial) {
        return std::make_shared<CurrentValueSubject>(Key{}, std::move(initial));
    }
    CurrentValueSubject(Key, T initial)
        : core_(std::make_shared<detail::SubjectCore<T>>(std::move(initial))) {}

    T value() const { return *core_->current(); }
    /// Stores `value` and sends it (ignored after completion).
    void send(const T& value) { core_->send(value); }
    void send(Completion completion) { core_->send(completion); }
    std::size_t subscriberCount() const { return core_->count(); }

    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        return core_->subscribe(std::move(subscriber));
    }

 private:
    std::shared_ptr<detail::SubjectCore<T>> core_;
};

/// Emits one value and finishes, synchronously, to each subscriber.
template <class T>
class Just final : public Publisher<T> {
    struct Key {
        explicit Key() = default;
    };

 public:
    static std::shared_ptr<Just> make(T value) {
        return std::make_shared<Just>(Key{}, std::move(value));
    }
    Just(Key, T value) : value_(std::move(value)) {}

    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        subscriber->receiveValue(value_);
        subscriber->receiveCompletion(Completion::finished);
        return std::make_shared<detail::FlagCancellable>();
    }

 private:
    T value_;
};

// ---------------------------------------------------------------------------
// Operators. Implementation detail; use the Publisher member functions.

namespace detail {

template <class T, class U, class F>
class MapSubscriber final : public Subscriber<T> {
 public:
    MapSubscriber(F f, std::shared_ptr<Subscriber<U>> d) : f_(std::move(f)), d_(std::move(d)) {}
    void receiveValue(const T& value) override { d_->receiveValue(f_(value)); }
    void receiveCompletion(Completion c) override { d_->receiveCompletion(c); }

 private:
    F f_;
    std::shared_ptr<Subscriber<U>> d_;
};

template <class T, class U, class F>
class CompactMapSubscriber final : public Subscriber<T> {
 public:
    CompactMapSubscriber(F f, std::shared_ptr<Subscriber<U>> d)
        : f_(std::move(f)), d_(std::move(d)) {}
    void receiveValue(const T& value) override {
        if (auto out = f_(value)) d_->receiveValue(*out);
    }
    void receiveCompletion(Completion c) override { d_->receiveCompletion(c); }

 private:
    F f_;
    std::shared_ptr<Subscriber<U>> d_;
};

/// map and compactMap: stateless, so the subscription is the upstream's own.
template <class T, class U, class F, template <class, class, class> class Sub>
class TransformPublisher final : public Publisher<U> {
 public:
    TransformPublisher(AnyPublisher<T> upstream, F f)
        : upstream_(std::move(upstream)), f_(std::move(f)) {}
    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<U>> subscriber) override {
        return upstream_->subscribe(std::make_shared<Sub<T, U, F>>(f_, std::move(subscriber)));
    }

 private:
    AnyPublisher<T> upstream_;
    F f_;
};

/// Delivers values and the completion to one subscriber on a queue, in order
/// and one at a time: a single drain job runs at any moment, so a concurrent
/// queue cannot run two deliveries side by side or reorder them.
template <class T>
class QueueDelivery final : public std::enable_shared_from_this<QueueDelivery<T>> {
 public:
    QueueDelivery(DispatchQueue queue, std::shared_ptr<Subscriber<T>> d)
        : queue_(std::move(queue)), downstream_(std::move(d)) {}

    void push(std::variant<T, Completion> item) {
        std::lock_guard lock(mutex_);
        if (done_ || cancelled_.load()) return;
        if (std::holds_alternative<Completion>(item)) done_ = true;
        pending_.push_back(std::move(item));
        if (!scheduled_) {
            scheduled_ = true;
            schedule();
        }
    }
    void cancel() {
        cancelled_.store(true);
        std::deque<std::variant<T, Completion>> dropped;
        std::lock_guard lock(mutex_);
        dropped.swap(pending_);
    }

 private:
    void schedule() {
        queue_.async([self = this->shared_from_this()] { self->drain(); });
    }
    void drain() {
        std::size_t budget;
        {
            std::lock_guard lock(mutex_);
            budget = pending_.size();
        }
        // Deliver what was pending when the job started, then yield the queue
        // so that one busy stream does not monopolise it.
        for (; budget > 0; --budget) {
            std::optional<std::variant<T, Completion>> item;
            {
                std::lock_guard lock(mutex_);
                if (pending_.empty()) break;
                item.emplace(std::move(pending_.front()));
                pending_.pop_front();
            }
            if (cancelled_.load()) break;
            if (auto* v = std::get_if<T>(&*item)) {
                downstream_->receiveValue(*v);
            } else {
                downstream_->receiveCompletion(std::get<Completion>(*item));
            }
        }
        std::lock_guard lock(mutex_);
        if (pending_.empty() || cancelled_.load()) {
            scheduled_ = false;
        } else {
            schedule();
        }
    }

    DispatchQueue queue_;
    std::shared_ptr<Subscriber<T>> downstream_;
    std::mutex mutex_;
    std::deque<std::variant<T, Completion>> pending_;
    bool scheduled_ = false;
    bool done_ = false;
    std::atomic<bool> cancelled_{false};
};

template <class T>
class ReceiveOnSubscription final : public Cancellable {
 public:
    ReceiveOnSubscription(DispatchQueue queue, std::shared_ptr<Subscriber<T>> d)
        : delivery_(std::make_shared<QueueDelivery<T>>(std::move(queue), std::move(d))) {}
    void cancel() override {
        if (cancelled_.exchange(true)) return;
        delivery_->cancel();
        link_.cancel();
    }
    void value(const T& v) { delivery_->push(v); }
    void completion(Completion c) {
        delivery_->push(c);
        link_.release();
    }
    UpstreamLink link_;

 private:
    std::shared_ptr<QueueDelivery<T>> delivery_;
    std::atomic<bool> cancelled_{false};
};

template <class T>
class ReceiveOnPublisher final : public Publisher<T> {
 public:
    ReceiveOnPublisher(AnyPublisher<T> upstream, DispatchQueue queue)
        : upstream_(std::move(upstream)), queue_(std::move(queue)) {}
    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        auto sub = std::make_shared<ReceiveOnSubscription<T>>(queue_, std::move(subscriber));
        std::weak_ptr<ReceiveOnSubscription<T>> w = sub;
        sub->link_.attach(upstream_->subscribe(std::make_shared<CallbackSubscriber<T>>(
            [w](const T& v) {
                if (auto s = w.lock()) s->value(v);
            },
            [w](Completion c) {
                if (auto s = w.lock()) s->completion(c);
            })));
        return sub;
    }

 private:
    AnyPublisher<T> upstream_;
    DispatchQueue queue_;
};

template <class T>
class ThrottleSubscription final : public Cancellable,
                                   public std::enable_shared_from_this<ThrottleSubscription<T>> {
 public:
    ThrottleSubscription(double seconds, DispatchQueue queue, bool latest,
                         std::shared_ptr<Subscriber<T>> d)
        : interval_(detail::pacingInterval(seconds)),
          queue_(queue),
          latest_(latest),
          delivery_(std::make_shared<QueueDelivery<T>>(std::move(queue), std::move(d))) {}

    void value(const T& v) {
        std::lock_guard lock(mutex_);
        if (cancelled_ || finished_) return;
        const DispatchTime now = dispatchNow();
        if (!timerPending_ && (!lastEmit_ || now - *lastEmit_ >= interval_)) {
            lastEmit_ = now;
            delivery_->push(v);  // under the lock, so emissions stay in time order
            return;
        }
        if (latest_ || !held_) held_ = v;
        if (!timerPending_) {
            timerPending_ = true;
            std::weak_ptr<ThrottleSubscription> w = this->weak_from_this();
            queue_.asyncAfter(*lastEmit_ + interval_, [w] {
                if (auto s = w.lock()) s->windowEnded();
            });
        }
    }
    void completion(Completion c) {
        {
            std::lock_guard lock(mutex_);
            if (cancelled_ || finished_) return;
            finished_ = true;
            if (held_) delivery_->push(std::move(*held_));
            held_.reset();
            delivery_->push(c);
        }
        link_.release();
    }
    void cancel() override {
        {
            std::lock_guard lock(mutex_);
            if (cancelled_) return;
            cancelled_ = true;
            held_.reset();
        }
        delivery_->cancel();
        link_.cancel();
    }
    UpstreamLink link_;

 private:
    void windowEnded() {
        std::lock_guard lock(mutex_);
        timerPending_ = false;
        if (cancelled_ || finished_ || !held_) return;
        lastEmit_ = dispatchNow();
        delivery_->push(std::move(*held_));
        held_.reset();
    }

    const std::chrono::steady_clock::duration interval_;
    DispatchQueue queue_;
    const bool latest_;
    std::shared_ptr<QueueDelivery<T>> delivery_;
    std::mutex mutex_;
    std::optional<DispatchTime> lastEmit_;
    std::optional<T> held_;
    bool timerPending_ = false;
    bool finished_ = false;
    bool cancelled_ = false;
};

template <class T>
class ThrottlePublisher final : public Publisher<T> {
 public:
    ThrottlePublisher(AnyPublisher<T> upstream, double seconds, DispatchQueue queue, bool latest)
        : upstream_(std::move(upstream)),
          seconds_(seconds),
          queue_(std::move(queue)),
          latest_(latest) {}
    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        auto sub = std::make_shared<ThrottleSubscription<T>>(seconds_, queue_, latest_,
                                                             std::move(subscriber));
        std::weak_ptr<ThrottleSubscription<T>> w = sub;
        sub->link_.attach(upstream_->subscribe(std::make_shared<CallbackSubscriber<T>>(
            [w](const T& v) {
                if (auto s = w.lock()) s->value(v);
            },
            [w](Completion c) {
                if (auto s = w.lock()) s->completion(c);
            })));
        return sub;
    }

 private:
    AnyPublisher<T> upstream_;
    double seconds_;
    DispatchQueue queue_;
    bool latest_;
};

template <class T, class U, class F>
class FlatMapSubscription final
    : public Cancellable,
      public std::enable_shared_from_this<FlatMapSubscription<T, U, F>> {
 public:
    FlatMapSubscription(F f, std::shared_ptr<Subscriber<U>> d)
        : f_(std::move(f)), downstream_(std::move(d)) {}

    void value(const T& v) {
        if (cancelled_.load()) return;
        auto inner = f_(v);
        if (!inner) return;
        std::uint64_t id;
        {
            std::lock_guard lock(mutex_);
            id = nextId_++;
            inners_.emplace(id, nullptr);
        }
        std::weak_ptr<FlatMapSubscription> w = this->weak_from_this();
        auto handle = inner->subscribe(std::make_shared<CallbackSubscriber<U>>(
            [w](const U& u) {
                if (auto s = w.lock()) s->innerValue(u);
            },
            [w, id](Completion) {
                if (auto s = w.lock()) s->innerFinished(id);
            }));
        bool cancelIt = false;
        {
            std::lock_guard lock(mutex_);
            auto it = inners_.find(id);
            if (it != inners_.end()) {
                // Not finished synchronously: keep the handle, unless a cancel
                // raced with the subscribe.
                if (cancelled_.load()) {
                    inners_.erase(it);
                    cancelIt = true;
                } else {
                    it->second = handle;
                }
            }
        }
        if (cancelIt && handle) handle->cancel();
    }
    void completion(Completion) {
        link_.release();
        bool finish;
        {
            std::lock_guard lock(mutex_);
            upstreamFinished_ = true;
            finish = inners_.empty();
        }
        if (finish) complete();
    }
    void cancel() override {
        if (cancelled_.exchange(true)) return;
        link_.cancel();
        std::map<std::uint64_t, std::shared_ptr<Cancellable>> inners;
        {
            std::lock_guard lock(mutex_);
            inners.swap(inners_);
        }
        for (auto& [id, handle] : inners)
            if (handle) handle->cancel();
    }
    UpstreamLink link_;

 private:
    void innerValue(const U& u) {
        std::lock_guard lock(deliveryMutex_);
        if (cancelled_.load() || done_) return;
        downstream_->receiveValue(u);
    }
    void innerFinished(std::uint64_t id) {
        std::shared_ptr<Cancellable> handle;  // released after the lock
        bool finish;
        {
            std::lock_guard lock(mutex_);
            auto it = inners_.find(id);
            if (it != inners_.end()) {
                handle = std::move(it->second);
                inners_.erase(it);
            }
            finish = upstreamFinished_ && inners_.empty();
        }
        if (finish) complete();
    }
    void complete() {
        std::lock_guard lock(deliveryMutex_);
        if (cancelled_.load() || done_) return;
        done_ = true;
        downstream_->receiveCompletion(Completion::finished);
    }

    F f_;
    std::shared_ptr<Subscriber<U>> downstream_;
    std::recursive_mutex deliveryMutex_;  // inner publishers may emit on many threads
    bool done_ = false;                   // guarded by deliveryMutex_
    std::mutex mutex_;
    std::map<std::uint64_t, std::shared_ptr<Cancellable>> inners_;
    std::uint64_t nextId_ = 0;
    bool upstreamFinished_ = false;
    std::atomic<bool> cancelled_{false};
};

template <class T, class U, class F>
class FlatMapPublisher final : public Publisher<U> {
 public:
    FlatMapPublisher(AnyPublisher<T> upstream, F f) : upstream_(std::move(upstream)), f_(f) {}
    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<U>> subscriber) override {
        auto sub = std::make_shared<FlatMapSubscription<T, U, F>>(f_, std::move(subscriber));
        std::weak_ptr<FlatMapSubscription<T, U, F>> w = sub;
        sub->link_.attach(upstream_->subscribe(std::make_shared<CallbackSubscriber<T>>(
            [w](const T& v) {
                if (auto s = w.lock()) s->value(v);
            },
            [w](Completion c) {
                if (auto s = w.lock()) s->completion(c);
            })));
        return sub;
    }

 private:
    AnyPublisher<T> upstream_;
    F f_;
};

template <class A, class B>
class CombineLatestSubscription final : public Cancellable {
 public:
    explicit CombineLatestSubscription(std::shared_ptr<Subscriber<std::pair<A, B>>> d)
        : downstream_(std::move(d)) {}

    // One recursive mutex guards the state and serialises the delivery, so the
    // pair sent is always made of the two values current at that moment.
    void valueA(const A& a) {
        std::lock_guard lock(mutex_);
        if (cancelled_.load() || done_) return;
        a_ = a;
        if (b_) downstream_->receiveValue(std::pair<A, B>(*a_, *b_));
    }
    void valueB(const B& b) {
        std::lock_guard lock(mutex_);
        if (cancelled_.load() || done_) return;
        b_ = b;
        if (a_) downstream_->receiveValue(std::pair<A, B>(*a_, *b_));
    }
    void finished(bool sideA) {
        (sideA ? linkA_ : linkB_).release();
        std::lock_guard lock(mutex_);
        (sideA ? finishedA_ : finishedB_) = true;
        if (!finishedA_ || !finishedB_ || done_ || cancelled_.load()) return;
        done_ = true;
        downstream_->receiveCompletion(Completion::finished);
    }
    void cancel() override {
        if (cancelled_.exchange(true)) return;
        linkA_.cancel();
        linkB_.cancel();
    }
    UpstreamLink linkA_, linkB_;

 private:
    std::shared_ptr<Subscriber<std::pair<A, B>>> downstream_;
    std::recursive_mutex mutex_;
    std::optional<A> a_;
    std::optional<B> b_;
    bool finishedA_ = false, finishedB_ = false, done_ = false;
    std::atomic<bool> cancelled_{false};
};

template <class A, class B>
class CombineLatestPublisher final : public Publisher<std::pair<A, B>> {
 public:
    CombineLatestPublisher(AnyPublisher<A> a, AnyPublisher<B> b)
        : a_(std::move(a)), b_(std::move(b)) {}
    std::shared_ptr<Cancellable> subscribe(
        std::shared_ptr<Subscriber<std::pair<A, B>>> subscriber) override {
        using Sub = CombineLatestSubscription<A, B>;
        auto sub = std::make_shared<Sub>(std::move(subscriber));
        std::weak_ptr<Sub> w = sub;
        sub->linkA_.attach(a_->subscribe(std::make_shared<CallbackSubscriber<A>>(
            [w](const A& v) {
                if (auto s = w.lock()) s->valueA(v);
            },
            [w](Completion) {
                if (auto s = w.lock()) s->finished(true);
            })));
        sub->linkB_.attach(b_->subscribe(std::make_shared<CallbackSubscriber<B>>(
            [w](const B& v) {
                if (auto s = w.lock()) s->valueB(v);
            },
            [w](Completion) {
                if (auto s = w.lock()) s->finished(false);
            })));
        return sub;
    }

 private:
    AnyPublisher<A> a_;
    AnyPublisher<B> b_;
};

template <class T>
class SinkSubscriber final : public Subscriber<T>, public Cancellable {
 public:
    SinkSubscriber(std::function<void(Completion)> c, std::function<void(const T&)> v)
        : onCompletion_(std::move(c)), onValue_(std::move(v)) {}

    void receiveValue(const T& value) override {
        std::lock_guard lock(mutex_);
        if (cancelled_.load(std::memory_order_acquire) || finished_) return;
        if (onValue_) onValue_(value);
    }
    void receiveCompletion(Completion completion) override {
        {
            std::lock_guard lock(mutex_);
            if (cancelled_.load(std::memory_order_acquire) || finished_) return;
            finished_ = true;
            if (onCompletion_) onCompletion_(completion);
        }
        link_.release();
    }
    void cancel() override {
        if (cancelled_.exchange(true)) return;
        link_.cancel();
    }
    UpstreamLink link_;

 private:
    std::function<void(Completion)> onCompletion_;
    std::function<void(const T&)> onValue_;
    // Serialises calls for publishers written outside this file, which may not.
    std::recursive_mutex mutex_;
    std::atomic<bool> cancelled_{false};
    bool finished_ = false;  // guarded by mutex_
};

}  // namespace detail

// ---------------------------------------------------------------------------
// Publisher member templates.

template <class T>
template <class F>
AnyPublisher<detail::MapOutput<F, T>> Publisher<T>::map(F transform) {
    using U = detail::MapOutput<F, T>;
    static_assert(!std::is_void_v<U>, "map needs a transform that returns a value");
    return std::make_shared<detail::TransformPublisher<T, U, F, detail::MapSubscriber>>(
        this->shared_from_this(), std::move(transform));
}

template <class T>
template <class F>
AnyPublisher<detail::CompactMapOutput<F, T>> Publisher<T>::compactMap(F transform) {
    using U = detail::CompactMapOutput<F, T>;
    return std::make_shared<detail::TransformPublisher<T, U, F, detail::CompactMapSubscriber>>(
        this->shared_from_this(), std::move(transform));
}

template <class T>
template <class F>
AnyPublisher<detail::FlatMapOutput<F, T>> Publisher<T>::flatMap(F transform) {
    using U = detail::FlatMapOutput<F, T>;
    return std::make_shared<detail::FlatMapPublisher<T, U, F>>(this->shared_from_this(),
                                                               std::move(transform));
}

template <class T>
template <class U>
AnyPublisher<std::pair<T, U>> Publisher<T>::combineLatest(std::shared_ptr<Publisher<U>> other) {
    return std::make_shared<detail::CombineLatestPublisher<T, U>>(this->shared_from_this(),
                                                                  std::move(other));
}

template <class T>
AnyPublisher<T> Publisher<T>::throttle(double intervalSeconds, DispatchQueue scheduler,
                                       bool latest) {
    return std::make_shared<detail::ThrottlePublisher<T>>(this->shared_from_this(), intervalSeconds,
                                                          std::move(scheduler), latest);
}

template <class T>
AnyPublisher<T> Publisher<T>::receiveOn(DispatchQueue queue) {
    return std::make_shared<detail::ReceiveOnPublisher<T>>(this->shared_from_this(),
                                                           std::move(queue));
}

template <class T>
AnyCancellable Publisher<T>::sink(std::function<void(const T&)> receiveValue) {
    return sink(nullptr, std::move(receiveValue));
}

template <class T>
AnyCancellable Publisher<T>::sink(std::function<void(Completion)> receiveCompletion,
                                  std::function<void(const T&)> receiveValue) {
    auto s = std::make_shared<detail::SinkSubscriber<T>>(std::move(receiveCompletion),
                                                         std::move(receiveValue));
    s->link_.attach(subscribe(s));
    return AnyCancellable(std::shared_ptr<Cancellable>(s));
}

inline AnyCancellable::AnyCancellable(std::function<void()> onCancel)
    : cancellable_(std::make_shared<detail::ClosureCancellable>(std::move(onCancel))) {}

}  // namespace zdr
