#include "zdr/runtime/dispatch_source_timer.h"
#include "zdr/runtime/layer_log.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <mutex>

#include "zdr/runtime/detail/timer_thread.h"

namespace zdr {

struct DispatchSourceTimer::State {
    explicit State(DispatchQueue q) : queue(std::move(q)) {}

    DispatchQueue queue;
    std::mutex m;
    std::function<void()> handler;
    std::function<void()> cancelHandler;
    std::optional<DispatchTime> deadline;
    std::optional<std::chrono::nanoseconds> interval;
    double leeway = 0;
    int suspendCount = 1;  // sources start inactive
    bool cancelled = false;
    bool handlerPending = false;  // a firing is queued and has not run yet
    bool missedWhileSuspended = false;
    std::uint64_t generation = 0;  // bumps on every (re)arm; stale deadlines are ignored
};

namespace {

using State = DispatchSourceTimer::State;

void deliver(const std::shared_ptr<State>& s, std::unique_lock<std::mutex>& lock) {
    if (s->handlerPending) return;  // merge with the firing already queued
    s->handlerPending = true;
    std::weak_ptr<State> weak = s;
    lock.unlock();
    s->queue.async([weak] {
        auto st = weak.lock();
        if (!st) return;
        std::function<void()> handler;
        {
            std::lock_guard guard(st->m);
            st->handlerPending = false;
            if (st->cancelled) return;
            handler = st->handler;
        }
        if (handler) handler();
    });
    lock.lock();
}

void arm(const std::shared_ptr<State>& s, DispatchTime at);

void fire(const std::weak_ptr<State>& weak, std::uint64_t generation) {
    auto s = weak.lock();
    if (!s) return;
    std::unique_lock lock(s->m);
    if (s->cancelled || generation != s->generation) return;
    if (s->suspendCount > 0) {
        s->missedWhileSuspended = true;
        return;
    }
    deliver(s, lock);
    if (s->cancelled || generation != s->generation) return;
    if (s->interval) {
        // The next deadline keeps the original phase; firings missed while the
        // handler was slow are merged rather than replayed.
        DispatchTime now = dispatchNow();
        DispatchTime next;
        if (*s->deadline < now - *s->interval) {
            // Behind by more than one interval: the next deadline in phase
            // after now. The distance is taken in unsigned arithmetic because
            // a deadline as early as DispatchTime::min() is more than the
            // signed range away from now.
            const auto period = static_cast<std::uint64_t>(s->interval->count());
            const std::uint64_t behind =
                static_cast<std::uint64_t>(now.time_since_epoch().count()) -
                static_cast<std::uint64_t>(s->deadline->time_since_epoch().count());
            next =
                now + std::chrono::nanoseconds(static_cast<std::int64_t>(period - behind % period));
        } else {
            next = *s->deadline + *s->interval;
            if (next <= now) next += *s->interval;
        }
        s->deadline = next;
        arm(s, next);
    } else {
        s->deadline.reset();
    }
}

void arm(const std::shared_ptr<State>& s, DispatchTime at) {
    std::uint64_t generation = ++s->generation;
    std::weak_ptr<State> weak = s;
    detail::TimerThread::shared().schedule(at, [weak, generation] { fire(weak, generation); });
}

}  // namespace

DispatchSourceTimer::DispatchSourceTimer(DispatchQueue queue)
    : state_(std::make_shared<State>(std::move(queue))) {}

DispatchSourceTimer::~DispatchSourceTimer() {
    std::lock_guard lock(state_->m);
    state_->cancelled = true;  // pending deadlines hold only weak references
}

std::shared_ptr<DispatchSourceTimer> DispatchSourceTimer::make(DispatchQueue queue) {
    return std::make_shared<DispatchSourceTimer>(std::move(queue));
}

void DispatchSourceTimer::schedule(DispatchTime deadline, std::optional<double> repeatingSeconds,
                                   double leewaySeconds) {
    std::lock_guard lock(state_->m);
    state_->deadline = deadline;
    state_->interval.reset();
    if (repeatingSeconds && std::isfinite(*repeatingSeconds) && *repeatingSeconds > 0) {
        double capped = std::min(*repeatingSeconds, 100.0 * 365 * 24 * 3600);
        state_->interval = std::chrono::nanoseconds(
            std::max<std::int64_t>(1, static_cast<std::int64_t>(capped * 1e9)));
    }
    state_->leeway = std::isfinite(leewaySeconds) && leewaySeconds > 0 ? leewaySeconds : 0;
    state_->missedWhileSuspended = false;
    if (state_->cancelled) return;
    if (state_->suspendCount == 0) {
        arm(state_, deadline);
    } else {
        ++state_->generation;  // forget deadlines armed under the old schedule
    }
}

void DispatchSourceTimer::setEventHandler(std::function<void()> handler) {
    std::lock_guard lock(state_->m);
    state_->handler = std::move(handler);
}

void DispatchSourceTimer::setCancelHandler(std::function<void()> handler) {
    std::lock_guard lock(state_->m);
    state_->cancelHandler = std::move(handler);
}

void DispatchSourceTimer::resume() {
    std::unique_lock lock(state_->m);
    if (state_->suspendCount == 0) {
        detail::layerLog("timing", 2,
                         "DispatchSourceTimer::resume without a matching suspend; ignored",
                         __func__, __FILE__, __LINE__);
        return;
    }
    if (--state_->suspendCount > 0 || state_->cancelled || !state_->deadline) return;
    if (state_->missedWhileSuspended || *state_->deadline <= dispatchNow()) {
        state_->missedWhileSuspended = false;
        std::uint64_t generation = ++state_->generation;
        lock.unlock();
        fire(state_, generation);
        return;
    }
    arm(state_, *state_->deadline);
}

void DispatchSourceTimer::suspend() {
    std::lock_guard lock(state_->m);
    ++state_->suspendCount;
}

void DispatchSourceTimer::cancel() {
    std::function<void()> cancelHandler;
    {
        std::lock_guard lock(state_->m);
        if (state_->cancelled) return;
        state_->cancelled = true;
        ++state_->generation;
        cancelHandler = std::move(state_->cancelHandler);
        state_->handler = nullptr;
    }
    if (cancelHandler) state_->queue.async(std::move(cancelHandler));
}

bool DispatchSourceTimer::isCancelled() const {
    std::lock_guard lock(state_->m);
    return state_->cancelled;
}

int DispatchSourceTimer::suspendCount() const {
    std::lock_guard lock(state_->m);
    return state_->suspendCount;
}

double DispatchSourceTimer::leeway() const {
    std::lock_guard lock(state_->m);
    return state_->leeway;
}

}  // namespace zdr
