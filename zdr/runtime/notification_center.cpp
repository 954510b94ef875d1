#include "zdr/runtime/notification_center.h"
#include "zdr/runtime/layer_log.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace zdr {

struct NotificationObserverToken::Entry {
    std::string name;
    const void* object;
    std::optional<DispatchQueue> queue;
    NotificationCenter::Block block;
    std::atomic<bool> removed{false};
};

NotificationObserverToken::NotificationObserverToken(std::weak_ptr<NotificationCenter> center,
                                                     std::shared_ptr<Entry> e)
    : center_(std::move(center)), entry_(std::move(e)) {}

NotificationObserverToken::~NotificationObserverToken() { remove(); }

void NotificationObserverToken::remove() {
    if (!entry_) return;
    entry_->removed.store(true);
    if (auto center = center_.lock()) center->removeEntry(entry_);
    entry_.reset();
}

std::shared_ptr<NotificationCenter> NotificationCenter::defaultCenter() {
    static auto* center = new std::shared_ptr<NotificationCenter>(make());  // leaked on purpose
    return *center;
}

std::shared_ptr<NotificationCenter> NotificationCenter::make() {
    return std::make_shared<NotificationCenter>();
}

std::shared_ptr<NotificationObserverToken> NotificationCenter::addObserver(
    std::string name, const void* object, std::optional<DispatchQueue> queue, Block block) {
    auto entry = std::make_shared<NotificationObserverToken::Entry>();
    entry->name = std::move(name);
    entry->object = object;
    entry->queue = std::move(queue);
    entry->block = std::move(block);
    {
        std::lock_guard lock(mutex_);
        entries_.push_back(entry);
    }
    return std::make_shared<NotificationObserverToken>(weak_from_this(), std::move(entry));
}

void NotificationCenter::removeEntry(const std::shared_ptr<NotificationObserverToken::Entry>& e) {
    std::lock_guard lock(mutex_);
    entries_.erase(std::remove(entries_.begin(), entries_.end(), e), entries_.end());
}

std::size_t NotificationCenter::observerCount() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

void NotificationCenter::post(std::string name, std::shared_ptr<void> object, Dictionary userInfo) {
    post(Notification{std::move(name), std::move(object), std::move(userInfo)});
}

void NotificationCenter::post(const Notification& notification) {
    // Observers are called outside the lock so that they may post, add and
    // remove observers themselves.
    std::vector<std::shared_ptr<NotificationObserverToken::Entry>> matches;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_) {
            if (!e->name.empty() && e->name != notification.name) continue;
            if (e->object && e->object != notification.object.get()) continue;
            matches.push_back(e);
        }
    }
    std::shared_ptr<const Notification> shared;
    for (const auto& e : matches) {
        if (e->removed.load()) continue;
        if (e->queue) {
            if (!shared) shared = std::make_shared<const Notification>(notification);
            e->queue->async([e, shared] {
                if (!e->removed.load()) e->block(*shared);
            });
        } else {
            try {
                e->block(notification);
            } catch (const std::exception& ex) {
                detail::layerLog("general", 1,
                                 "An observer of " + notification.name + " threw: " + ex.what(),
                                 __func__, __FILE__, __LINE__);
            } catch (...) {
                // Whatever an observer throws stays with it: the poster and
                // the observers after it must not see it.
                detail::layerLog("general", 1,
                                 "An observer of " + notification.name +
                                     " threw something that is not a std::exception",
                                 __func__, __FILE__, __LINE__);
            }
        }
    }
}

}  // namespace zdr
