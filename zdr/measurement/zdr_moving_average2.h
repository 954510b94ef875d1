// ZDRMovingAverage2: a small moving average for live level and rate displays,
// with publishers that sample it on the main queue for a user interface.
//
// Samples go into a fixed set of slots by a deliberate rule shared with the
// macOS build: with period p the first p - 1 samples are appended,
// and every later sample overwrites slot 0, so slots 1 ... p - 2 keep the
// second to (p - 1)-th samples ever added and average() divides by p - 1.
// With period 5, the samples 1, 2, 3, 4, 10 leave [10, 2, 3, 4] and an
// average of 4.75. A period of 0 has no slot at all: the first addSample()
// stops the program with a message.
//
// Threads: every member may be called from any thread. addSample() returns at
// once and is applied later as a barrier write on the object's DispatchLock
// ("MovingAverage2"); average(), sum() and samples() wait for every sample
// submitted before them. Samples that arrive while such a write is still
// waiting to run join it instead of queueing one write each, so a fast
// producer does not flood the lock. If the object is gone by the time a
// submitted sample is applied, nothing happens. The publishers deliver on the main queue (the
// host's loop drains it) and keep the object alive while subscribed.
//
// Create it with make(): the object must be owned by a std::shared_ptr.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "zdr/runtime/publisher.h"
#include "zdr/timing/dispatch_lock.h"

namespace zdr {

class ZDRMovingAverage2 : public std::enable_shared_from_this<ZDRMovingAverage2> {
    struct Key {
        explicit Key() = default;
    };

 public:
    static std::shared_ptr<ZDRMovingAverage2> make(std::int64_t period);
    ZDRMovingAverage2(Key, std::int64_t period);
    ZDRMovingAverage2(const ZDRMovingAverage2&) = delete;
    ZDRMovingAverage2& operator=(const ZDRMovingAverage2&) = delete;

    std::int64_t period() const { return period_.load(std::memory_order_relaxed); }
    void setPeriod(std::int64_t period) { period_.store(period, std::memory_order_relaxed); }

    const DispatchLock& lock() const { return lock_; }

    /// The stored samples (waits for earlier writes).
    std::vector<double> samples() const;
    /// Replaces the stored samples (a barrier write).
    void setSamples(std::vector<double> samples);

    /// Stores `value` by the slot rule above, asynchronously.
    void addSample(double value);

    /// Sum of the samples divided by min(count, period); NaN when empty.
    double average() const;
    /// Sum of the samples; 0 when empty.
    double sum() const;

    /// average() every `frequency` seconds on the main queue, from the first
    /// subscription on. A frequency that is not positive is taken as 0.0001 s;
    /// an infinite one never fires.
    AnyPublisher<double> averagePublisher(double frequency);
    /// sum() likewise.
    AnyPublisher<double> sumPublisher(double frequency);

 private:
    void applyPending();
    void store(double value);

    std::atomic<std::int64_t> period_{5};
    DispatchLock lock_{"MovingAverage2"};
    std::vector<double> samples_;   // guarded by lock_
    std::vector<double> applying_;  // guarded by lock_

    std::mutex pendingMutex_;
    std::vector<double> pending_;  // submitted, not yet stored
    bool applyScheduled_ = false;  // a barrier write will take pending_
};

}  // namespace zdr
