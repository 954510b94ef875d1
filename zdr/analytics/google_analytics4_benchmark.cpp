// Appending one distinct event to a waiting queue of up to 14 events: the
// client's track() against the same find-then-append on a plain vector.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "zdr/analytics/google_analytics4.h"
#include "zdr/analytics/google_analytics4_test_support.h"

namespace {

constexpr int kAppendsPerRound = 13;  // onto one waiting event: up to 14

std::vector<zdr::GA4Event> distinctEvents() {
    std::vector<zdr::GA4Event> events;
    for (int i = 0; i < kAppendsPerRound; ++i) {
        events.emplace_back("feature_" + std::to_string(i),
                            std::map<std::string, std::string>{{"content_type", "tool"},
                                                               {"item_id", std::to_string(i)}});
    }
    return events;
}

const zdr::GA4Event kWaiting("zdr_app_start", {{"zdr_app_name", "Bench"}});

void BM_GA4_Track(benchmark::State& state) {
    const auto events = distinctEvents();
    // The window is already open (one event waits), so no send is scheduled
    // and the figure is the append path alone.
    const std::vector<zdr::GA4Event> waiting{kWaiting};
    for (auto _ : state) {
        zdr::detail::setGoogleAnalytics4QueueForTesting(waiting);
        for (const auto& event : events) zdr::GoogleAnalytics4::track(event);
    }
    state.SetItemsProcessed(state.iterations() * kAppendsPerRound);
    zdr::detail::setGoogleAnalytics4QueueForTesting({});
}
BENCHMARK(BM_GA4_Track);

void BM_VectorFindPushBaseline(benchmark::State& state) {
    const auto events = distinctEvents();
    const std::vector<zdr::GA4Event> waiting{kWaiting};
    std::vector<zdr::GA4Event> queue;
    for (auto _ : state) {
        queue.assign(waiting.begin(), waiting.end());
        for (const auto& event : events) {
            if (std::find(queue.begin(), queue.end(), event) == queue.end()) queue.push_back(event);
        }
        benchmark::DoNotOptimize(queue.data());
    }
    state.SetItemsProcessed(state.iterations() * kAppendsPerRound);
}
BENCHMARK(BM_VectorFindPushBaseline);

}  // namespace
