#include "zdr/timing/zdr_timer2.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <sstream>
#include <thread>
#include <vector>

#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

namespace detail {

// What a firing needs of the timer. The source's handler holds it only weakly,
// so a firing that arrives after the timer is gone does nothing.
struct TimerCore {
    std::mutex mutex;
    std::condition_variable idle;
    std::function<void()> eventHandler;
    bool alive = true;
    // Threads currently inside the work, so that teardown can wait for them
    // (but not for itself when the work destroys its own timer).
    std::vector<std::thread::id> firingThreads;
    // A 0 ms period: the source is armed once at a time and re-armed when the
    // work has run, so firings follow each other as fast as the work allows
    // without the source spinning on a nanosecond period or stacking firings
    // on a concurrent queue.
    bool rearmAfterFiring = false;
    std::weak_ptr<DispatchSourceTimer> source;

    // With `mutex` held.
    void armOnceLocked() {
        if (auto s = source.lock()) s->schedule(dispatchNow(), std::nullopt, 0.0);
    }

    void fire() {
        std::function<void()> handler;
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (!alive || !eventHandler) return;
            handler = eventHandler;
            firingThreads.push_back(std::this_thread::get_id());
        }
        struct Leave {
            TimerCore* core;
            ~Leave() {
                std::lock_guard<std::mutex> guard(core->mutex);
                auto& threads = core->firingThreads;
                threads.erase(
                    std::find(threads.begin(), threads.end(), std::this_thread::get_id()));
                // The last firing out arms the next one (a firing of the old
                // schedule may still be running when the period became 0).
                if (core->alive && core->rearmAfterFiring && threads.empty()) core->armOnceLocked();
                core->idle.notify_all();
            }
        } leave{this};
        handler();
    }

    void shutDown() {
        std::unique_lock<std::mutex> lock(mutex);
        alive = false;
        const auto self = std::this_thread::get_id();
        idle.wait(lock, [&] {
            return std::all_of(firingThreads.begin(), firingThreads.end(),
                               [&](std::thread::id id) { return id == self; });
        });
        eventHandler = nullptr;
    }
};

}  // namespace detail

namespace {
// 2^63 as a float, the first value that no longer fits a signed 64-bit integer.
constexpr float kInt64Limit = 9223372036854775808.0f;
}  // namespace

ZDRTimer2::ZDRTimer2(std::function<void()> work, float interval)
    : ZDRTimer2(std::move(work), interval, false, std::nullopt) {}

ZDRTimer2::ZDRTimer2(std::function<void()> work, float interval, bool strict,
                     std::optional<DispatchQueue> queue)
    : strict_(strict), core_(std::make_shared<detail::TimerCore>()) {
    core_->eventHandler = std::move(work);
    // A new source is suspended, which is exactly the state the timer starts in.
    timerSource_ = DispatchSourceTimer::make(queue ? std::move(*queue) : DispatchQueue::global());
    core_->source = timerSource_;
    std::weak_ptr<detail::TimerCore> weak = core_;
    timerSource_->setEventHandler([weak] {
        if (auto core = weak.lock()) core->fire();
    });
    interval_ = interval;
    reschedule();
}

ZDRTimer2::ZDRTimer2() {
    detail::fatalError(
        "Use of unimplemented initializer 'init()' for class 'ZDRShared2.ZDRTimer2'");
}

ZDRTimer2::~ZDRTimer2() {
    timerSource_->setEventHandler([] {});
    timerSource_->cancel();
    // A suspended source must be resumed once for its cancellation to finish.
    if (state_.load() == TimerState::suspended) timerSource_->resume();
    core_->shutDown();
}

void ZDRTimer2::start() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (state_.load() == TimerState::resumed) return;
    state_ = TimerState::resumed;
    timerSource_->resume();
}

void ZDRTimer2::stop() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (state_.load() != TimerState::resumed) return;
    timerSource_->suspend();
    state_ = TimerState::suspended;
}

float ZDRTimer2::interval() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return interval_;
}

void ZDRTimer2::setInterval(float interval) {
    std::lock_guard<std::mutex> guard(mutex_);
    interval_ = interval;
    reschedule();
}

void ZDRTimer2::setEventHandler(std::function<void()> work) {
    std::lock_guard<std::mutex> guard(core_->mutex);
    const bool wasEmpty = !core_->eventHandler;
    core_->eventHandler = std::move(work);
    // A firing without work does not re-arm a 0 ms timer; new work does.
    if (wasEmpty && core_->eventHandler && core_->rearmAfterFiring &&
        core_->firingThreads.empty()) {
        core_->armOnceLocked();
    }
}

void ZDRTimer2::cleanUp(std::function<void()> /*done*/) {
    // Deliberately empty: teardown happens in the destructor, and `done` is
    // never called.
}

std::int64_t ZDRTimer2::millisecondsForInterval(float interval) {
    const float milliseconds = interval * 1000.0f;
    if (!std::isfinite(milliseconds) || milliseconds >= kInt64Limit ||
        milliseconds < -kInt64Limit) {
        std::ostringstream message;
        message << "ZDRTimer2 interval: " << interval
                << " s is not a finite number of milliseconds that fits a 64-bit integer";
        detail::fatalError(message.str());
    }
    return static_cast<std::int64_t>(milliseconds);
}

void ZDRTimer2::reschedule() {
    const std::int64_t milliseconds = millisecondsForInterval(interval_);
    std::optional<double> repeating;
    if (milliseconds > 0) repeating = static_cast<double>(milliseconds) / 1000.0;
    // 0: one firing now, and each firing arms the next when its work has run
    // (see TimerCore). Negative: no repetition, one firing per start.
    std::lock_guard<std::mutex> guard(core_->mutex);
    core_->rearmAfterFiring = milliseconds == 0;
    timerSource_->schedule(dispatchNow(), repeating, 0.0);
}

}  // namespace zdr
