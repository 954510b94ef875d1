#include "zdr/runtime/observable_object.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace zdr {
namespace detail {

struct KeyObserverEntry {
    std::string key;
    ObservableObject::Observer observer;
    KeyObservationOptions options;
    // Cleared on removal; a queued call checks it when it starts, so a call
    // queued before the token went away is dropped.
    std::atomic<bool> active{true};
};

class KeyObserverRegistry {
 public:
    using List = std::vector<std::shared_ptr<KeyObserverEntry>>;

    void add(std::shared_ptr<KeyObserverEntry> entry) {
        std::lock_guard lock(mutex_);
        auto list = std::make_shared<List>(*list_);
        list->push_back(std::move(entry));
        list_ = std::move(list);
    }

    void remove(const KeyObserverEntry* entry) {
        std::shared_ptr<const List> old;  // freed after the lock is released
        std::lock_guard lock(mutex_);
        auto list = std::make_shared<List>();
        for (const auto& e : *list_)
            if (e.get() != entry) list->push_back(e);
        old = std::move(list_);
        list_ = std::move(list);
    }

    void announce(const std::string& key, KeyChangePhase phase) {
        std::shared_ptr<const List> list;
        {
            std::lock_guard lock(mutex_);
            list = list_;
        }
        // Observers run without the lock held, so they may register, remove
        // and announce freely.
        for (const auto& entry : *list) {
            if (!entry->key.empty() && entry->key != key) continue;
            if (phase == KeyChangePhase::willChange && !entry->options.prior) continue;
            if (!entry->active.load()) continue;
            KeyChange change{key, phase};
            if (entry->options.queue) {
                entry->options.queue->async([entry, change] {
                    if (entry->active.load()) entry->observer(change);
                });
            } else {
                entry->observer(change);
            }
        }
        (phase == KeyChangePhase::willChange ? willChange_ : didChange_)->send(key);
    }

    std::size_t count() const {
        std::lock_guard lock(mutex_);
        return list_->size();
    }

    const std::shared_ptr<PassthroughSubject<std::string>> willChange_ =
        PassthroughSubject<std::string>::make();
    const std::shared_ptr<PassthroughSubject<std::string>> didChange_ =
        PassthroughSubject<std::string>::make();

 private:
    mutable std::mutex mutex_;
    std::shared_ptr<const List> list_ = std::make_shared<const List>();
};

}  // namespace detail

KeyObservation::KeyObservation(std::weak_ptr<detail::KeyObserverRegistry> registry,
                               std::shared_ptr<detail::KeyObserverEntry> entry)
    : registry_(std::move(registry)), entry_(std::move(entry)) {}

KeyObservation::~KeyObservation() { invalidate(); }

void KeyObservation::invalidate() {
    if (!entry_->active.exchange(false)) return;
    if (auto registry = registry_.lock()) registry->remove(entry_.get());
}

ObservableObject::ObservableObject() : registry_(std::make_shared<detail::KeyObserverRegistry>()) {}

ObservableObject::ObservableObject(const ObservableObject&) : ObservableObject() {}

ObservableObject::~ObservableObject() = default;

std::shared_ptr<KeyObservation> ObservableObject::observe(std::string key, Observer observer,
                                                          KeyObservationOptions options) {
    auto entry = std::make_shared<detail::KeyObserverEntry>();
    entry->key = std::move(key);
    entry->observer = std::move(observer);
    entry->options = std::move(options);
    registry_->add(entry);
    return std::make_shared<KeyObservation>(registry_, std::move(entry));
}

void ObservableObject::willChangeValue(const std::string& key) const {
    registry_->announce(key, KeyChangePhase::willChange);
}

void ObservableObject::didChangeValue(const std::string& key) const {
    registry_->announce(key, KeyChangePhase::didChange);
}

AnyPublisher<std::string> ObservableObject::objectWillChange() const {
    return registry_->willChange_;
}

AnyPublisher<std::string> ObservableObject::objectDidChange() const {
    return registry_->didChange_;
}

std::size_t ObservableObject::keyObserverCount() const { return registry_->count(); }

}  // namespace zdr
