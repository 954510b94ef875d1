// ObservableObject: observable keys. An object announces that the value of a
// named key is about to change and that it has changed; observers register
// with that object for one key (or all keys) and keep a token that
// unregisters them when destroyed. User interfaces bind to such keys
// ("volume", "deviceName", "level"...), and pipelines can watch the
// objectWillChange()/objectDidChange() publishers, which carry the key.
// Published<T> is a property that announces itself under its key and also
// publishes its values.
//
// Use it as a base class (or a member) of the announcing object:
//
//     class Channel : public zdr::ObservableObject {
//         void setLevel(double v) { changeValue("level", [&] { level_ = v; }); }
//     };
//     auto token = channel.observe("level", [](const zdr::KeyChange& c) { ... });
//
// Delivery: an observer without a queue is called synchronously on the
// announcing thread, in registration order; one with a queue is called
// asynchronously on that queue (the announcement never waits for it).
// Will-change announcements reach only observers that asked for them.
// Destroying or invalidating a token unregisters its observer: a queued call
// that has not started is dropped; a call already running on another thread
// may finish. Observers may announce, register and unregister from inside a
// call. The object may be destroyed before its tokens; they then do nothing.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/publisher.h"

namespace zdr {

enum class KeyChangePhase { willChange, didChange };

struct KeyChange {
    std::string key;
    KeyChangePhase phase = KeyChangePhase::didChange;
};

struct KeyObservationOptions {
    /// Also call the observer before the change (will-change), not only after.
    bool prior = false;
    /// Queue to call the observer on; none means the announcing thread.
    std::optional<DispatchQueue> queue;
};

namespace detail {
class KeyObserverRegistry;
struct KeyObserverEntry;
}  // namespace detail

/// Keeps one observer registered; unregisters it when destroyed.
class KeyObservation {
 public:
    KeyObservation(std::weak_ptr<detail::KeyObserverRegistry> registry,
                   std::shared_ptr<detail::KeyObserverEntry> entry);
    ~KeyObservation();
    KeyObservation(const KeyObservation&) = delete;
    KeyObservation& operator=(const KeyObservation&) = delete;

    /// Unregisters now (idempotent).
    void invalidate();

 private:
    std::weak_ptr<detail::KeyObserverRegistry> registry_;
    std::shared_ptr<detail::KeyObserverEntry> entry_;
};

class ObservableObject {
 public:
    using Observer = std::function<void(const KeyChange&)>;

    ObservableObject();
    /// A copy has its own, empty set of observers.
    ObservableObject(const ObservableObject&);
    ObservableObject& operator=(const ObservableObject&) { return *this; }
    virtual ~ObservableObject();

    /// Registers `observer` for `key` (an empty key observes every key).
    [[nodiscard]] std::shared_ptr<KeyObservation> observe(std::string key, Observer observer,
                                                          KeyObservationOptions options = {});

    /// Announces that `key` is about to change.
    void willChangeValue(const std::string& key) const;
    /// Announces that `key` has changed.
    void didChangeValue(const std::string& key) const;
    /// willChangeValue, `mutate()`, didChangeValue.
    template <class F>
    void changeValue(const std::string& key, F&& mutate) {
        willChangeValue(key);
        std::forward<F>(mutate)();
        didChangeValue(key);
    }

    /// Emits the key before each change (after the will-change observers).
    AnyPublisher<std::string> objectWillChange() const;
    /// Emits the key after each change (after the did-change observers).
    AnyPublisher<std::string> objectDidChange() const;

    /// Observers currently registered (diagnostics and tests).
    std::size_t keyObserverCount() const;

 private:
    std::shared_ptr<detail::KeyObserverRegistry> registry_;
};

/// A property of an ObservableObject whose changes are announced under its
/// key and published (like a published property and its `$` publisher).
/// set() announces will-change, emits the new value on publisher() (where a
/// subscriber still reads the old value through get()), stores it, then
/// announces did-change. publisher() gives a new subscriber the current value
/// first. Thread safety: get() and publisher() from any thread; set() from any
/// thread, but concurrent set() calls may publish in a different order than
/// they store, so callers that set from several threads serialise them.
template <class T>
class Published {
 public:
    Published(const ObservableObject& owner, std::string key, T initial)
        : owner_(owner),
          key_(std::move(key)),
          value_(initial),
          subject_(CurrentValueSubject<T>::make(std::move(initial))) {}
    Published(const Published&) = delete;
    Published& operator=(const Published&) = delete;

    T get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    void set(T value) {
        owner_.willChangeValue(key_);
        subject_->send(value);
        {
            std::lock_guard lock(mutex_);
            value_ = std::move(value);
        }
        owner_.didChangeValue(key_);
    }
    AnyPublisher<T> publisher() const { return subject_; }
    const std::string& key() const { return key_; }

 private:
    const ObservableObject& owner_;
    const std::string key_;
    mutable std::mutex mutex_;
    T value_;
    std::shared_ptr<CurrentValueSubject<T>> subject_;
};

}  // namespace zdr
