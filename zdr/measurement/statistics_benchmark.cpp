// Statistics: the cost of a sample while collection is off (one flag test,
// beside a bare relaxed atomic load) and while it is on, for series bounds of
// 1000, 10000 and 100000 samples (full series: one out, one in per call).
#include <benchmark/benchmark.h>

#include <atomic>

#include "zdr/measurement/statistics.h"
#include "zdr/runtime/dispatch_queue.h"

namespace {

void BM_RelaxedAtomicLoadBaseline(benchmark::State& state) {
    std::atomic<bool> flag{false};
    long n = 0;
    for (auto _ : state) {
        if (flag.load(std::memory_order_relaxed)) ++n;
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_RelaxedAtomicLoadBaseline);

void BM_Statistics_AddStatDisabled(benchmark::State& state) {
    auto stats = zdr::Statistics::make();
    zdr::Statistics* s = stats.get();
    benchmark::DoNotOptimize(s);
    for (auto _ : state) {
        s->addStatMilliseconds("Decode", 1.0);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Statistics_AddStatDisabled);

void BM_Statistics_AddStatEnabled(benchmark::State& state) {
    auto stats = zdr::Statistics::make();
    stats->setEnabled(true);
    zdr::DispatchQueue::main().drain();  // the clearing task
    const long bound = state.range(0);
    stats->setMaximumSamplesToKeep(bound);
    for (long i = 0; i < bound; ++i) stats->addStatNanoseconds("Decode", 1.0);
    double v = 0;
    for (auto _ : state) stats->addStatNanoseconds("Decode", v += 1.0);
    state.counters["samples"] = static_cast<double>(stats->getSeries("Decode").stats.size());
}
BENCHMARK(BM_Statistics_AddStatEnabled)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace
