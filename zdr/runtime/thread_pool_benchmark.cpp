// submit() on a pool under load against submit() on an idle pool. Under load,
// 200 workers are blocked and as many as there are cores are busy, so queued
// jobs make no progress and the watchdog keeps checking every worker's state:
// submit() must not wait for those checks. Each iteration is timed on its own
// as well, and the slowest submit() is reported as max_us.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "zdr/runtime/detail/thread_pool.h"

namespace {

using zdr::detail::ThreadPool;
using Clock = std::chrono::steady_clock;

void timedSubmits(benchmark::State& state, ThreadPool& pool) {
    Clock::duration slowest{};
    for (auto _ : state) {
        const auto start = Clock::now();
        pool.submit([] {});
        slowest = std::max(slowest, Clock::now() - start);
    }
    state.counters["max_us"] = std::chrono::duration<double, std::micro>(slowest).count();
}

void BM_ThreadPoolSubmit_Idle(benchmark::State& state) {
    static auto* pool = new ThreadPool();
    timedSubmits(state, *pool);
}
BENCHMARK(BM_ThreadPoolSubmit_Idle);

void BM_ThreadPoolSubmit_UnderLoad(benchmark::State& state) {
    constexpr int kBlocked = 200;
    static auto* pool = new ThreadPool();
    const int busy = static_cast<int>(std::max(2u, std::thread::hardware_concurrency()));
    std::promise<void> release;
    auto gate = release.get_future().share();
    std::atomic<bool> stop{false};
    std::atomic<int> inside{0};
    for (int i = 0; i < kBlocked; ++i) {
        pool->submit([gate, &inside] {
            ++inside;
            gate.wait();
            --inside;
        });
    }
    while (inside.load() < kBlocked) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (int i = 0; i < busy; ++i) {
        pool->submit([&] {
            ++inside;
            while (!stop.load(std::memory_order_relaxed)) {
            }
            --inside;
        });
    }
    while (inside.load() < kBlocked + busy)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    timedSubmits(state, *pool);
    stop = true;
    release.set_value();
    while (inside.load() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}
BENCHMARK(BM_ThreadPoolSubmit_UnderLoad);

}  // namespace
