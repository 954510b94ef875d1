// ReplayOnce: a one-shot publisher. It starts a piece of work once, when it is
// made, and hands the work's single result (one value and then finished, or a
// failure) to every subscriber, also to those that subscribe after the result
// arrived. Optionally it times the work into a statistics collector, and
// optionally it is "timid": it drops the result rather than wait for its lock.
//
//     auto load = zdr::Publishers::ReplayOnce<Config, LoadError>::make(
//         [](auto done) {
//             zdr::DispatchQueue::global().async([done] { done(readConfig()); });
//         },
//         nullptr, /*timid=*/false, "config load", zdr::Statistics::shared());
//     auto c = load->sink([](const zdr::FailableCompletion<LoadError>&) {},
//                         [](const Config& config) { apply(config); });
//
// With Failure = Never (the default) a ReplayOnce is a plain Publisher<Output>
// and fits every operator of zdr/runtime/publisher.h (flatMap in particular);
// otherwise it is a FailablePublisher<Output, Failure>.
//
// The work runs synchronously inside make(), on the calling thread, and gets a
// completion callback that it may call at once or later from any thread. The
// first call delivers; later calls deliver nothing (they would still record a
// statistic). A work that never calls back leaves its subscribers waiting and
// holds nothing once the work has let go of the callback. Exceptions thrown by
// the work propagate out of make(); the publisher then delivers nothing.
//
// Statistics: when both `stats` and `identifier` are given, the completion
// computes the elapsed time since make() and records, on the main queue, one
// sample in the series `identifier`: statsValue() if given (called there),
// else the elapsed nanoseconds. The sample is recorded only if the ReplayOnce
// (or its pending callback) still exists when the main queue runs the task.
//
// Timid: the completion only tries to take the data lock; when another thread
// holds it, one line "ReplayOnce(Timid) is skipping [<identifier>], because it
// cannot get the lock. ..." is written to standard output and nothing is
// delivered. Use it where the callback runs on a thread that must not stall.
//
// Threads: make(), subscribe() and the callback from any thread. Values and
// completions arrive on the thread that called the callback, or, for a
// subscriber that comes after the result, on the subscribing thread. The data
// lock makes the hand-over exact: a subscriber never misses the result and
// never gets it twice.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/runtime/failable_publisher.h"
#include "zdr/runtime/publisher.h"
#include "zdr/timing/statistics_recorder.h"

namespace zdr {

namespace detail {

/// Monotonic uptime in nanoseconds (CLOCK_MONOTONIC).
std::int64_t replayOnceUptimeNanoseconds();
/// now - start in nanoseconds; a negative difference stops the program.
double replayOnceElapsedNanoseconds(std::int64_t startNanoseconds);
/// Writes the timid skip line to standard output.
void replayOnceTimidSkip(const std::optional<std::string>& identifier, bool isValue,
                         const std::string& description);
std::string demangledTypeName(const std::type_info& type);

template <class T>
concept StreamDescribable = requires(std::ostream& os, const T& v) {
    os << v;
};

/// A value's default description: its stream form where it has one, else its
/// type's name.
template <class T>
std::string describeValue(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        return value ? "true" : "false";
    } else if constexpr (StreamDescribable<T>) {
        std::ostringstream os;
        os << value;
        return os.str();
    } else {
        return demangledTypeName(typeid(T));
    }
}

}  // namespace detail

namespace Publishers {

template <class Output, class Failure = Never>
class ReplayOnce final : public PublisherFor<Output, Failure> {
    struct Key {
        explicit Key() = default;
    };

 public:
    using ResultType = Result<Output, Failure>;
    using Callback = std::function<void(ResultType)>;
    using Work = std::function<void(Callback)>;
    using SubscriberType = SubscriberFor<Output, Failure>;

    /// Records the start time and runs `work` at once on this thread.
    static std::shared_ptr<ReplayOnce> make(Work work, std::function<double()> statsValue = nullptr,
                                            bool timid = false,
                                            std::optional<std::string> identifier = std::nullopt,
                                            std::shared_ptr<StatisticsRecorder> stats = nullptr) {
        auto self = std::make_shared<ReplayOnce>(Key{}, std::move(statsValue), timid,
                                                 std::move(identifier), std::move(stats));
        std::shared_ptr<Core> core = self->core_;
        if (work) {
            work([core](ResultType result) { core->complete(core, std::move(result)); });
        }
        return self;
    }

    ReplayOnce(Key, std::function<double()> statsValue, bool timid,
               std::optional<std::string> identifier, std::shared_ptr<StatisticsRecorder> stats)
        : core_(std::make_shared<Core>()) {
        core_->statsValue = std::move(statsValue);
        core_->timid = timid;
        core_->identifier = std::move(identifier);
        core_->stats = std::move(stats);
        core_->startNanoseconds = detail::replayOnceUptimeNanoseconds();
    }

    std::shared_ptr<Cancellable> subscribe(std::shared_ptr<SubscriberType> subscriber) override {
        auto entry = std::make_shared<Entry>(std::move(subscriber));
        std::lock_guard lock(core_->dataLock);
        if (core_->result) {
            core_->deliver(*entry, *core_->result);
        } else {
            core_->subscribers.push_back(entry);
        }
        return entry;
    }

    /// The recursive lock that guards the hand-over of the result.
    std::recursive_mutex& dataLock() { return core_->dataLock; }
    /// The lock's name, for diagnostics: "ReplayOnce:data_lock".
    static constexpr std::string_view dataLockName() { return "ReplayOnce:data_lock"; }
    const std::optional<std::string>& identifier() const { return core_->identifier; }
    const std::shared_ptr<StatisticsRecorder>& stats() const { return core_->stats; }
    bool isTimid() const { return core_->timid; }
    /// True once the work has delivered its result.
    bool hasResult() const {
        std::lock_guard lock(core_->dataLock);
        return core_->result.has_value();
    }

 private:
    struct Entry final : Cancellable {
        explicit Entry(std::shared_ptr<SubscriberType> s) : subscriber(std::move(s)) {}
        void cancel() override { cancelled.store(true, std::memory_order_release); }
        std::shared_ptr<SubscriberType> subscriber;
        std::atomic<bool> cancelled{false};
    };

    struct Core {
        mutable std::recursive_mutex dataLock;
        std::optional<ResultType> result;                 // guarded by dataLock
        std::vector<std::shared_ptr<Entry>> subscribers;  // guarded by dataLock
        std::function<double()> statsValue;
        bool timid = false;
        std::optional<std::string> identifier;
        std::shared_ptr<StatisticsRecorder> stats;
        std::int64_t startNanoseconds = 0;

        void deliver(Entry& entry, const ResultType& r) {
            if (entry.cancelled.load(std::memory_order_acquire)) return;
            if (r.isSuccess()) {
                entry.subscriber->receiveValue(r.value());
                if (entry.cancelled.load(std::memory_order_acquire)) return;
                entry.subscriber->receiveCompletion(finishedCompletion<Failure>());
            } else {
                if constexpr (!std::is_same_v<Failure, Never>) {
                    entry.subscriber->receiveCompletion(
                        FailableCompletion<Failure>::failure(r.error()));
                }
            }
        }

        static std::string describeResult(const ResultType& r) {
            if (r.isSuccess()) return detail::describeValue(r.value());
            if constexpr (!std::is_same_v<Failure, Never>) {
                return "failure(" + detail::describeValue(r.error()) + ")";
            }
            return {};
        }

        void complete(const std::shared_ptr<Core>& self, ResultType r) {
            std::unique_lock lock(dataLock, std::defer_lock);
            if (timid) {
                if (!lock.try_lock()) {
                    detail::replayOnceTimidSkip(identifier, r.isSuccess(), describeResult(r));
                    return;
                }
            } else {
                lock.lock();
            }
            if (!result) {
                result.emplace(std::move(r));
                auto entries = std::move(subscribers);
                subscribers.clear();
                for (auto& e : entries) deliver(*e, *result);
            }
            if (stats && identifier) {
                const double elapsed = detail::replayOnceElapsedNanoseconds(startNanoseconds);
                std::weak_ptr<Core> weak = self;
                DispatchQueue::main().async([weak, elapsed] {
                    auto core = weak.lock();
                    if (!core || !core->stats) return;
                    const double value = core->statsValue ? core->statsValue() : elapsed;
                    core->stats->recordNanoseconds(*core->identifier, value);
                });
            }
        }
    };

    std::shared_ptr<Core> core_;
};

}  // namespace Publishers

}  // namespace zdr
