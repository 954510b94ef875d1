#include <benchmark/benchmark.h>

#include <atomic>

#include "zdr/timing/signposts.h"

namespace {

std::atomic<bool> flag{false};

// The least a disabled marker can cost: one relaxed load and a branch.
void BM_RelaxedAtomicLoadBaseline(benchmark::State& state) {
    for (auto _ : state) {
        if (flag.load(std::memory_order_relaxed)) benchmark::DoNotOptimize(&flag);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_RelaxedAtomicLoadBaseline);

void BM_Signpost_EventDisabled(benchmark::State& state) {
    zdr::ZDR_OSSignposting::installRecorder(nullptr);
    for (auto _ : state) {
        zdr::ZDR_OSSignposting::emitEvent("bench");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Signpost_EventDisabled);

void BM_Signpost_IntervalDisabled(benchmark::State& state) {
    zdr::ZDR_OSSignposting::installRecorder(nullptr);
    const zdr::ZDR_SignpostID id{1};
    for (auto _ : state) {
        auto interval = id.beginInterval("bench");
        interval.endInterval();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Signpost_IntervalDisabled);

}  // namespace
