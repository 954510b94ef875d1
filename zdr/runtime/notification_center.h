// NotificationCenter: named notifications with an optional sender object and a
// user-info dictionary, delivered to observers.
//
// post() delivers synchronously, on the posting thread, to observers that gave
// no queue, and asynchronously on their queue to observers that gave one (so a
// post never waits for a busy queue and can never deadlock on it). Observers
// are matched by name (empty: every name) and sender (null: any sender),
// compared by address.
//
// An observer stays registered while its token lives; destroying the token (or
// calling remove()) unregisters it, and a delivery that was queued but has not
// started is then dropped. A delivery already running on another thread may
// finish. Observers may post, add and remove observers from inside a delivery.
//
// Thread safety: every member may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zdr/runtime/dictionary.h"
#include "zdr/runtime/dispatch_queue.h"

namespace zdr {

struct Notification {
    std::string name;
    std::shared_ptr<void> object;  // the sender, may be null
    Dictionary userInfo;
};

class NotificationCenter;

/// Keeps an observer registered; unregisters it when destroyed.
class NotificationObserverToken {
 public:
    ~NotificationObserverToken();
    void remove();
    NotificationObserverToken(const NotificationObserverToken&) = delete;
    NotificationObserverToken& operator=(const NotificationObserverToken&) = delete;

    struct Entry;
    NotificationObserverToken(std::weak_ptr<NotificationCenter> center, std::shared_ptr<Entry> e);

 private:
    std::weak_ptr<NotificationCenter> center_;
    std::shared_ptr<Entry> entry_;
};

class NotificationCenter : public std::enable_shared_from_this<NotificationCenter> {
 public:
    using Block = std::function<void(const Notification&)>;

    static std::shared_ptr<NotificationCenter> defaultCenter();
    static std::shared_ptr<NotificationCenter> make();

    [[nodiscard]] std::shared_ptr<NotificationObserverToken> addObserver(
        std::string name, const void* object, std::optional<DispatchQueue> queue, Block block);

    void post(const Notification& notification);
    void post(std::string name, std::shared_ptr<void> object = nullptr, Dictionary userInfo = {});

    /// Observers currently registered (for diagnostics and tests).
    std::size_t observerCount() const;

    NotificationCenter() = default;

 private:
    friend class NotificationObserverToken;
    void removeEntry(const std::shared_ptr<NotificationObserverToken::Entry>& e);

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<NotificationObserverToken::Entry>> entries_;
};

}  // namespace zdr
