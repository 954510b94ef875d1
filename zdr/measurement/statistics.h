// Statistics: an in-process collector of timing samples in named series, for
// a live diagnostics view. Code under measurement adds durations (or times a
// closure); the collector keeps a bounded history per series and announces
// that it will change, at most once per configured interval. Collection is off
// by default and then costs one relaxed flag load per call.
//
//     auto stats = zdr::Statistics::shared();
//     stats->setEnabled(true);                       // clears, on the main queue
//     stats->addStatMilliseconds("Decode", 4.2);
//     stats->timeCallInNanoseconds("Encode", [&] { encode(frame); });
//     auto view = stats->objectWillChange()->sink([](const std::string&) { redraw(); });
//     for (auto& name : stats->getSeriesNames()) show(stats->getSeries(name));
//
// Rules kept on purpose:
//  - A series holds at most maximumSamplesToKeep() samples: when full, each
//    new sample removes exactly one old one, so a series that holds more
//    (because the bound was lowered) keeps its size rather than shrinking.
//    A bound of zero or less keeps the newest sample only.
//  - When sendObjectDidChangedEvery() is above zero, a will-change is
//    announced at most once per that many seconds of wall time, and each
//    announcement is itself recorded as a 1 ms sample in the series
//    "Render Stats" (stat_RenderStats). At zero or below (or NaN), every
//    sample announces and nothing is recorded in "Render Stats".
//  - setEnabled() (with any value, also the current one) empties every series
//    on the main queue: switching on or off always starts from nothing, and
//    samples added before that task runs are lost with the rest.
//  - getSeries() of a name that has no series stops the program: asking for a
//    series that was never recorded is a programming error.
//
// Subclasses that keep samples elsewhere override record(); every path that
// adds a sample (the addStat forms, timeCallInNanoseconds, the "Render Stats"
// sample, the one-shot publishers' timings) reaches it.
//
// Statistics implements StatisticsRecorder (zdr/timing/statistics_recorder.h),
// the interface through which timing's one-shot publishers record how long
// their work took, so timing does not depend on this library.
//
// Threads: every member may be called from any thread; a lock of the
// collector's own guards the series. The will-change announcement is made on
// the thread that added the sample, outside that lock. timeCallInNanoseconds
// records its sample on the main queue (the host drains it), and so does the
// clearing by setEnabled().
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zdr/measurement/duration_measurement.h"
#include "zdr/runtime/clock.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/observable_object.h"
#include "zdr/timing/statistics_recorder.h"

namespace zdr {

class Statistics : public ObservableObject,
                   public StatisticsRecorder,
                   public std::enable_shared_from_this<Statistics> {
    struct Key {
        explicit Key() = default;
    };

 public:
    using Date = std::chrono::system_clock::time_point;

    /// One sample: when it was added (wall time) and its duration.
    struct Stat {
        Date timestamp;
        DurationMeasurement value;
        friend bool operator==(const Stat&, const Stat&) = default;
    };

    /// The samples of one name, oldest first.
    struct Series {
        std::string name;
        std::deque<Stat> stats;

        /// Smallest and largest value (compared as durations); none if empty.
        std::optional<DurationMeasurement> min() const;
        std::optional<DurationMeasurement> max() const;
        /// The last `count` samples (all if fewer; none for zero or less),
        /// oldest first.
        std::vector<Stat> latest(long count) const;
        /// The samples stamped strictly after `now - duration`, in order.
        std::vector<Stat> latest(std::chrono::duration<double> duration,
                                 Date now = std::chrono::system_clock::now()) const;

        friend bool operator==(const Series&, const Series&) = default;
    };

    /// The series in which the collector records its own announcements.
    static constexpr std::string_view stat_RenderStats = "Render Stats";
    /// The key under which the will-change is announced.
    static constexpr std::string_view kSeriesKey = "series";

    /// The process-wide collector, made on first use and never destroyed.
    static const std::shared_ptr<Statistics>& shared();
    /// A collector of its own, reading time from `clock` (tests inject one).
    static std::shared_ptr<Statistics> make(std::shared_ptr<Clock> clock = Clock::system());
    Statistics(Key, std::shared_ptr<Clock> clock);
    ~Statistics() override;

    // ---- Settings ----
    bool enabled() const { return enabled_.load(std::memory_order_relaxed); }
    /// Sets the flag and empties every series on the main queue.
    void setEnabled(bool enabled);
    long maximumSamplesToKeep() const;
    void setMaximumSamplesToKeep(long bound);
    double sendObjectDidChangedEvery() const;
    void setSendObjectDidChangedEvery(double seconds);

    // ---- Adding samples ----
    /// Adds one sample to the series `name` (created on first use). One
    /// relaxed flag load when collection is off.
    void addStat(std::string_view name, DurationMeasurement value) {
        if (!enabled_.load(std::memory_order_relaxed)) return;
        record(name, value);
    }
    void addStatNanoseconds(std::string_view name, double nanoseconds) {
        addStat(name, DurationMeasurement::nanoseconds(nanoseconds));
    }
    void addStatMilliseconds(std::string_view name, double milliseconds) {
        addStat(name, DurationMeasurement::milliseconds(milliseconds));
    }
    void addStatSeconds(std::string_view name, double seconds) {
        addStat(name, DurationMeasurement::seconds(seconds));
    }

    /// Runs `body`; when collection is on, times it on the monotonic clock
    /// and records the nanoseconds in `label` on the main queue (the caller
    /// does not wait). An exception from `body` propagates and records
    /// nothing.
    template <class F>
    void timeCallInNanoseconds(std::string_view label, F&& body) {
        if (!enabled_.load(std::memory_order_relaxed)) {
            std::forward<F>(body)();
            return;
        }
        const auto start = clock_->uptime();
        std::forward<F>(body)();
        recordTimedCall(label, start, clock_->uptime());
    }

    /// The timing layer's way in: nanoseconds into `name`.
    void recordNanoseconds(std::string_view name, double nanoseconds) override {
        addStatNanoseconds(name, nanoseconds);
    }

    // ---- Reading ----
    /// The series `name`; stops the program when there is none.
    Series getSeries(std::string_view name) const;
    /// Every series name, sorted ascending.
    std::vector<std::string> getSeriesNames() const;
    /// A copy of every series, by name.
    std::map<std::string, Series, std::less<>> series() const;
    /// Wall time of the last announcement; kept across clear().
    std::optional<Date> lastSendDateTime() const;
    /// Empties every series.
    void clear();

 protected:
    /// For subclasses; hold them in a std::shared_ptr (the main-queue tasks
    /// reach the collector through a weak reference).
    explicit Statistics(std::shared_ptr<Clock> clock);

    /// Stores one sample and announces the change (collection is on). The
    /// point to override for a collector that keeps samples elsewhere.
    virtual void record(std::string_view name, DurationMeasurement value);

 private:
    void recordTimedCall(std::string_view label, std::chrono::nanoseconds start,
                         std::chrono::nanoseconds end);

    const std::shared_ptr<Clock> clock_;
    std::atomic<bool> enabled_{false};
    mutable std::mutex mutex_;
    std::map<std::string, Series, std::less<>> series_;  // guarded by mutex_
    long maximumSamplesToKeep_ = 1000;                   // guarded by mutex_
    double sendObjectDidChangedEvery_ = 1.0;             // guarded by mutex_
    std::optional<Date> lastSendDateTime_;               // guarded by mutex_
};

}  // namespace zdr
