#include "apps/zdrctl/zdrctl_analytics_commands.h"

#include <gtest/gtest.h>

#include <sstream>

#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/analytics/google_analytics4.h"
#include "zdr/testing/eventually.h"
#include "zdr/testing/http_capture_server.h"

namespace zdr::zdrctl {
namespace {

struct CommandRun {
    std::optional<int> rc;
    std::string out;
    std::string err;
};

CommandRun run(const std::vector<std::string>& args) {
    std::ostringstream out;
    std::ostringstream err;
    CommandRun r;
    r.rc = runAnalyticsCommand(args, out, err);
    r.out = out.str();
    r.err = err.str();
    // Let the finished request's completion leave the client before the next.
    EXPECT_TRUE(testing::eventually([] { return GoogleAnalytics4::isDrained(); }));
    return r;
}

TEST(ZdrctlAnalyticsTest, SendsOneApplicationStartAndPrintsTheResult) {
    testing::HttpCaptureServer server;
    const CommandRun r =
        run({"analytics-test", "--endpoint", server.baseURL(), "--measurement-id", "G-CHECK"});
    ASSERT_EQ(r.rc, kExitOK) << r.err;
    EXPECT_NE(r.out.find("Sending to " + server.baseURL() + "/g/collect"), std::string::npos);
    EXPECT_NE(r.out.find("\"name\":\"zdr_app_start\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("returned code: 204"), std::string::npos) << r.out;
    ASSERT_EQ(server.requestCount(), 1U);
    const auto request = server.requests()[0];
    EXPECT_EQ(request.queryValues("tid"), std::vector<std::string>{"G-CHECK"});
    EXPECT_EQ(request.body.rfind("en=zdr_app_start&epn.zdr_app_name=", 0), 0U) << request.body;
}

TEST(ZdrctlAnalyticsTest, FailingCollectorsExitWithFailure) {
    testing::HttpCaptureServer failing(503);
    CommandRun r = run({"analytics-test", "--endpoint", failing.baseURL()});
    EXPECT_EQ(r.rc, kExitFailure);
    EXPECT_NE(r.out.find("returned code: 503"), std::string::npos) << r.out;

    const int port = testing::unusedLocalPort();
    r = run({"analytics-test", "--endpoint", "http://127.0.0.1:" + std::to_string(port)});
    EXPECT_EQ(r.rc, kExitFailure);
    EXPECT_NE(r.out.find("Result: Error: "), std::string::npos) << r.out;
}

TEST(ZdrctlAnalyticsTest, BadCommandLinesAreUsageErrors) {
    EXPECT_FALSE(run({"screens"}).rc);
    EXPECT_FALSE(run({}).rc);
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"analytics-test"},
             {"analytics-test", "--endpoint"},
             {"analytics-test", "--endpoint", "ftp://127.0.0.1"},
             {"analytics-test", "--endpoint", "http://127.0.0.1:1", "--timeout", "soon"},
             {"analytics-test", "--endpoint", "http://127.0.0.1:1", "--bogus", "x"}}) {
        const CommandRun r = run(args);
        EXPECT_EQ(r.rc, kExitUsage) << args.size();
        EXPECT_NE(r.err.find("zdrctl: "), std::string::npos);
    }
}

}  // namespace
}  // namespace zdr::zdrctl
