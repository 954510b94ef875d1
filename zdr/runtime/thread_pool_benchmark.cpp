// submit() on a pool whose workers are mostly blocked (the watchdog is busy
// adding threads and reading their states) against submit() on an idle pool.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "zdr/runtime/thread_pool.h"

namespace {

using zdr::detail::ThreadPool;

ThreadPool& idlePool() {
    static auto* pool = new ThreadPool();
    return *pool;
}

ThreadPool& loadedPool() {
    static auto* pool = new ThreadPool();
    return *pool;
}

void BM_ThreadPoolSubmit_Idle(benchmark::State& state) {
    auto& pool = idlePool();
    for (auto _ : state) pool.submit([] {});
}
BENCHMARK(BM_ThreadPoolSubmit_Idle);

void BM_ThreadPoolSubmit_UnderLoad(benchmark::State& state) {
    constexpr int kBlocked = 200;
    auto& pool = loadedPool();
    std::promise<void> release;
    auto gate = release.get_future().share();
    std::atomic<int> waiting{0};
    for (int i = 0; i < kBlocked; ++i) {
        pool.submit([gate, &waiting] {
            ++waiting;
            gate.wait();
            --waiting;
        });
    }
    while (waiting.load() < kBlocked) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (auto _ : state) pool.submit([] {});
    release.set_value();
    while (waiting.load() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}
BENCHMARK(BM_ThreadPoolSubmit_UnderLoad);

}  // namespace
