#include <benchmark/benchmark.h>

#include <time.h>

#include "zdr/measurement/frames_per_second.h"
#include "zdr/measurement/instance_counter.h"
#include "zdr/measurement/zdr_moving_average2.h"
#include "zdr/timing/dispatch_lock.h"

namespace {

// The peer of addSample: the same asynchronous barrier write with a trivial
// closure on a bare DispatchLock.
void BM_DispatchLockAsyncWriteBaseline(benchmark::State& state) {
    zdr::DispatchLock lock("baseline");
    std::vector<double> samples;
    for (auto _ : state) {
        lock.asyncWrite([&samples] {
            if (samples.size() < 4)
                samples.push_back(1.0);
            else
                samples[0] = 1.0;
        });
    }
    lock.syncWrite([] {});
}
BENCHMARK(BM_DispatchLockAsyncWriteBaseline);

void BM_MovingAverage_AddSample(benchmark::State& state) {
    auto average = zdr::ZDRMovingAverage2::make(5);
    for (auto _ : state) average->addSample(1.0);
    benchmark::DoNotOptimize(average->sum());
}
BENCHMARK(BM_MovingAverage_AddSample);

// The floor of any frame-rate stamp: reading the monotonic clock.
void BM_ClockGettimeBaseline(benchmark::State& state) {
    timespec ts{};
    for (auto _ : state) {
        clock_gettime(CLOCK_MONOTONIC, &ts);
        benchmark::DoNotOptimize(ts);
    }
}
BENCHMARK(BM_ClockGettimeBaseline);

void BM_CalculateFramesPerSecond(benchmark::State& state) {
    uint64_t last = 0;
    double fps = 0.0;
    for (auto _ : state) {
        fps = calculateFramesPerSecond(&last, fps);
        benchmark::DoNotOptimize(fps);
    }
}
BENCHMARK(BM_CalculateFramesPerSecond);

class Counted final : public zdr::CountableInstance {
 public:
    zdr::UUID id() const override { return id_; }
    const zdr::UUID id_ = zdr::UUID::random();
};

// Register and unregister one object; the actor is waited for every 1024
// iterations so that the measured cost includes its work, not just queueing.
void BM_InstanceCounter_InitDeinit(benchmark::State& state) {
    auto counter = zdr::InstanceCounter::make();
    Counted object;
    std::size_t n = 0;
    for (auto _ : state) {
        counter->instanceInit(object);
        counter->safeDeinit(object.id_);
        if ((++n & 1023) == 0) benchmark::DoNotOptimize(counter->instances());
    }
    benchmark::DoNotOptimize(counter->instances());
}
BENCHMARK(BM_InstanceCounter_InitDeinit);

}  // namespace
