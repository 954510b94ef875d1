#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/layer_log.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>

#include "zdr/runtime/detail/thread_pool.h"
#include "zdr/runtime/detail/timer_thread.h"

namespace zdr {

DispatchTime dispatchTimeAfter(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
    constexpr double kMaxSeconds = 100.0 * 365 * 24 * 3600;
    if (seconds > kMaxSeconds) seconds = kMaxSeconds;
    return dispatchNow() + std::chrono::nanoseconds(static_cast<std::int64_t>(seconds * 1e9));
}

namespace detail {

namespace {

// The queues whose work is running on this thread, innermost last. A fixed
// array keeps the inline read path free of allocation.
struct QueueStack {
    static constexpr int kMax = 32;
    const QueueImpl* items[kMax];
    int depth = 0;
    void push(const QueueImpl* q) {
        if (depth < kMax) items[depth] = q;
        ++depth;
    }
    void pop() { --depth; }
    bool contains(const QueueImpl* q) const {
        for (int i = 0; i < depth && i < kMax; ++i)
            if (items[i] == q) return true;
        return false;
    }
    const QueueImpl* top() const { return depth > 0 && depth <= kMax ? items[depth - 1] : nullptr; }
};
thread_local QueueStack tlsQueues;

struct QueueScope {
    explicit QueueScope(const QueueImpl* q) { tlsQueues.push(q); }
    ~QueueScope() { tlsQueues.pop(); }
};

std::atomic<pid_t> gMainTid{0};

// The process id and each thread's id, cached because getpid() and gettid()
// are system calls and isMainThread() is asked on hot paths (every log line).
// A forked child refreshes both: its one thread has new ids.
std::atomic<pid_t> gPid{0};
thread_local pid_t tlsTid = 0;

void ensureForkHandler() {
    static const bool registered = [] {
        ::pthread_atfork(nullptr, nullptr, [] {
            gPid.store(::getpid(), std::memory_order_relaxed);
            gMainTid.store(0, std::memory_order_relaxed);
            tlsTid = static_cast<pid_t>(::syscall(SYS_gettid));
        });
        return true;
    }();
    (void)registered;
}

pid_t currentTid() {
    if (tlsTid == 0) {
        ensureForkHandler();
        tlsTid = static_cast<pid_t>(::syscall(SYS_gettid));
    }
    return tlsTid;
}

pid_t processId() {
    pid_t pid = gPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        ensureForkHandler();
        pid = ::getpid();
        gPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

void runGuarded(const std::function<void()>& fn, const std::string& label) {
    try {
        fn();
    } catch (const std::exception& e) {
        detail::layerLog("general", 1, "Work on queue '" + label + "' threw: " + e.what(), __func__,
                         __FILE__, __LINE__);
    } catch (...) {
        detail::layerLog(
            "general", 1,
            "Work on queue '" + label + "' threw something that is not a std::exception", __func__,
            __FILE__, __LINE__);
    }
}

[[noreturn]] void fatalDeadlock(const std::string& label) {
    std::fprintf(stderr,
                 "zdr: DispatchQueue::sync called on queue '%s' from work already running on it; "
                 "this would deadlock\n",
                 label.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace

struct SyncWaiter {
    std::condition_variable cv;
    bool released = false;
};

struct Item {
    std::function<void()> fn;
    bool barrier = false;
    SyncWaiter* waiter = nullptr;
    std::uint64_t seq = 0;  // order of submission; names the item for removal
};

class QueueImpl : public std::enable_shared_from_this<QueueImpl> {
 public:
    enum class Kind { serial, concurrent, main };

    QueueImpl(std::string l, Kind k, DispatchQoS q) : label(std::move(l)), kind(k), qos(q) {}

    const std::string label;
    const Kind kind;
    const DispatchQoS qos;

    // Inline readers of a concurrent queue in the low bits; kSlow while a
    // barrier is queued or running, which sends readers to the ordered path.
    static constexpr std::uint64_t kSlow = 1ull << 63;
    static constexpr std::uint64_t kCountMask = (1ull << 32) - 1;
    std::atomic<std::uint64_t> fast{0};

    std::mutex m;
    std::deque<Item> pending;
    std::uint64_t nextSeq = 1;
    std::size_t running = 0;  // concurrent: non-barrier work running
    bool exclusive = false;   // a barrier (concurrent) or any work (serial) holds the queue
    // A started asynchronous barrier that nobody runs yet. Whoever takes it
    // first runs it: the pool job below, or a sync() caller that would
    // otherwise sit waiting for a pool thread to wake up. It is filled under
    // m only when a barrier starts, which needs the previous one finished, so
    // one slot is enough; takers claim it by clearing `stealReady`, without m.
    std::function<void()> stealable;
    std::atomic<bool> stealReady{false};
    // A pool job is on its way to run `stealable`. Barriers started while it
    // is still queued ride on the same job, so a writer that is always
    // overtaken by its readers does not wake a pool thread every time.
    bool barrierJobQueued = false;

    // Main queue only.
    std::condition_variable mainWake;
    bool stopRequested = false;
    int eventFd = -1;

    // The quality a pool job of this queue runs at: the queue's own, or for a
    // queue without one, that of the work that submitted it (as on the
    // platform, where such a queue inherits its submitter's).
    DispatchQoS jobQoS() const {
        return qos != DispatchQoS::unspecified ? qos : ThreadPool::currentQoS();
    }

    // ---- submission ----

    // Returns the item's sequence number, for removePending().
    std::uint64_t async(std::function<void()> fn, bool barrier) {
        if (kind == Kind::main) return mainPost(std::move(fn));
        std::lock_guard lock(m);
        const std::uint64_t seq = nextSeq++;
        if (barrier && kind == Kind::concurrent && !exclusive && running == 0 && pending.empty()) {
            // An idle queue: the barrier starts at once, without passing
            // through the pending list. Setting kSlow first turns new inline
            // readers away; the readers already in are counted in `before`.
            const std::uint64_t before = fast.fetch_or(kSlow);
            if ((before & kCountMask) == 0) {
                exclusive = true;
                startBarrier(std::move(fn));
                return seq;
            }
        }
        pending.push_back(Item{std::move(fn), barrier && kind == Kind::concurrent, nullptr, seq});
        if (pending.back().barrier) fast.fetch_or(kSlow);
        scheduleLocked();
        return seq;
    }

    // Withdraws a queued item that has not been started (a cancelled work
    // item), so that it neither waits in the queue nor holds its work. The
    // latest items are the likeliest to be withdrawn (a debouncer replaces
    // the one it queued last), so the search starts at the back.
    void removePending(std::uint64_t seq) {
        std::function<void()> removed;  // released outside the lock
        std::lock_guard lock(m);
        for (auto it = pending.rbegin(); it != pending.rend(); ++it) {
            if (it->waiter) continue;  // a sync() caller's place, never withdrawn
            if (it->seq < seq) break;  // older than the one sought: it is gone
            if (it->seq != seq) continue;
            removed = std::move(it->fn);
            pending.erase(std::next(it).base());
            break;
        }
        if (!removed) return;
        if (kind == Kind::main) {
            if (pending.empty() && eventFd >= 0) {
                std::uint64_t value;
                [[maybe_unused]] auto n = ::read(eventFd, &value, sizeof value);
            }
        } else {
            scheduleLocked();
        }
    }

    // Starts whatever the queue's discipline allows. Called with m held.
    void scheduleLocked() {
        if (kind == Kind::concurrent) {
            while (!pending.empty() && !exclusive) {
                Item& head = pending.front();
                if (head.barrier) {
                    if (running > 0 || (fast.load() & kCountMask) > 0) break;
                    exclusive = true;
                    start(std::move(head));
                    pending.pop_front();
                    break;
                }
                ++running;
                start(std::move(head));
                pending.pop_front();
            }
            if (!exclusive && pending.empty()) {
                fast.fetch_and(~kSlow);
            } else {
                fast.fetch_or(kSlow);
            }
        } else if (kind == Kind::serial) {
            if (exclusive || pending.empty()) return;
            exclusive = true;
            if (pending.front().waiter) {
                release(pending.front().waiter);
                pending.pop_front();
            } else {
                submitSerialDrain();
            }
        }
    }

    static void release(SyncWaiter* w) {
        w->released = true;
        w->cv.notify_one();
    }

    void start(Item&& item) {
        if (item.waiter) {
            release(item.waiter);
            return;
        }
        if (item.barrier) {
            startBarrier(std::move(item.fn));
            return;
        }
        bool barrier = item.barrier;
        ThreadPool::shared().submit(
            [self = shared_from_this(), fn = std::move(item.fn), barrier]() mutable {
                {
                    QueueScope scope(self.get());
                    runGuarded(fn, self->label);
                }
                fn = nullptr;
                std::lock_guard lock(self->m);
                if (barrier) {
                    self->exclusive = false;
                } else {
                    --self->running;
                }
                self->scheduleLocked();
            },
            jobQoS());
    }

    // With m held and the queue made exclusive for it: offers the barrier to
    // whoever comes first, and makes sure a pool job comes.
    void startBarrier(std::function<void()> fn) {
        stealable = std::move(fn);
        stealReady.store(true, std::memory_order_release);
        if (barrierJobQueued) return;
        barrierJobQueued = true;
        ThreadPool::shared().submit(
            [self = shared_from_this()] {
                {
                    std::lock_guard lock(self->m);
                    self->barrierJobQueued = false;
                }
                // Claimed after the flag is cleared: a barrier started from
                // now on queues a job of its own.
                std::function<void()> taken;
                if (!self->takeBarrier(taken)) return;  // a sync() caller ran it
                self->runBarrier(taken);
            },
            jobQoS());
    }

    // Claims the started barrier, if there is one nobody has taken.
    bool takeBarrier(std::function<void()>& fn) {
        if (!stealReady.load(std::memory_order_relaxed)) return false;
        if (!stealReady.exchange(false, std::memory_order_acq_rel)) return false;
        fn = std::move(stealable);
        stealable = nullptr;
        return true;
    }

    // Runs a taken barrier on the calling thread and lets the queue go on.
    void runBarrier(std::function<void()>& fn) {
        std::unique_lock lock(m, std::defer_lock);
        runBarrier(fn, lock);
    }

    // The same, leaving `lock` (on m) held afterwards, so that a sync() caller
    // that ran the barrier goes on without taking m once more.
    void runBarrier(std::function<void()>& fn, std::unique_lock<std::mutex>& lock) {
        {
            QueueScope scope(this);
            runGuarded(fn, label);
        }
        fn = nullptr;
        lock.lock();
        exclusive = false;
        scheduleLocked();
    }

    // With m held: if the work holding the queue is an unstarted barrier, run
    // it here. Returns false when there was nothing to take.
    bool stealBarrier(std::unique_lock<std::mutex>& lock) {
        std::function<void()> fn;
        if (!exclusive || !takeBarrier(fn)) return false;
        lock.unlock();
        runBarrier(fn, lock);
        return true;
    }

    void submitSerialDrain() {
        ThreadPool::shared().submit([self = shared_from_this()] { self->serialDrain(); }, jobQoS());
    }

    // Runs a serial queue's work in order on one pool thread, giving the thread
    // back now and then so one busy queue cannot hold a worker for ever.
    void serialDrain() {
        QueueScope scope(this);
        std::unique_lock lock(m);
        int budget = 64;
        for (;;) {
            if (pending.empty() || pending.front().waiter) {
                exclusive = false;
                scheduleLocked();
                return;
            }
            if (budget-- == 0) {
                submitSerialDrain();
                return;
            }
            auto fn = std::move(pending.front().fn);
            pending.pop_front();
            lock.unlock();
            runGuarded(fn, label);
            fn = nullptr;
            lock.lock();
        }
    }

    // ---- synchronous submission ----

    bool tryEnterInline() {
        if (kind != Kind::concurrent) return false;
        // A barrier is known to be ahead: go straight to the ordered path
        // rather than count in and out again (and take m on the way out).
        if (fast.load(std::memory_order_relaxed) & kSlow) return false;
        std::uint64_t before = fast.fetch_add(1);
        if ((before & kSlow) == 0) {
            tlsQueues.push(this);
            return true;
        }
        leaveInlineCount();
        return false;
    }

    void leaveInline() {
        tlsQueues.pop();
        leaveInlineCount();
    }

    void leaveInlineCount() {
        std::uint64_t before = fast.fetch_sub(1);
        if ((before & kSlow) && (before & kCountMask) == 1) {
            // The last inline reader out lets a waiting barrier in.
            std::lock_guard lock(m);
            scheduleLocked();
        }
    }

    void sync(const std::function<void()>& work, bool barrier) {
        if (kind == Kind::main) {
            mainSync(work);
            return;
        }
        bool exclusiveWork = kind == Kind::serial || barrier;
        const bool nested = tlsQueues.contains(this);
        if (exclusiveWork && nested) fatalDeadlock(label);

        SyncWaiter waiter;
        bool countedInline = false;
        {
            std::unique_lock lock(m, std::defer_lock);
            if (kind == Kind::concurrent && !nested) {
                // A started barrier that no thread has taken yet (say, an
                // asyncWrite just before this read) runs here at once.
                std::function<void()> fn;
                if (takeBarrier(fn)) {
                    {
                        QueueScope scope(this);
                        runGuarded(fn, label);
                    }
                    fn = nullptr;
                    lock.lock();
                    exclusive = false;
                    if (!barrier && pending.empty()) {
                        // Count this reader in before letting go of the lock:
                        // one step clears kSlow (set while the barrier held
                        // the queue) and adds the reader.
                        fast.fetch_add(1 - kSlow);
                        countedInline = true;
                    } else {
                        scheduleLocked();
                    }
                } else {
                    lock.lock();
                }
                if (!countedInline) {
                    while (stealBarrier(lock)) {
                    }
                }
            } else {
                lock.lock();
            }
            if (!countedInline) {
                if (kind == Kind::concurrent && barrier) fast.fetch_or(kSlow);
                bool free = !exclusive && pending.empty();
                if (free && kind == Kind::concurrent && barrier) {
                    free = running == 0 && (fast.load() & kCountMask) == 0;
                }
                if (free) {
                    if (exclusiveWork) {
                        exclusive = true;
                    } else if (kind == Kind::concurrent && (fast.load() & kSlow) == 0) {
                        // Nothing is queued: become an inline reader, which
                        // leaves without taking m unless a barrier came in.
                        fast.fetch_add(1);
                        countedInline = true;
                    } else {
                        ++running;
                    }
                } else {
                    // A read nested in this queue's own work that has to wait
                    // can only wait for itself: either a barrier holds the
                    // queue (the caller is inside it) or one is queued behind
                    // the caller's running read and waits for it to end.
                    if (nested) {
                        lock.unlock();
                        fatalDeadlock(label);
                    }
                    pending.push_back(Item{nullptr, exclusiveWork, &waiter});
                    waiter.cv.wait(lock, [&] { return waiter.released; });
                }
            }
        }
        if (countedInline) {
            tlsQueues.push(this);
            struct Leave {
                QueueImpl* q;
                ~Leave() { q->leaveInline(); }
            } leave{this};
            work();
            return;
        }
        struct Finish {
            QueueImpl* q;
            bool exclusiveWork;
            ~Finish() {
                std::lock_guard lock(q->m);
                if (exclusiveWork) {
                    q->exclusive = false;
                } else {
                    --q->running;
                }
                q->scheduleLocked();
            }
        } finish{this, exclusiveWork};
        QueueScope scope(this);
        work();
    }

    // ---- main queue ----

    std::uint64_t mainPost(std::function<void()> fn) {
        std::lock_guard lock(m);
        bool wasEmpty = pending.empty();
        const std::uint64_t seq = nextSeq++;
        pending.push_back(Item{std::move(fn), false, nullptr, seq});
        if (wasEmpty) {
            mainWake.notify_one();
            if (eventFd >= 0) {
                std::uint64_t one = 1;
                [[maybe_unused]] auto n = ::write(eventFd, &one, sizeof one);
            }
        }
        return seq;
    }

    void mainSync(const std::function<void()>& work) {
        if (DispatchQueue::isMainThread()) {
            // Waiting for ourselves would never end; run it here instead.
            QueueScope scope(this);
            work();
            return;
        }
        std::mutex doneMutex;
        std::condition_variable doneCv;
        bool done = false;
        std::exception_ptr error;
        mainPost([&] {
            try {
                work();
            } catch (...) {
                error = std::current_exception();
            }
            std::lock_guard lock(doneMutex);
            done = true;
            doneCv.notify_one();
        });
        std::unique_lock lock(doneMutex);
        doneCv.wait(lock, [&] { return done; });
        if (error) std::rethrow_exception(error);
    }

    std::size_t mainDrain() {
        gMainTid.store(currentTid());
        QueueScope scope(this);
        std::unique_lock lock(m);
        // Only what is queued now: later work waits for the next drain.
        const std::uint64_t end = nextSeq;
        std::size_t ran = 0;
        while (!pending.empty() && pending.front().seq < end) {
            auto fn = std::move(pending.front().fn);
            pending.pop_front();
            lock.unlock();
            runGuarded(fn, label);
            fn = nullptr;
            ++ran;
            lock.lock();
        }
        if (pending.empty() && eventFd >= 0) {
            std::uint64_t value;
            [[maybe_unused]] auto n = ::read(eventFd, &value, sizeof value);
        }
        return ran;
    }

    void mainRun() {
        for (;;) {
            {
                std::unique_lock lock(m);
                mainWake.wait(lock, [&] { return !pending.empty() || stopRequested; });
                if (stopRequested) {
                    stopRequested = false;
                    return;
                }
            }
            mainDrain();
        }
    }

    void mainStop() {
        std::lock_guard lock(m);
        stopRequested = true;
        mainWake.notify_all();
    }

    int mainPollFd() {
        std::lock_guard lock(m);
        if (eventFd < 0) {
            eventFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
            if (eventFd < 0) {
                std::perror("zdr: eventfd for the main queue");
                return -1;
            }
            if (!pending.empty()) {
                std::uint64_t one = 1;
                [[maybe_unused]] auto n = ::write(eventFd, &one, sizeof one);
            }
        }
        return eventFd;
    }
};

}  // namespace detail

using detail::QueueImpl;

namespace {

std::shared_ptr<QueueImpl> makeImpl(std::string label, QueueImpl::Kind kind, DispatchQoS qos) {
    return std::make_shared<QueueImpl>(std::move(label), kind, qos);
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label, Attributes attributes, DispatchQoS qos)
    : impl_(makeImpl(std::move(label),
                     attributes == Attributes::concurrent ? QueueImpl::Kind::concurrent
                                                          : QueueImpl::Kind::serial,
                     qos)) {}

DispatchQueue DispatchQueue::main() {
    // Leaked so that work posted during static destruction still finds it.
    static auto* impl = new std::shared_ptr<QueueImpl>(
        makeImpl("com.apple.main-thread", QueueImpl::Kind::main, DispatchQoS::userInteractive));
    return DispatchQueue(*impl);
}

DispatchQueue DispatchQueue::global(DispatchQoS qos) {
    static auto* queues = [] {
        auto* q = new std::shared_ptr<QueueImpl>[6];
        const char* names[6] = {"user-interactive", "user-initiated", "default",
                                "utility",          "background",     "unspecified"};
        for (int i = 0; i < 6; ++i) {
            q[i] = makeImpl(std::string("com.zdr.global.") + names[i], QueueImpl::Kind::concurrent,
                            static_cast<DispatchQoS>(i));
        }
        return q;
    }();
    return DispatchQueue(queues[static_cast<int>(qos)]);
}

const std::string& DispatchQueue::label() const { return impl_->label; }
bool DispatchQueue::isConcurrent() const { return impl_->kind == QueueImpl::Kind::concurrent; }
bool DispatchQueue::isMain() const { return impl_->kind == QueueImpl::Kind::main; }
DispatchQoS DispatchQueue::qos() const { return impl_->qos; }

void DispatchQueue::async(std::function<void()> work, DispatchFlags flags) const {
    if (!work) return;
    impl_->async(std::move(work), flags == DispatchFlags::barrier);
}

void DispatchQueue::async(const std::shared_ptr<DispatchWorkItem>& item) const {
    if (!item || item->isCancelled()) return;  // cancel() has finished it already
    const std::uint64_t seq =
        impl_->async([item] { item->perform(); }, item->flags() == DispatchFlags::barrier);
    std::weak_ptr<QueueImpl> weak = impl_;
    auto withdraw = [weak, seq] {
        if (auto impl = weak.lock()) impl->removePending(seq);
    };
    if (!item->addCancelHook(withdraw)) withdraw();
}

void DispatchQueue::sync(const std::shared_ptr<DispatchWorkItem>& item) const {
    if (!item) return;
    sync([&] { item->perform(); }, item->flags());
}

bool DispatchQueue::tryEnterInlineRead() const { return impl_->tryEnterInline(); }
void DispatchQueue::leaveInlineRead() const { impl_->leaveInline(); }

void DispatchQueue::syncSlow(const std::function<void()>& work, DispatchFlags flags) const {
    impl_->sync(work, flags == DispatchFlags::barrier);
}

void DispatchQueue::asyncAfter(DispatchTime deadline, std::function<void()> work,
                               DispatchFlags flags) const {
    if (!work) return;
    if (deadline <= dispatchNow()) {
        async(std::move(work), flags);
        return;
    }
    detail::TimerThread::shared().schedule(
        deadline, [impl = impl_, work = std::move(work), flags]() mutable {
            impl->async(std::move(work), flags == DispatchFlags::barrier);
        });
}

void DispatchQueue::asyncAfter(DispatchTime deadline,
                               const std::shared_ptr<DispatchWorkItem>& item) const {
    if (!item || item->isCancelled()) return;
    if (deadline <= dispatchNow()) {
        async(item);
        return;
    }
    // The timer entry holds the item until its time; a cancel before then
    // removes the entry (and with it the item and its block) at once.
    auto handle = detail::TimerThread::shared().schedule(
        deadline, [queue = *this, item] { queue.async(item); });
    auto withdraw = [handle] { detail::TimerThread::shared().cancel(handle); };
    if (!item->addCancelHook(withdraw)) withdraw();
}

std::size_t DispatchQueue::drain() const { return isMain() ? impl_->mainDrain() : 0; }

void DispatchQueue::run() const {
    if (isMain()) impl_->mainRun();
}

void DispatchQueue::stop() const {
    if (isMain()) impl_->mainStop();
}

int DispatchQueue::pollFd() const { return isMain() ? impl_->mainPollFd() : -1; }

bool DispatchQueue::isMainThread() {
    pid_t main = detail::gMainTid.load(std::memory_order_relaxed);
    if (main == 0) return detail::currentTid() == detail::processId();
    return detail::currentTid() == main;
}

std::optional<std::string> DispatchQueue::currentLabel() {
    if (const QueueImpl* q = detail::tlsQueues.top()) return q->label;
    return std::nullopt;
}

// ---- DispatchWorkItem ----

struct DispatchWorkItem::State {
    std::function<void()> block;
    std::atomic<bool> cancelled{false};
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    int running = 0;  // perform() calls inside the block
    std::vector<std::pair<DispatchQueue, std::function<void()>>> notifications;
    std::vector<std::function<void()>> cancelHooks;
};

DispatchWorkItem::DispatchWorkItem(std::function<void()> block, DispatchFlags flags)
    : flags_(flags), state_(std::make_unique<State>()) {
    state_->block = std::move(block);
}

DispatchWorkItem::~DispatchWorkItem() = default;

std::shared_ptr<DispatchWorkItem> DispatchWorkItem::make(std::function<void()> block,
                                                         DispatchFlags flags) {
    return std::make_shared<DispatchWorkItem>(std::move(block), flags);
}

void DispatchWorkItem::perform() {
    bool run = false;
    {
        std::lock_guard lock(state_->m);
        if (!state_->cancelled.load() && state_->block) {
            ++state_->running;
            run = true;
        }
    }
    struct Finish {
        DispatchWorkItem* item;
        bool ran;
        ~Finish() { item->finish(ran); }
    } finish{this, run};
    // The block is only replaced by cancel() while no perform() runs it.
    if (run) state_->block();
}

void DispatchWorkItem::finish(bool ran) {
    std::function<void()> released;
    {
        std::lock_guard lock(state_->m);
        if (ran) --state_->running;
        if (state_->cancelled.load() && state_->running == 0) released = std::move(state_->block);
    }
    // Released before anyone waiting learns that the item is done, and
    // outside the lock: the block's captures may do anything when destroyed.
    released = nullptr;
    std::vector<std::pair<DispatchQueue, std::function<void()>>> notifications;
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard lock(state_->m);
        state_->done = true;
        notifications.swap(state_->notifications);
        // This submission has run; what a cancel would have withdrawn is gone.
        hooks.swap(state_->cancelHooks);
    }
    state_->cv.notify_all();
    for (auto& [queue, fn] : notifications) queue.async(std::move(fn));
}

void DispatchWorkItem::cancel() {
    // Keeps this item alive while the hooks drop the queue and timer entries
    // that may hold the last other references to it.
    auto self = weak_from_this().lock();
    std::function<void()> released;
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard lock(state_->m);
        if (state_->cancelled.load()) return;
        state_->cancelled.store(true);
        hooks.swap(state_->cancelHooks);
        if (state_->running == 0) {
            released = std::move(state_->block);
            state_->block = nullptr;
        }
    }
    for (auto& hook : hooks) hook();
    released = nullptr;
    // An item that is not running will never run now: it is finished.
    std::vector<std::pair<DispatchQueue, std::function<void()>>> notifications;
    bool completed = false;
    {
        std::lock_guard lock(state_->m);
        if (state_->running == 0 && !state_->done) {
            state_->done = true;
            notifications.swap(state_->notifications);
            completed = true;
        }
    }
    if (completed) state_->cv.notify_all();
    for (auto& [queue, fn] : notifications) queue.async(std::move(fn));
}

bool DispatchWorkItem::isCancelled() const { return state_->cancelled.load(); }

bool DispatchWorkItem::addCancelHook(std::function<void()> hook) {
    std::lock_guard lock(state_->m);
    if (state_->cancelled.load()) return false;
    state_->cancelHooks.push_back(std::move(hook));
    return true;
}

void DispatchWorkItem::wait() {
    std::unique_lock lock(state_->m);
    state_->cv.wait(lock, [&] { return state_->done; });
}

bool DispatchWorkItem::waitFor(double seconds) {
    std::unique_lock lock(state_->m);
    return state_->cv.wait_until(lock, dispatchTimeAfter(seconds), [&] { return state_->done; });
}

void DispatchWorkItem::notify(const DispatchQueue& queue, std::function<void()> block) {
    {
        std::lock_guard lock(state_->m);
        if (!state_->done) {
            state_->notifications.emplace_back(queue, std::move(block));
            return;
        }
    }
    queue.async(std::move(block));
}

}  // namespace zdr
