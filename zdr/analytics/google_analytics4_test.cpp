#include "zdr/analytics/google_analytics4.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "zdr/analytics/google_analytics4_test_support.h"
#include "zdr/runtime/bundle.h"
#include "zdr/testing/eventually.h"
#include "zdr/testing/http_capture_server.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;
using testing::eventually;

std::string joinLines(const std::vector<std::string>& lines) {
    std::string out;
    for (std::size_t i = 0; i < lines.size(); ++i) out += (i ? "\r\n" : "") + lines[i];
    return out;
}

class GoogleAnalytics4Test : public ::testing::Test {
 protected:
    void SetUp() override {
        detail::resetGoogleAnalytics4ForTesting();
        Bundle::main().setInfo(kCFBundleNameKey, "Recorder");
        GoogleAnalytics4::setup("secret", "G-TEST", "client-7", false, 0.2);
        GoogleAnalytics4::setLog([this](const std::string& line) {
            std::lock_guard lock(mutex_);
            lines_.push_back(line);
        });
    }
    void TearDown() override {
        EXPECT_TRUE(eventually([] { return GoogleAnalytics4::isDrained(); }, 30s));
        detail::resetGoogleAnalytics4ForTesting();
    }
    void pointAt(const std::string& base) {
        ASSERT_TRUE(GoogleAnalytics4::setCollectionEndpoint(base));
    }
    std::vector<std::string> logLines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    bool waitForLogLines(std::size_t n) {
        return eventually([&] { return logLines().size() >= n && GoogleAnalytics4::isDrained(); },
                          20s);
    }

    std::mutex mutex_;
    std::vector<std::string> lines_;
};

TEST_F(GoogleAnalytics4Test, SetupStoresValuesAndDrawsSessionIdInRange) {
    EXPECT_EQ(GoogleAnalytics4::api_secret(), "secret");
    EXPECT_EQ(GoogleAnalytics4::measurement_id(), "G-TEST");
    EXPECT_EQ(GoogleAnalytics4::client_id(), "client-7");
    EXPECT_FALSE(GoogleAnalytics4::useDebugEndpoint());
    EXPECT_DOUBLE_EQ(GoogleAnalytics4::interEventDelaySeconds(), 0.2);
    std::set<long> seen;
    for (int i = 0; i < 200; ++i) {
        GoogleAnalytics4::setup("s", "m", "c", true, 1.0);
        const long id = GoogleAnalytics4::session_id();
        EXPECT_GE(id, 1234);
        EXPECT_LE(id, 3000000);
        seen.insert(id);
    }
    EXPECT_GT(seen.size(), 150U);  // drawn afresh each time
    EXPECT_TRUE(GoogleAnalytics4::useDebugEndpoint());
}

TEST_F(GoogleAnalytics4Test, EndpointTakesSchemeHostAndPortOnly) {
    EXPECT_EQ(GoogleAnalytics4::hitURL(), "https://www.google-analytics.com/g/collect");
    EXPECT_TRUE(GoogleAnalytics4::setCollectionEndpoint("http://127.0.0.1:8123/ignored?x=1"));
    EXPECT_EQ(GoogleAnalytics4::hitURL(), "http://127.0.0.1:8123/g/collect");
    EXPECT_FALSE(GoogleAnalytics4::setCollectionEndpoint("ftp://example.org"));
    EXPECT_FALSE(GoogleAnalytics4::setCollectionEndpoint("::not a url"));
    EXPECT_EQ(GoogleAnalytics4::hitURL(), "http://127.0.0.1:8123/g/collect");
}

TEST_F(GoogleAnalytics4Test, BurstTravelsAsOneRequestWithFirstStartMarkersOnlyOnce) {
    testing::HttpCaptureServer server;
    pointAt(server.baseURL());
    const GA4Event a("alpha", {{"k", "1"}});
    const GA4Event b("beta", {});
    GoogleAnalytics4::track(std::vector<GA4Event>{a, b});
    GoogleAnalytics4::track(GA4Event("gamma", {{"x", "y"}}));
    // Waiting for the delay: queued, yet nothing in flight.
    EXPECT_EQ(GoogleAnalytics4::eventCount(), 3U);
    EXPECT_TRUE(GoogleAnalytics4::isDrained());
    ASSERT_TRUE(waitForLogLines(1));
    EXPECT_TRUE(GoogleAnalytics4::isEmpty());

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1U);
    const auto& first = requests[0];
    EXPECT_EQ(first.method, "POST");
    EXPECT_EQ(first.path, "/g/collect");
    EXPECT_EQ(first.body, joinLines({"en=alpha&epn.k=1", "en=beta", "en=gamma&epn.x=y"}));
    const std::vector<std::pair<std::string, std::string>> expectedQuery{
        {"v", "2"},
        {"tid", "G-TEST"},
        {"cid", "client-7"},
        {"seg", "1"},
        {"sid", std::to_string(GoogleAnalytics4::session_id())},
        {"_ss", "1"},
        {"_fv", "1"}};
    EXPECT_EQ(first.query, expectedQuery);
    EXPECT_TRUE(GoogleAnalytics4::haveSentFirstStart());

    // The next batch, even of an event sent before, carries no markers.
    GoogleAnalytics4::track(a);
    ASSERT_TRUE(waitForLogLines(2));
    requests = server.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[1].body, "en=alpha&epn.k=1");
    EXPECT_TRUE(requests[1].queryValues("_ss").empty());
    EXPECT_TRUE(requests[1].queryValues("_fv").empty());
    EXPECT_EQ(requests[1].query.size(), 5U);
}

TEST_F(GoogleAnalytics4Test, DuplicatesWithinABatchAreDroppedButNotAcrossBatches) {
    testing::HttpCaptureServer server;
    pointAt(server.baseURL());
    const GA4Event e("dup", {{"k", "v"}});
    GoogleAnalytics4::track(e);
    GoogleAnalytics4::track(e);
    GoogleAnalytics4::track(GA4Event("dup", {{"k", "v"}}, false));  // differs by flag
    EXPECT_EQ(GoogleAnalytics4::eventCount(), 2U);
    ASSERT_TRUE(waitForLogLines(1));
    ASSERT_EQ(server.requestCount(), 1U);
    EXPECT_EQ(server.requests()[0].body, joinLines({"en=dup&epn.k=v", "en=dup&epn.k=v"}));

    GoogleAnalytics4::track(e);
    EXPECT_EQ(GoogleAnalytics4::eventCount(), 1U);
    ASSERT_TRUE(waitForLogLines(2));
    EXPECT_EQ(server.requests()[1].body, "en=dup&epn.k=v");
}

TEST_F(GoogleAnalytics4Test, FifteenthEventSendsAtOnceAndTheDelayedSendFindsNothing) {
    testing::HttpCaptureServer server;
    pointAt(server.baseURL());
    GoogleAnalytics4::setup("secret", "G-TEST", "client-7", false, 1.5);
    std::vector<std::string> expected;
    for (int i = 0; i < 14; ++i) {
        GoogleAnalytics4::track(GA4Event("e" + std::to_string(i), {}));
        expected.push_back("en=e" + std::to_string(i));
    }
    EXPECT_EQ(GoogleAnalytics4::eventCount(), 14U);
    EXPECT_EQ(server.requestCount(), 0U);
    const auto start = std::chrono::steady_clock::now();
    GoogleAnalytics4::track(GA4Event("e14", {}));
    expected.push_back("en=e14");
    ASSERT_TRUE(eventually([&] { return server.requestCount() == 1; }, 10s));
    // Well before the 1.5 s window closes, so it was the trigger that sent it.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1400ms);
    EXPECT_EQ(server.requests()[0].body, joinLines(expected));
    // Let the delayed send wake up: it must find the queue empty.
    std::this_thread::sleep_until(start + 1800ms);
    ASSERT_TRUE(waitForLogLines(1));
    EXPECT_EQ(server.requestCount(), 1U);
    EXPECT_EQ(logLines().size(), 1U);
}

TEST_F(GoogleAnalytics4Test, PageViewsTravelInTheQueryInQueueOrder) {
    testing::HttpCaptureServer server;
    pointAt(server.baseURL());
    GoogleAnalytics4::track(GA4Event::pageView("Main"));
    GoogleAnalytics4::track(GA4Event("custom", {{"a", "b"}}));
    GoogleAnalytics4::track(GA4Event::pageView("Settings & More"));
    ASSERT_TRUE(waitForLogLines(1));
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.body, "en=custom&epn.a=b");
    ASSERT_EQ(request.query.size(), 13U);
    const std::vector<std::pair<std::string, std::string>> tail(request.query.begin() + 7,
                                                                request.query.end());
    const std::vector<std::pair<std::string, std::string>> expected{
        {"en", "page_view"},
        {"dl", "https://Recorder/Main/"},
        {"dt", "Main"},
        {"en", "page_view"},
        {"dl", "https://Recorder/Settings & More/"},
        {"dt", "Settings & More"}};
    EXPECT_EQ(tail, expected);

    // A batch of page views only has an empty body.
    GoogleAnalytics4::track(GA4Event::pageView("Alone"));
    ASSERT_TRUE(waitForLogLines(2));
    EXPECT_EQ(server.requests().at(1).body, "");
    EXPECT_EQ(server.requests().at(1).queryValues("dt"), std::vector<std::string>{"Alone"});
}

TEST_F(GoogleAnalytics4Test, SpecialCharactersGoUnescapedIntoTheBodyAndTheLogLine) {
    testing::HttpCaptureServer server;
    pointAt(server.baseURL());
    const GA4Event event("odd", {{"v", "a&b=c\nd"}});
    GoogleAnalytics4::track(event);
    ASSERT_TRUE(waitForLogLines(1));
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.body, "en=odd&epn.v=a&b=c\nd");
    const std::string line = logLines().at(0);
    const std::string prefix =
        "Event: " + server.baseURL() + "/g/collect?v=2&tid=G-TEST&cid=client-7";
    EXPECT_EQ(line.substr(0, prefix.size()), prefix);
    EXPECT_NE(line.find("&_ss=1&_fv=1, body: en=odd&epn.v=a&b=c\nd returned code: 204"),
              std::string::npos)
        << line;
}

TEST_F(GoogleAnalytics4Test, EventsTrackedBeforeSetupUseTheIdentifiersStoredAtSendTime) {
    testing::HttpCaptureServer server;
    pointAt(server.baseURL());
    GoogleAnalytics4::setup("", "", "", false, 0.3);
    GoogleAnalytics4::track(GA4Event("early", {}));
    GoogleAnalytics4::setup("secret", "G-LATER", "client-late", false, 0.3);
    ASSERT_TRUE(waitForLogLines(1));
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.queryValues("tid"), std::vector<std::string>{"G-LATER"});
    EXPECT_EQ(request.queryValues("cid"), std::vector<std::string>{"client-late"});
}

// Each faulty collector: the caller never waits, the line is logged, and the
// in-flight count returns to zero.
class GoogleAnalytics4FaultTest : public GoogleAnalytics4Test {
 protected:
    void sendOneAndCheck(const std::string& base, const std::string& expectedStart) {
        pointAt(base);
        GoogleAnalytics4::setup("secret", "G-TEST", "client-7", false, 0.05);
        const auto before = std::chrono::steady_clock::now();
        GoogleAnalytics4::track(GA4Event("fault", {{"k", "v"}}));
        EXPECT_LT(std::chrono::steady_clock::now() - before, 500ms);
        ASSERT_TRUE(waitForLogLines(1));
        EXPECT_EQ(GoogleAnalytics4::inFlightRequests(), 0);
        EXPECT_TRUE(GoogleAnalytics4::isDrained());
        EXPECT_TRUE(GoogleAnalytics4::isEmpty());
        const auto lines = logLines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].substr(0, expectedStart.size()), expectedStart) << lines[0];
    }
};

TEST_F(GoogleAnalytics4FaultTest, ServerError500IsLoggedWithItsCode) {
    testing::HttpCaptureServer server(500);
    sendOneAndCheck(server.baseURL(), "Event: " + server.baseURL() + "/g/collect?");
    EXPECT_NE(logLines()[0].find("returned code: 500"), std::string::npos);
    EXPECT_EQ(server.requestCount(), 1U);
}

TEST_F(GoogleAnalytics4FaultTest, ServerThatNeverAnswersTimesOut) {
    testing::FaultyTcpServer server(testing::FaultyTcpServer::Behaviour::neverAnswers);
    GoogleAnalytics4::setRequestTimeoutSeconds(0.5);
    pointAt(server.baseURL());
    GoogleAnalytics4::track(GA4Event("hang", {}));
    ASSERT_TRUE(eventually([] { return GoogleAnalytics4::inFlightRequests() == 1; }, 10s));
    EXPECT_FALSE(GoogleAnalytics4::isDrained());
    // The caller is not held up by the hanging request.
    const auto before = std::chrono::steady_clock::now();
    GoogleAnalytics4::track(GA4Event("meanwhile", {}));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 250ms);
    ASSERT_TRUE(
        eventually([&] { return logLines().size() >= 2 && GoogleAnalytics4::isDrained(); }, 20s));
    for (const auto& line : logLines()) {
        EXPECT_EQ(line.rfind("Error: ", 0), 0U) << line;
        EXPECT_NE(line.find("imeout"), std::string::npos) << line;
    }
    EXPECT_EQ(GoogleAnalytics4::inFlightRequests(), 0);
    EXPECT_GE(server.connectionCount(), 2);
}

TEST_F(GoogleAnalytics4FaultTest, ConnectionClosedWithoutAReplyIsAnError) {
    testing::FaultyTcpServer server(testing::FaultyTcpServer::Behaviour::closesAtOnce);
    sendOneAndCheck(server.baseURL(), "Error: ");
}

TEST_F(GoogleAnalytics4FaultTest, ReplyThatIsNotHttpLogsCodeMinusOne) {
    testing::FaultyTcpServer server(testing::FaultyTcpServer::Behaviour::notHttp);
    sendOneAndCheck(server.baseURL(), "Event: " + server.baseURL() + "/g/collect?");
    EXPECT_NE(logLines()[0].find("returned code: -1"), std::string::npos) << logLines()[0];
}

TEST_F(GoogleAnalytics4FaultTest, NothingListeningIsAnError) {
    const int port = testing::unusedLocalPort();
    sendOneAndCheck("http://127.0.0.1:" + std::to_string(port), "Error: ");
    EXPECT_NE(logLines()[0].find("onnect"), std::string::npos) << logLines()[0];
}

}  // namespace
}  // namespace zdr
