// Cost of one value through a subject and a sink (and through a map stage),
// beside its plain peer: a std::function observer list guarded by a mutex, the
// simplest thread-safe multicast a caller would otherwise write.
#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "zdr/runtime/publisher.h"

namespace {

void BM_PassthroughSubjectSink(benchmark::State& state) {
    auto subject = zdr::PassthroughSubject<int>::make();
    long sum = 0;
    auto c = subject->sink([&](const int& v) { sum += v; });
    int i = 0;
    for (auto _ : state) subject->send(++i);
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_PassthroughSubjectSink);

void BM_PassthroughSubjectMapSink(benchmark::State& state) {
    auto subject = zdr::PassthroughSubject<int>::make();
    long sum = 0;
    auto c = subject->map([](int v) { return v * 2; })->sink([&](const int& v) { sum += v; });
    int i = 0;
    for (auto _ : state) subject->send(++i);
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_PassthroughSubjectMapSink);

// Peer: observers in a vector under a mutex, copied out before the calls (as
// any list that lets observers unsubscribe during a call must be).
void BM_MutexObserverListBaseline(benchmark::State& state) {
    std::mutex mutex;
    std::vector<std::shared_ptr<std::function<void(int)>>> observers;
    long sum = 0;
    observers.push_back(std::make_shared<std::function<void(int)>>([&](int v) { sum += v; }));
    int i = 0;
    for (auto _ : state) {
        std::vector<std::shared_ptr<std::function<void(int)>>> snapshot;
        {
            std::lock_guard lock(mutex);
            snapshot = observers;
        }
        ++i;
        for (auto& o : snapshot) (*o)(i);
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_MutexObserverListBaseline);

}  // namespace
