// Main-queue hop and inline concurrent sync, each beside its plain peer.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "zdr/runtime/dispatch_queue.h"

namespace {

// One item from this thread to a thread that drains the main queue, and back.
void BM_MainQueueHop(benchmark::State& state) {
    auto main = zdr::DispatchQueue::main();
    std::thread host([&] { main.run(); });
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    for (auto _ : state) {
        main.async([&] {
            std::lock_guard lock(m);
            done = true;
            cv.notify_one();
        });
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return done; });
        done = false;
    }
    main.async([&] { main.stop(); });
    host.join();
}
BENCHMARK(BM_MainQueueHop)->UseRealTime();

// The same round trip through a plain mutex + condition variable work queue.
void BM_CondvarHandoffBaseline(benchmark::State& state) {
    std::mutex qm;
    std::condition_variable qcv;
    std::deque<std::function<void()>> work;
    bool stop = false;
    std::thread host([&] {
        std::unique_lock lock(qm);
        for (;;) {
            qcv.wait(lock, [&] { return stop || !work.empty(); });
            if (stop) return;
            auto fn = std::move(work.front());
            work.pop_front();
            lock.unlock();
            fn();
            lock.lock();
        }
    });
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    for (auto _ : state) {
        {
            std::lock_guard lock(qm);
            work.push_back([&] {
                std::lock_guard l(m);
                done = true;
                cv.notify_one();
            });
        }
        qcv.notify_one();
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return done; });
        done = false;
    }
    {
        std::lock_guard lock(qm);
        stop = true;
    }
    qcv.notify_one();
    host.join();
}
BENCHMARK(BM_CondvarHandoffBaseline)->UseRealTime();

void BM_ConcurrentQueueSyncInline(benchmark::State& state) {
    static zdr::DispatchQueue q("bench.concurrent", zdr::DispatchQueue::Attributes::concurrent);
    int value = 1;
    for (auto _ : state) {
        int v = q.sync([&] { return value; });
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_ConcurrentQueueSyncInline);
BENCHMARK(BM_ConcurrentQueueSyncInline)->Threads(4);

void BM_SharedMutexReadBaseline(benchmark::State& state) {
    static std::shared_mutex mutex;
    int value = 1;
    for (auto _ : state) {
        mutex.lock_shared();
        int v = value;
        mutex.unlock_shared();
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_SharedMutexReadBaseline);
BENCHMARK(BM_SharedMutexReadBaseline)->Threads(4);

}  // namespace
