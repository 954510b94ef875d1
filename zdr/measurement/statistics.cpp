#include "zdr/measurement/statistics.h"

#include <algorithm>
#include <cmath>

#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

// ---- Series ----

std::optional<DurationMeasurement> Statistics::Series::min() const {
    if (stats.empty()) return std::nullopt;
    return std::min_element(stats.begin(), stats.end(),
                            [](const Stat& a, const Stat& b) { return a.value < b.value; })
        ->value;
}

std::optional<DurationMeasurement> Statistics::Series::max() const {
    if (stats.empty()) return std::nullopt;
    return std::max_element(stats.begin(), stats.end(),
                            [](const Stat& a, const Stat& b) { return a.value < b.value; })
        ->value;
}

std::vector<Statistics::Stat> Statistics::Series::latest(long count) const {
    if (count <= 0) return {};
    const auto n = std::min<std::size_t>(static_cast<std::size_t>(count), stats.size());
    return {stats.end() - static_cast<std::ptrdiff_t>(n), stats.end()};
}

std::vector<Statistics::Stat> Statistics::Series::latest(std::chrono::duration<double> duration,
                                                         Date now) const {
    const auto since =
        now - std::chrono::duration_cast<std::chrono::system_clock::duration>(duration);
    std::vector<Stat> out;
    for (const auto& s : stats)
        if (s.timestamp > since) out.push_back(s);
    return out;
}

// ---- Statistics ----

const std::shared_ptr<Statistics>& Statistics::shared() {
    // Never destroyed: pending main-queue tasks and late recorders may still
    // reach it while the process exits.
    static const auto* instance = new std::shared_ptr<Statistics>(make());
    return *instance;
}

std::shared_ptr<Statistics> Statistics::make(std::shared_ptr<Clock> clock) {
    return std::make_shared<Statistics>(Key{}, clock ? std::move(clock) : Clock::system());
}

Statistics::Statistics(Key, std::shared_ptr<Clock> clock) : Statistics(std::move(clock)) {}

Statistics::Statistics(std::shared_ptr<Clock> clock)
    : clock_(clock ? std::move(clock) : Clock::system()) {}

Statistics::~Statistics() = default;

void Statistics::setEnabled(bool enabled) {
    enabled_.store(enabled, std::memory_order_relaxed);
    std::weak_ptr<Statistics> weak = weak_from_this();
    DispatchQueue::main().async([weak] {
        if (auto self = weak.lock()) {
            std::lock_guard lock(self->mutex_);
            self->series_.clear();
        }
    });
}

long Statistics::maximumSamplesToKeep() const {
    std::lock_guard lock(mutex_);
    return maximumSamplesToKeep_;
}

void Statistics::setMaximumSamplesToKeep(long bound) {
    std::lock_guard lock(mutex_);
    maximumSamplesToKeep_ = bound;
}

double Statistics::sendObjectDidChangedEvery() const {
    std::lock_guard lock(mutex_);
    return sendObjectDidChangedEvery_;
}

void Statistics::setSendObjectDidChangedEvery(double seconds) {
    std::lock_guard lock(mutex_);
    sendObjectDidChangedEvery_ = seconds;
}

void Statistics::record(std::string_view name, DurationMeasurement value) {
    bool announce = false;
    bool recordAnnouncement = false;
    {
        std::lock_guard lock(mutex_);
        const Date now = clock_->now();
        auto it = series_.find(name);
        if (it == series_.end()) {
            it = series_.emplace(std::string(name), Series{std::string(name), {}}).first;
        } else if (static_cast<long>(it->second.stats.size()) >= maximumSamplesToKeep_ &&
                   !it->second.stats.empty()) {
            // One out, one in: a series above a lowered bound keeps its size.
            it->second.stats.pop_front();
        }
        it->second.stats.push_back(Stat{now, value});

        const double every = sendObjectDidChangedEvery_;
        if (every > 0) {
            if (lastSendDateTime_) {
                const double since =
                    std::chrono::duration<double>(now - *lastSendDateTime_).count();
                if (!(std::fabs(since) > every)) return;
            }
            lastSendDateTime_ = now;
            announce = true;
            recordAnnouncement = true;
        } else {
            announce = true;
        }
    }
    // Announced outside the lock: observers read the collector from there.
    if (announce) willChangeValue(std::string(kSeriesKey));
    if (recordAnnouncement) addStat(stat_RenderStats, DurationMeasurement::milliseconds(1.0));
}

void Statistics::recordTimedCall(std::string_view label, std::chrono::nanoseconds start,
                                 std::chrono::nanoseconds end) {
    if (end < start) {
        detail::fatalError("Statistics.timeCallInNanoseconds: the monotonic clock went backwards");
    }
    const double nanoseconds = static_cast<double>((end - start).count());
    std::weak_ptr<Statistics> weak = weak_from_this();
    DispatchQueue::main().async([weak, name = std::string(label), nanoseconds] {
        if (auto self = weak.lock()) self->addStatNanoseconds(name, nanoseconds);
    });
}

Statistics::Series Statistics::getSeries(std::string_view name) const {
    {
        std::lock_guard lock(mutex_);
        auto it = series_.find(name);
        if (it != series_.end()) return it->second;
    }
    detail::fatalError("Statistics.getSeries: there is no series named \"" + std::string(name) +
                       "\"");
}

std::vector<std::string> Statistics::getSeriesNames() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    names.reserve(series_.size());
    for (const auto& [name, s] : series_) names.push_back(name);  // std::map: already sorted
    return names;
}

std::map<std::string, Statistics::Series, std::less<>> Statistics::series() const {
    std::lock_guard lock(mutex_);
    return series_;
}

std::optional<Statistics::Date> Statistics::lastSendDateTime() const {
    std::lock_guard lock(mutex_);
    return lastSendDateTime_;
}

void Statistics::clear() {
    std::lock_guard lock(mutex_);
    series_.clear();
}

}  // namespace zdr
