// Locks against the standard mutexes they stand in for, in the same run.
#include <benchmark/benchmark.h>

#include <mutex>
#include <shared_mutex>

#include "zdr/timing/dispatch_lock.h"
#include "zdr/timing/normal_lock.h"

namespace {

// Shared between the threads of one multi-threaded run.
zdr::DispatchLock& sharedDispatchLock() {
    static zdr::DispatchLock lock("benchmark");
    return lock;
}
std::shared_mutex& sharedMutex() {
    static std::shared_mutex mutex;
    return mutex;
}
long sharedValue = 42;

void BM_DispatchLock_Read(benchmark::State& state) {
    auto& lock = sharedDispatchLock();
    for (auto _ : state) {
        long v = lock.read([] { return sharedValue; });
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_DispatchLock_Read);
BENCHMARK(BM_DispatchLock_Read)->Threads(4);

void BM_SharedMutexReadBaseline(benchmark::State& state) {
    auto& mutex = sharedMutex();
    for (auto _ : state) {
        std::shared_lock<std::shared_mutex> guard(mutex);
        long v = sharedValue;
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_SharedMutexReadBaseline);
BENCHMARK(BM_SharedMutexReadBaseline)->Threads(4);

void BM_DispatchLock_AsyncWriteThenRead(benchmark::State& state) {
    zdr::DispatchLock lock("benchmark.write");
    long value = 0;
    for (auto _ : state) {
        lock.asyncWrite([&value] { ++value; });
        long v = lock.read([&value] { return value; });
        benchmark::DoNotOptimize(v);
    }
    if (lock.read([&value] { return value; }) != static_cast<long>(state.iterations())) {
        state.SkipWithError("a read missed the write before it");
    }
}
BENCHMARK(BM_DispatchLock_AsyncWriteThenRead);

void BM_SharedMutexWriteThenReadBaseline(benchmark::State& state) {
    std::shared_mutex mutex;
    long value = 0;
    for (auto _ : state) {
        {
            std::unique_lock<std::shared_mutex> guard(mutex);
            ++value;
        }
        std::shared_lock<std::shared_mutex> guard(mutex);
        long v = value;
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_SharedMutexWriteThenReadBaseline);

void BM_NormalLock_Read(benchmark::State& state) {
    zdr::NormalLock lock;
    long value = 42;
    for (auto _ : state) {
        long v = lock.read([&value] { return value; });
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_NormalLock_Read);

void BM_RecursiveMutexBaseline(benchmark::State& state) {
    std::recursive_mutex mutex;
    long value = 42;
    for (auto _ : state) {
        std::lock_guard<std::recursive_mutex> guard(mutex);
        long v = value;
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_RecursiveMutexBaseline);

}  // namespace
