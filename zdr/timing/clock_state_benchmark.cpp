#include <benchmark/benchmark.h>

#include "zdr/runtime/dispatch_queue.h"
#include "zdr/timing/clock_state.h"

namespace {

// Finds the last-named of N registered clocks from the main thread: the read
// on the main queue, the scan and the answer on a global queue, waited for.
void BM_FindClockWithName(benchmark::State& state) {
    auto registry = zdr::ClockState::make();
    const auto n = static_cast<int>(state.range(0));
    for (int i = 1; i < n; ++i) {
        zdr::NotificationCenter::defaultCenter()->post(
            zdr::ClockState::clockCreatedNotification(),
            zdr::ClockNotification::makeObject(
                {zdr::UUID::random(), zdr::NamedClock("Clock " + std::to_string(i), nullptr)}));
    }
    zdr::DispatchQueue::main().drain();
    if (registry->clocks()->size() != static_cast<std::size_t>(n)) {
        state.SkipWithError("clocks were not registered");
        return;
    }
    const std::string wanted = "Clock " + std::to_string(n - 1);
    for (auto _ : state) {
        auto found = registry->findClockWithName(wanted).get();
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_FindClockWithName)->Arg(10)->Arg(100);

}  // namespace
