#include "zdr/analytics/ga4_event.h"

#include <gtest/gtest.h>

#include <unordered_set>

#include "zdr/runtime/bundle.h"

namespace zdr {
namespace {

class GA4EventTest : public ::testing::Test {
 protected:
    void SetUp() override {
        Bundle::main().setInfo(kCFBundleNameKey, "Recorder");
        Bundle::main().setInfo(kCFBundleDisplayNameKey, std::nullopt);
        Bundle::main().setInfo(kCFBundleShortVersionStringKey, std::nullopt);
    }
};

TEST_F(GA4EventTest, ApplicationNamePrefersDisplayNameAndVersionFallsBackToUnknown) {
    EXPECT_EQ(GA4Event::applicationName(), "Recorder");
    EXPECT_EQ(GA4Event::applicationVersion(), "unknown");
    Bundle::main().setInfo(kCFBundleDisplayNameKey, "Recorder Pro");
    Bundle::main().setInfo(kCFBundleShortVersionStringKey, "2.4.1");
    EXPECT_EQ(GA4Event::applicationName(), "Recorder Pro");
    EXPECT_EQ(GA4Event::applicationVersion(), "2.4.1");
}

TEST_F(GA4EventTest, MissingBundleNameStopsTheProgramNamingTheKey) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Bundle::main().setInfo(kCFBundleNameKey, std::nullopt);
            (void)GA4Event::applicationName();
        },
        "CFBundleName");
}

TEST_F(GA4EventTest, PageViewKeepsTrailingSlashAndDoesNotEscape) {
    const GA4Event event = GA4Event::pageView("Main Window/Tab");
    EXPECT_EQ(event.name, "page_view");
    EXPECT_TRUE(event.sendInGA4Body);
    EXPECT_EQ(event.params.at("page_title"), "Main Window/Tab");
    EXPECT_EQ(event.params.at("page_location"), "https://Recorder/Main Window/Tab/");
    EXPECT_TRUE(event.contributesQueryParams());
    const std::vector<GA4QueryItem> expected{{"en", "page_view"},
                                             {"dl", "https://Recorder/Main Window/Tab/"},
                                             {"dt", "Main Window/Tab"}};
    EXPECT_EQ(event.queryParameters(), expected);
}

TEST_F(GA4EventTest, QueryParametersOnlyForPageViewsAndOnlyPresentKeys) {
    EXPECT_TRUE(GA4Event::selectContent("tool", "crop").queryParameters().empty());
    GA4Event partial("page_view", {{"page_title", "Only title"}});
    const std::vector<GA4QueryItem> expected{{"en", "page_view"}, {"dt", "Only title"}};
    EXPECT_EQ(partial.queryParameters(), expected);
    EXPECT_FALSE(GA4Event("Page_View", {}).contributesQueryParams());
}

TEST_F(GA4EventTest, BodyStringUsesEpnPrefixAndLeavesSpecialCharactersAlone) {
    EXPECT_EQ(GA4Event("zdr_start", {}).asGAPIBodyString(), "en=zdr_start");
    const GA4Event event("x", {{"a", "1&b=2"}, {"line", "one\r\ntwo"}, {"n", "42"}});
    EXPECT_EQ(event.asGAPIBodyString(), "en=x&epn.a=1&b=2&epn.line=one\r\ntwo&epn.n=42");
    EXPECT_EQ(GA4Event::selectContent("tool", "crop").asGAPIBodyString(),
              "en=select_content&epn.content_type=tool&epn.item_id=crop");
}

TEST_F(GA4EventTest, EqualityAndHashCoverAllThreeFields) {
    const GA4Event a("e", {{"k", "v"}}, true);
    EXPECT_EQ(a, GA4Event("e", {{"k", "v"}}, true));
    EXPECT_NE(a, GA4Event("e", {{"k", "v"}}, false));
    EXPECT_NE(a, GA4Event("e", {{"k", "w"}}, true));
    EXPECT_NE(a, GA4Event("f", {{"k", "v"}}, true));
    std::unordered_set<GA4Event> set{a, GA4Event("e", {{"k", "v"}}, true),
                                     GA4Event("e", {{"k", "v"}}, false),
                                     GA4Event("e", {{"k", "w"}}, true)};
    EXPECT_EQ(set.size(), 3U);
    EXPECT_EQ(std::hash<GA4Event>{}(a), std::hash<GA4Event>{}(GA4Event("e", {{"k", "v"}}, true)));
    EXPECT_NE(a.hashValue(), GA4Event("e", {{"k", "v"}}, false).hashValue());
}

TEST_F(GA4EventTest, JsonFormHasKeysInOrderAndRoundTrips) {
    const GA4Event event("e", {{"b", "2"}, {"a", "1"}}, false);
    EXPECT_EQ(event.jsonString(),
              R"({"name":"e","params":{"a":"1","b":"2"},"sendInGA4Body":false})");
    EXPECT_EQ(GA4Event::fromJSONString(event.jsonString()), event);
    EXPECT_FALSE(GA4Event::fromJSONString("not json"));
    EXPECT_FALSE(GA4Event::fromJSONString(R"({"name":"e","params":{"a":1},"sendInGA4Body":true})"));
    EXPECT_FALSE(GA4Event::fromJSONString(R"({"name":"e","params":{}})"));
    EXPECT_FALSE(GA4Event::fromJSONString("[]"));
}

}  // namespace
}  // namespace zdr
