// Failable publishers: streams that may end with an error instead of finishing.
//
// The publishers of publisher.h never fail, and their pipelines stay exactly as
// they are: nothing here touches Publisher<T>, its operators or their cost. A
// publisher that can fail derives from FailablePublisher<T, Failure>; its
// subscribers receive values and then one FailableCompletion<Failure>, which is
// either finished or failure(error). Code that is generic over the failure
// type uses the aliases below, which pick the never-failing types when the
// failure type is Never:
//
//     PublisherFor<int, Never>        is Publisher<int>
//     PublisherFor<int, MyError>      is FailablePublisher<int, MyError>
//
// so a one-shot publisher that cannot fail (Failure = Never) plugs straight
// into flatMap and the other operators of publisher.h.
//
//     std::shared_ptr<FailablePublisher<int, std::string>> p = ...;
//     auto c = p->sink([](const FailableCompletion<std::string>& c) {
//                          if (c.isFailure()) show(c.error());
//                      },
//                      [](const int& v) { use(v); });
//     auto safe = p->replaceError(-1);   // AnyPublisher<int>: back to never failing
//
// Delivery guarantees are those of publisher.h (thread, serial delivery,
// completion once and last, cancellation). Thread safety: every member may be
// called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "zdr/runtime/publisher.h"

namespace zdr {

/// The failure type of a stream that cannot fail. It has no values.
struct Never {
    Never() = delete;
};

/// How a failable stream ended: finished, or failed with an error.
template <class Failure>
class FailableCompletion {
 public:
    static FailableCompletion finished() { return FailableCompletion(); }
    static FailableCompletion failure(Failure error) {
        return FailableCompletion(std::move(error));
    }

    bool isFinished() const { return !error_.has_value(); }
    bool isFailure() const { return error_.has_value(); }
    /// The error of a failure (only valid when isFailure()).
    const Failure& error() const { return *error_; }

 private:
    FailableCompletion() = default;
    explicit FailableCompletion(Failure error) : error_(std::move(error)) {}
    std::optional<Failure> error_;
};

/// The outcome of one piece of work: a value, or an error of type Failure.
template <class Output, class Failure>
class Result {
 public:
    static Result success(Output value) { return Result(std::in_place_index<0>, std::move(value)); }
    static Result failure(Failure error) requires(!std::is_same_v<Failure, Never>) {
        return Result(std::in_place_index<1>, std::move(error));
    }

    bool isSuccess() const { return storage_.index() == 0; }
    const Output& value() const { return std::get<0>(storage_); }
    const Failure& error() const { return std::get<1>(storage_); }

 private:
    template <std::size_t I, class V>
    Result(std::in_place_index_t<I> i, V&& v) : storage_(i, std::forward<V>(v)) {}
    std::variant<Output, Failure> storage_;
};

/// Receives values and the completion of one subscription to a failable
/// publisher.
template <class T, class Failure>
class FailableSubscriber {
 public:
    virtual ~FailableSubscriber() = default;
    virtual void receiveValue(const T& value) = 0;
    virtual void receiveCompletion(const FailableCompletion<Failure>& completion) = 0;
};

template <class T, class Failure>
class FailablePublisher;

/// The publisher, subscriber and completion types for a failure type: the
/// never-failing ones of publisher.h when Failure is Never.
template <class T, class Failure>
using PublisherFor =
    std::conditional_t<std::is_same_v<Failure, Never>, Publisher<T>, FailablePublisher<T, Failure>>;
template <class T, class Failure>
using SubscriberFor = std::conditional_t<std::is_same_v<Failure, Never>, Subscriber<T>,
                                         FailableSubscriber<T, Failure>>;
template <class Failure>
using CompletionFor =
    std::conditional_t<std::is_same_v<Failure, Never>, Completion, FailableCompletion<Failure>>;

/// The finished completion of either kind.
template <class Failure>
CompletionFor<Failure> finishedCompletion() {
    if constexpr (std::is_same_v<Failure, Never>) {
        return Completion::finished;
    } else {
        return FailableCompletion<Failure>::finished();
    }
}

namespace detail {

template <class T, class Failure>
class FailableSinkSubscriber final : public FailableSubscriber<T, Failure>, public Cancellable {
 public:
    FailableSinkSubscriber(std::function<void(const FailableCompletion<Failure>&)> c,
                           std::function<void(const T&)> v)
        : onCompletion_(std::move(c)), onValue_(std::move(v)) {}

    void receiveValue(const T& value) override {
        std::lock_guard lock(mutex_);
        if (cancelled_.load(std::memory_order_acquire) || finished_) return;
        if (onValue_) onValue_(value);
    }
    void receiveCompletion(const FailableCompletion<Failure>& completion) override {
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
    std::function<void(const FailableCompletion<Failure>&)> onCompletion_;
    std::function<void(const T&)> onValue_;
    std::recursive_mutex mutex_;
    std::atomic<bool> cancelled_{false};
    bool finished_ = false;  // guarded by mutex_
};

/// replaceError: forwards values; a failure becomes one value and finished.
template <class T, class Failure>
class ReplaceErrorSubscriber final : public FailableSubscriber<T, Failure> {
 public:
    ReplaceErrorSubscriber(T replacement, std::shared_ptr<Subscriber<T>> d)
        : replacement_(std::move(replacement)), downstream_(std::move(d)) {}
    void receiveValue(const T& value) override { downstream_->receiveValue(value); }
    void receiveCompletion(const FailableCompletion<Failure>& completion) override {
        if (completion.isFailure()) downstream_->receiveValue(replacement_);
        downstream_->receiveCompletion(Completion::finished);
    }

 private:
    T replacement_;
    std::shared_ptr<Subscriber<T>> downstream_;
};

template <class T, class Failure>
class ReplaceErrorPublisher final : public Publisher<T> {
 public:
    ReplaceErrorPublisher(std::shared_ptr<FailablePublisher<T, Failure>> upstream, T replacement)
        : upstream_(std::move(upstream)), replacement_(std::move(replacement)) {}
    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<Subscriber<T>> subscriber) override {
        return upstream_->subscribe(std::make_shared<ReplaceErrorSubscriber<T, Failure>>(
            replacement_, std::move(subscriber)));
    }

 private:
    std::shared_ptr<FailablePublisher<T, Failure>> upstream_;
    T replacement_;
};

/// setFailureType: a never-failing stream seen as a failable one.
template <class T, class Failure>
class SetFailureTypeSubscriber final : public Subscriber<T> {
 public:
    explicit SetFailureTypeSubscriber(std::shared_ptr<FailableSubscriber<T, Failure>> d)
        : downstream_(std::move(d)) {}
    void receiveValue(const T& value) override { downstream_->receiveValue(value); }
    void receiveCompletion(Completion) override {
        downstream_->receiveCompletion(FailableCompletion<Failure>::finished());
    }

 private:
    std::shared_ptr<FailableSubscriber<T, Failure>> downstream_;
};

template <class T, class Failure>
class SetFailureTypePublisher final : public FailablePublisher<T, Failure> {
 public:
    explicit SetFailureTypePublisher(AnyPublisher<T> upstream) : upstream_(std::move(upstream)) {}
    std::shared_ptr<Cancellable> subscribe(
        std::shared_ptr<FailableSubscriber<T, Failure>> subscriber) override {
        return upstream_->subscribe(
            std::make_shared<SetFailureTypeSubscriber<T, Failure>>(std::move(subscriber)));
    }

 private:
    AnyPublisher<T> upstream_;
};

}  // namespace detail

/// A publisher that may end with an error of type Failure.
template <class T, class Failure>
class FailablePublisher : public std::enable_shared_from_this<FailablePublisher<T, Failure>> {
 public:
    using Output = T;
    using FailureType = Failure;
    virtual ~FailablePublisher() = default;

    /// Attaches `subscriber`; the handle detaches it when cancelled.
    [[nodiscard]] virtual std::shared_ptr<Cancellable> subscribe(
        std::shared_ptr<FailableSubscriber<T, Failure>> subscriber) = 0;

    /// Calls `receiveValue` for each value and `receiveCompletion` once at the
    /// end (finished or the failure). Destroying the result cancels.
    [[nodiscard]] AnyCancellable sink(
        std::function<void(const FailableCompletion<Failure>&)> receiveCompletion,
        std::function<void(const T&)> receiveValue) {
        auto s = std::make_shared<detail::FailableSinkSubscriber<T, Failure>>(
            std::move(receiveCompletion), std::move(receiveValue));
        s->link_.attach(subscribe(s));
        return AnyCancellable(std::shared_ptr<Cancellable>(s));
    }

    /// The same values; a failure becomes `replacement` followed by finished.
    /// The result never fails, so every operator of publisher.h applies.
    AnyPublisher<T> replaceError(T replacement) {
        return std::make_shared<detail::ReplaceErrorPublisher<T, Failure>>(this->shared_from_this(),
                                                                           std::move(replacement));
    }
};

/// A never-failing publisher typed as one that may fail with Failure.
template <class Failure, class T>
std::shared_ptr<FailablePublisher<T, Failure>> setFailureType(AnyPublisher<T> upstream) {
    return std::make_shared<detail::SetFailureTypePublisher<T, Failure>>(std::move(upstream));
}

/// Fails at once with `error`, synchronously, to each subscriber.
template <class T, class Failure>
class Fail final : public FailablePublisher<T, Failure> {
    struct Key {
        explicit Key() = default;
    };

 public:
    static std::shared_ptr<Fail> make(Failure error) {
        return std::make_shared<Fail>(Key{}, std::move(error));
    }
    Fail(Key, Failure error) : error_(std::move(error)) {}

    std::shared_ptr<Cancellable> subscribe(
        std::shared_ptr<FailableSubscriber<T, Failure>> subscriber) override {
        subscriber->receiveCompletion(FailableCompletion<Failure>::failure(error_));
        return std::make_shared<detail::FlagCancellable>();
    }

 private:
    Failure error_;
};

}  // namespace zdr
