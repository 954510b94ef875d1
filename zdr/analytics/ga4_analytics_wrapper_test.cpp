#include "zdr/analytics/ga4_analytics_wrapper.h"

#include <gtest/gtest.h>

#include "zdr/analytics/google_analytics4.h"
#include "zdr/analytics/google_analytics4_test_support.h"
#include "zdr/logging/logging.h"
#include "zdr/logging/shared2.h"
#include "zdr/logging/testing/test_environment.h"
#include "zdr/runtime/bundle.h"
#include "zdr/system/process_info.h"
#include "zdr/system/screen_provider.h"
#include "zdr/testing/eventually.h"
#include "zdr/testing/http_capture_server.h"

namespace zdr {
namespace {

using namespace std::chrono_literals;

class GA4AnalyticsWrapperTest : public ::testing::Test {
 protected:
    void SetUp() override {
        detail::resetGoogleAnalytics4ForTesting();
        Bundle::main().setInfo(kCFBundleNameKey, "Recorder");
        Bundle::main().setInfo(kCFBundleShortVersionStringKey, "3.1");
        capture = std::make_shared<testing::CaptureDestination>("capture");
        logger = XCGLogger::make("analytics", false);
        logger->add(capture);
        Shared2::setAnalytics(logger);
        Logging::shared()->loggingEnabled("analytics", true);
        ASSERT_TRUE(GoogleAnalytics4::setCollectionEndpoint(server.baseURL()));
    }
    void TearDown() override {
        EXPECT_TRUE(testing::eventually([] { return GoogleAnalytics4::isDrained(); }, 20s));
        detail::resetGoogleAnalytics4ForTesting();
        ProcessInfo::setOperatingSystemVersion(std::nullopt);
        ScreenProvider::install(nullptr);
    }
    bool waitForRequests(std::size_t n) {
        return testing::eventually(
            [&] { return server.requestCount() >= n && GoogleAnalytics4::isDrained(); }, 20s);
    }

    testing::HttpCaptureServer server;
    std::shared_ptr<testing::CaptureDestination> capture;
    std::shared_ptr<XCGLogger> logger;
};

TEST_F(GA4AnalyticsWrapperTest, SetsTheClientUpWithItsIdentifiersAndDelay) {
    GA4AnalyticsWrapper wrapper("client-1", "G-XYZ", "token-9");
    EXPECT_EQ(GoogleAnalytics4::client_id(), "client-1");
    EXPECT_EQ(GoogleAnalytics4::measurement_id(), "G-XYZ");
    EXPECT_EQ(GoogleAnalytics4::api_secret(), "token-9");
    EXPECT_FALSE(GoogleAnalytics4::useDebugEndpoint());
    EXPECT_DOUBLE_EQ(GoogleAnalytics4::interEventDelaySeconds(), 0.5);
    wrapper.setUserID("USER-1");
    EXPECT_EQ(wrapper.user_id(), "USER-1");
}

TEST_F(GA4AnalyticsWrapperTest, ApplicationStartCarriesTheMachineFactsAndIsLogged) {
    ProcessInfo::setOperatingSystemVersion(OperatingSystemVersion{6, 1, 12});
    ScreenProvider::install(std::make_shared<FixedScreenProvider>(std::vector<DisplayRecord>{
        DisplayRecord{1, {}, "HDMI-1", std::nullopt}, DisplayRecord{2, {}, "DP-1", std::nullopt}}));
    GA4AnalyticsWrapper wrapper("client-1", "G-XYZ", "token-9");
    wrapper.logApplicationStart({{"ignored", "yes"}});
    ASSERT_TRUE(waitForRequests(1));
    const std::string model = ProcessInfo::machineModel();
    EXPECT_EQ(server.requests().at(0).body,
              "en=zdr_app_start&epn.zdr_app_name=Recorder&epn.zdr_app_version=3.1"
              "&epn.zdr_machine_model=" +
                  model +
                  "&epn.zdr_os_version=6.1.12&epn.zdr_os_version_major=6"
                  "&epn.zdr_screen_count=2");

    ASSERT_TRUE(testing::eventually([&] { return !capture->lines().empty(); }, 10s));
    const auto line = capture->lines().at(0);
    EXPECT_EQ(line.level, LogLevel::info);
    EXPECT_EQ(line.function, "init(client_id:measurement_id:auth_token:)");
    EXPECT_EQ(line.message.rfind("Event: " + server.baseURL() + "/g/collect?", 0), 0U)
        << line.message;
    EXPECT_NE(line.message.find("returned code: 204"), std::string::npos);
}

TEST_F(GA4AnalyticsWrapperTest, ScreensFeaturesAndEventsBecomeGA4Events) {
    GA4AnalyticsWrapper wrapper("client-1", "G-XYZ", "token-9");
    wrapper.logScreenUsage("Preferences");
    wrapper.logFeatureUsage("export", "gif");
    wrapper.logEvent("custom", {{"k", "v"}});
    const auto queued = GoogleAnalytics4::queuedCustomEvents();
    ASSERT_EQ(queued.size(), 3U);
    EXPECT_EQ(queued[0], GA4Event::pageView("Preferences"));
    EXPECT_EQ(queued[1], GA4Event::selectContent("export", "gif"));
    EXPECT_EQ(queued[2], GA4Event("custom", {{"k", "v"}}, true));
    ASSERT_TRUE(waitForRequests(1));
    const auto request = server.requests().at(0);
    EXPECT_EQ(request.body,
              "en=select_content&epn.content_type=export&epn.item_id=gif\r\nen=custom&epn.k=v");
    EXPECT_EQ(request.queryValues("dt"), std::vector<std::string>{"Preferences"});
}

}  // namespace
}  // namespace zdr
