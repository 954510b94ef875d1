#include "zdr/measurement/zdr_moving_average2.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <utility>

#include "zdr/runtime/dispatch_source_timer.h"
#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

namespace {

// A repeating timer on the main queue whose ticks carry a produced value; each
// subscription runs its own timer, started when it subscribes.
class MainQueueTimerPublisher final : public Publisher<double> {
 public:
    MainQueueTimerPublisher(double interval, std::function<double()> produce)
        : interval_(interval), produce_(std::move(produce)) {}

    std::shared_ptr<Cancellable> subscribe(
        std::shared_ptr<Subscriber<double>> subscriber) override {
        auto timer = DispatchSourceTimer::make(DispatchQueue::main());
        if (!std::isinf(interval_)) {
            timer->setEventHandler(
                [produce = produce_, subscriber] { subscriber->receiveValue(produce()); });
            timer->schedule(dispatchTimeAfter(interval_), interval_);
            timer->resume();
        }
        return std::make_shared<TimerCancellable>(std::move(timer));
    }

 private:
    class TimerCancellable final : public Cancellable {
     public:
        explicit TimerCancellable(std::shared_ptr<DispatchSourceTimer> timer)
            : timer_(std::move(timer)) {}
        ~TimerCancellable() override { cancel(); }
        void cancel() override {
            std::shared_ptr<DispatchSourceTimer> timer;
            {
                std::lock_guard lock(mutex_);
                timer = std::move(timer_);
            }
            // Dropping the handler releases what it holds (the moving average).
            if (timer) {
                timer->setEventHandler(nullptr);
                timer->cancel();
            }
        }

     private:
        std::mutex mutex_;
        std::shared_ptr<DispatchSourceTimer> timer_;
    };

    double interval_;
    std::function<double()> produce_;
};

double timerInterval(double frequency) {
    // As a run-loop timer does, an interval that is not positive becomes the
    // shortest one it accepts instead of spinning.
    if (!(frequency > 0.0)) return 0.0001;
    return frequency;
}

}  // namespace

std::shared_ptr<ZDRMovingAverage2> ZDRMovingAverage2::make(std::int64_t period) {
    return std::make_shared<ZDRMovingAverage2>(Key{}, period);
}

ZDRMovingAverage2::ZDRMovingAverage2(Key, std::int64_t period) : period_(period) {}

std::vector<double> ZDRMovingAverage2::samples() const {
    return lock_.read([this] { return samples_; });
}

void ZDRMovingAverage2::setSamples(std::vector<double> samples) {
    lock_.syncWrite([this, &samples] { samples_ = std::move(samples); });
}

void ZDRMovingAverage2::addSample(double value) {
    std::lock_guard lock(pendingMutex_);
    pending_.push_back(value);
    // A write already submitted and not yet started takes this sample too, and
    // anything read after this call waits for that write, so order and
    // visibility are as with one write per sample. The flag is raised and the
    // write submitted under one lock: a sample that sees the flag must find
    // the write already queued ahead of the caller's next read.
    if (applyScheduled_) return;
    applyScheduled_ = true;
    lock_.asyncWrite([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->applyPending();
    });
}

void ZDRMovingAverage2::applyPending() {
    {
        // Swapping keeps both buffers' capacity, so a steady producer stops
        // allocating.
        std::lock_guard lock(pendingMutex_);
        applying_.swap(pending_);
        applyScheduled_ = false;
    }
    for (double value : applying_) store(value);
    applying_.clear();
}

void ZDRMovingAverage2::store(double value) {
    const std::size_t n = samples_.size();
    // The slot is computed in single precision and truncated, as the macOS
    // build does; applications rely on the odd slot pattern that results.
    const float slot = std::fmod(static_cast<float>(n + 1), static_cast<float>(period()));
    if (!std::isfinite(slot) || slot >= 9223372036854775807.0f || slot < -9223372036854775808.0f) {
        detail::fatalError("ZDRMovingAverage2: period " + std::to_string(period()) +
                           " leaves no sample slot (Float value cannot be converted to Int "
                           "because it is either infinite or NaN)");
    }
    const auto index = static_cast<std::int64_t>(slot);
    if (index >= 0 && static_cast<std::int64_t>(n) > index) {
        samples_[static_cast<std::size_t>(index)] = value;
    } else {
        samples_.push_back(value);
    }
}

double ZDRMovingAverage2::average() const {
    return lock_.read([this] {
        const double total = std::accumulate(samples_.begin(), samples_.end(), 0.0);
        const auto count = static_cast<std::int64_t>(samples_.size());
        return total / static_cast<double>(std::min(count, period()));
    });
}

double ZDRMovingAverage2::sum() const {
    return lock_.read([this] { return std::accumulate(samples_.begin(), samples_.end(), 0.0); });
}

AnyPublisher<double> ZDRMovingAverage2::averagePublisher(double frequency) {
    auto self = shared_from_this();
    return std::make_shared<MainQueueTimerPublisher>(timerInterval(frequency),
                                                     [self] { return self->average(); });
}

AnyPublisher<double> ZDRMovingAverage2::sumPublisher(double frequency) {
    auto self = shared_from_this();
    return std::make_shared<MainQueueTimerPublisher>(timerInterval(frequency),
                                                     [self] { return self->sum(); });
}

}  // namespace zdr
