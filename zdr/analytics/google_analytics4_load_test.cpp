// Load: 10,000 distinct events tracked from 4 threads in bursts against a
// local collector. Every event must arrive exactly once, and nothing may stay
// in flight afterwards.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "zdr/analytics/google_analytics4.h"
#include "zdr/analytics/google_analytics4_test_support.h"
#include "zdr/testing/eventually.h"
#include "zdr/testing/http_capture_server.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;

TEST(GoogleAnalytics4Load, TenThousandEventsFromFourThreadsArriveExactlyOnce) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2500;
    constexpr int kBurst = 50;
    detail::resetGoogleAnalytics4ForTesting();
    testing::HttpCaptureServer server;
    ASSERT_TRUE(GoogleAnalytics4::setCollectionEndpoint(server.baseURL()));
    GoogleAnalytics4::setup("secret", "G-LOAD", "client-load", false, 0.01);

    std::mutex mutex;
    std::set<std::thread::id> completionThreads;
    std::vector<std::string> failures;
    GoogleAnalytics4::setLog([&](const std::string& line) {
        std::lock_guard lock(mutex);
        completionThreads.insert(std::this_thread::get_id());
        if (line.find("returned code: 204") == std::string::npos) failures.push_back(line);
    });

    std::atomic<bool> sampling{true};
    std::atomic<long> peakInFlight{0};
    std::thread sampler([&] {
        while (sampling.load()) {
            const long now = GoogleAnalytics4::inFlightRequests();
            if (now > peakInFlight.load()) peakInFlight.store(now);
            std::this_thread::sleep_for(100us);
        }
    });

    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                GoogleAnalytics4::track(
                    GA4Event("load", {{"t", std::to_string(t)}, {"i", std::to_string(i)}}));
                if ((i + 1) % kBurst == 0) std::this_thread::sleep_for(2ms);
            }
        });
    }
    for (auto& producer : producers) producer.join();
    ASSERT_TRUE(testing::eventually(
        [] { return GoogleAnalytics4::isEmpty() && GoogleAnalytics4::isDrained(); }, 120s));
    sampling.store(false);
    sampler.join();

    std::map<std::string, int> seen;
    for (const auto& request : server.requests()) {
        std::istringstream body(request.body);
        std::string line;
        while (std::getline(body, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (!line.empty()) ++seen[line];
        }
    }
    int duplicates = 0;
    for (const auto& [line, count] : seen) duplicates += count > 1 ? 1 : 0;
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kPerThread));
    EXPECT_EQ(duplicates, 0);
    EXPECT_EQ(GoogleAnalytics4::inFlightRequests(), 0);
    {
        std::lock_guard lock(mutex);
        EXPECT_TRUE(failures.empty()) << failures.front();
        RecordProperty("completion_threads", static_cast<int>(completionThreads.size()));
        std::printf(
            "load: %zu requests, %zu distinct events delivered, peak in flight %ld (server saw "
            "%d at once), %zu completion threads, in flight at end %ld\n",
            server.requestCount(), seen.size(), peakInFlight.load(),
            server.peakConcurrentRequests(), completionThreads.size(),
            GoogleAnalytics4::inFlightRequests());
    }
    RecordProperty("requests", static_cast<int>(server.requestCount()));
    RecordProperty("peak_in_flight", static_cast<int>(peakInFlight.load()));
    GoogleAnalytics4::setLog(nullptr);
    detail::resetGoogleAnalytics4ForTesting();
}

}  // namespace
}  // namespace zdr
