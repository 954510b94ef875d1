// Producer side of the throttler (acceptMoreWork on a started throttler whose
// window is open, so units are merged and held) beside the simplest thread-safe
// batching a caller would otherwise write: a mutex around the merge. And a late
// subscriber of a finished one-shot publisher beside subscribing to Just.
#include <benchmark/benchmark.h>

#include <memory>
#include <mutex>

#include "zdr/runtime/publisher.h"
#include "zdr/timing/replay_once.h"
#include "zdr/timing/zdr_throttler.h"

namespace {

struct Count {
    long n = 0;
    Count merge(const Count& other) const { return Count{n + other.n}; }
};

std::shared_ptr<zdr::ZDRThrottler<Count>> gThrottler;

void BM_Throttler_AcceptMoreWork(benchmark::State& state) {
    if (state.thread_index() == 0) {
        // A long window: after the first unit every unit is merged and held.
        gThrottler =
            zdr::ZDRThrottler<Count>::make(3600, std::nullopt, "bench", [](const Count&) {});
        gThrottler->start();
    }
    for (auto _ : state) gThrottler->acceptMoreWork(Count{1});
    if (state.thread_index() == 0) {
        gThrottler->stop();
        gThrottler.reset();
    }
}
BENCHMARK(BM_Throttler_AcceptMoreWork)->Threads(1)->Threads(4)->UseRealTime();

std::mutex gBatchMutex;
Count gBatch;

void BM_MutexGuardedPushBaseline(benchmark::State& state) {
    for (auto _ : state) {
        std::lock_guard lock(gBatchMutex);
        gBatch = gBatch.merge(Count{1});
        benchmark::DoNotOptimize(gBatch);
    }
}
BENCHMARK(BM_MutexGuardedPushBaseline)->Threads(1)->Threads(4)->UseRealTime();

void BM_ReplayOnce_LateSubscriber(benchmark::State& state) {
    using Once = zdr::Publishers::ReplayOnce<int>;
    auto once = Once::make([](Once::Callback done) { done(Once::ResultType::success(7)); });
    long sum = 0;
    for (auto _ : state) {
        auto c = once->sink([&](const int& v) { sum += v; });
        benchmark::DoNotOptimize(c);
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_ReplayOnce_LateSubscriber);

void BM_Just_Subscribe(benchmark::State& state) {
    auto just = zdr::Just<int>::make(7);
    long sum = 0;
    for (auto _ : state) {
        auto c = just->sink([&](const int& v) { sum += v; });
        benchmark::DoNotOptimize(c);
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_Just_Subscribe);

}  // namespace
