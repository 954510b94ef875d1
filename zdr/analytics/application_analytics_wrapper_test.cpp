#include "zdr/analytics/application_analytics_wrapper.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "zdr/audio/alert_presenter.h"
#include "zdr/runtime/bundle.h"
#include "zdr/runtime/user_defaults.h"
#include "zdr/system/environment.h"

namespace zdr {
namespace {

struct RecordingBackEnd : AnalyticsProtocol {
    std::vector<std::string> calls;
    void setUserID(const std::string& user) override { calls.push_back("user:" + user); }
    void logApplicationStart(const std::map<std::string, std::string>& params) override {
        calls.push_back("start:" + std::to_string(params.size()));
    }
    void logScreenUsage(const std::string& screen) override { calls.push_back("screen:" + screen); }
    void logFeatureUsage(const std::string& type, const std::string& name) override {
        calls.push_back("feature:" + type + "/" + name);
    }
    void logEvent(const std::string& name, const std::map<std::string, std::string>&) override {
        calls.push_back("event:" + name);
    }
};

// Answers each alert with the next scripted button and records what it was
// asked.
struct ScriptedAlertPresenter : AlertPresenter {
    std::vector<long> answers;
    std::vector<AlertRequest> requests;
    AlertResponse runModal(const AlertRequest& request) override {
        requests.push_back(request);
        AlertResponse response;
        response.modalResponse = answers.at(requests.size() - 1);
        return response;
    }
};

constexpr long kNoThanks = kAlertFirstButtonReturn + 1;

class ApplicationAnalyticsWrapperTest : public ::testing::Test {
 protected:
    static void SetUpTestSuite() {
        // The settings store is made once per process: point it at a private
        // folder before anything uses it.
        static const std::filesystem::path dir = [] {
            char pattern[] = "/tmp/zdr-analytics-XXXXXX";
            return std::filesystem::path(::mkdtemp(pattern));
        }();
        ::setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
        Bundle::main().setInfo(kCFBundleIdentifierKey, "org.zdr.analytics-test");
        Bundle::main().setInfo(kCFBundleNameKey, "Recorder");
    }
    void SetUp() override {
        auto defaults = UserDefaults::standard();
        for (const std::string& key :
             {kAllowStatisticsCollection, kHavePromptedSinceSwitchingAnalytics,
              kApplicationLaunchCount, std::string(kUserUUIDKey)}) {
            defaults->removeObjectForKey(key);
        }
        Application::setKnownDevMachineSerialNumbers({"C02DEVMACHIN", "C02OTHERDEV1"});
        presenter = std::make_shared<ScriptedAlertPresenter>();
        AlertPresenter::install(presenter);
        backEnd = std::make_shared<RecordingBackEnd>();
    }
    void TearDown() override { AlertPresenter::install(nullptr); }

    ApplicationAnalyticsWrapper makeWrapper(bool check, std::optional<std::string> serial) {
        ApplicationAnalyticsWrapper wrapper(backEnd, check, 3.0);
        wrapper.setSerialNumberReader([serial] { return serial; });
        return wrapper;
    }

    std::shared_ptr<ScriptedAlertPresenter> presenter;
    std::shared_ptr<RecordingBackEnd> backEnd;
};

TEST_F(ApplicationAnalyticsWrapperTest, RegistersConsentOnByDefault) {
    auto wrapper = makeWrapper(true, "ORDINARYPC01");
    auto defaults = UserDefaults::standard();
    EXPECT_TRUE(ApplicationAnalyticsWrapper::allowStatisticsCollection());
    EXPECT_FALSE(defaults->boolForKey(kHavePromptedSinceSwitchingAnalytics));
    EXPECT_EQ(defaults->integerForKey(kApplicationLaunchCount), 0);
    EXPECT_TRUE(wrapper.doAnalyticsOnThisHost());
    EXPECT_TRUE(wrapper.enabled());
}

TEST_F(ApplicationAnalyticsWrapperTest, AsksOnTheFourthLaunchAndNoThanksIsFinal) {
    auto wrapper = makeWrapper(true, "ORDINARYPC01");
    auto defaults = UserDefaults::standard();
    for (int launch = 1; launch <= 3; ++launch) {
        defaults->setInteger(launch, kApplicationLaunchCount);
        wrapper.askUserAboutStatisticsCollectionIfNeeded();
    }
    EXPECT_TRUE(presenter->requests.empty());

    presenter->answers = {kNoThanks};
    defaults->setInteger(4, kApplicationLaunchCount);
    wrapper.askUserAboutStatisticsCollectionIfNeeded();
    ASSERT_EQ(presenter->requests.size(), 1U);
    const AlertRequest& asked = presenter->requests[0];
    EXPECT_EQ(asked.title, "Help us improve the app!");
    EXPECT_EQ(asked.message,
              "We'd like to collect some non-personal information about what parts of the app "
              "you use.\n\nIt does not contain the contents of your recordings nor any personal "
              "information.\n\nIt can be disabled at any time in the application preferences.");
    EXPECT_EQ(asked.buttonText, "Sounds good");
    EXPECT_EQ(asked.otherButtons, std::vector<std::string>{"No thanks"});
    EXPECT_TRUE(asked.informational);
    EXPECT_EQ(asked.iconName, "StatisticsCollection");

    EXPECT_FALSE(ApplicationAnalyticsWrapper::allowStatisticsCollection());
    EXPECT_TRUE(defaults->boolForKey(kHavePromptedSinceSwitchingAnalytics));
    EXPECT_FALSE(wrapper.enabled());
    // Flushed to the file, so it survives a restart.
    std::ifstream file(*UserDefaults::standardFilePath());
    const auto saved = nlohmann::json::parse(file, nullptr, false);
    ASSERT_TRUE(saved.is_object());
    EXPECT_EQ(saved.value(kAllowStatisticsCollection, true), false);
    EXPECT_EQ(saved.value(kHavePromptedSinceSwitchingAnalytics, false), true);

    for (int launch = 5; launch <= 8; ++launch) {
        defaults->setInteger(launch, kApplicationLaunchCount);
        wrapper.askUserAboutStatisticsCollectionIfNeeded();
    }
    EXPECT_EQ(presenter->requests.size(), 1U);
}

TEST_F(ApplicationAnalyticsWrapperTest, SoundsGoodStoresConsent) {
    auto wrapper = makeWrapper(false, std::nullopt);
    presenter->answers = {kAlertFirstButtonReturn};
    UserDefaults::standard()->setBool(false, kAllowStatisticsCollection);
    UserDefaults::standard()->setInteger(9, kApplicationLaunchCount);
    wrapper.askUserAboutStatisticsCollectionIfNeeded();
    EXPECT_EQ(presenter->requests.size(), 1U);
    EXPECT_TRUE(ApplicationAnalyticsWrapper::allowStatisticsCollection());
    EXPECT_TRUE(wrapper.enabled());
}

TEST_F(ApplicationAnalyticsWrapperTest, DeveloperMachineIsNeverAskedAndNeverEnabled) {
    UserDefaults::standard()->setInteger(12, kApplicationLaunchCount);
    UserDefaults::standard()->setBool(true, kAllowStatisticsCollection);
    auto dev = makeWrapper(true, "C02DEVMACHIN");
    EXPECT_FALSE(dev.doAnalyticsOnThisHost());
    EXPECT_FALSE(dev.enabled());
    dev.askUserAboutStatisticsCollectionIfNeeded();
    EXPECT_TRUE(presenter->requests.empty());

    // The same machine without the check, and a machine whose serial number
    // cannot be read, are ordinary.
    auto unchecked = makeWrapper(false, "C02DEVMACHIN");
    EXPECT_TRUE(unchecked.doAnalyticsOnThisHost());
    EXPECT_TRUE(unchecked.enabled());
    EXPECT_TRUE(makeWrapper(true, std::nullopt).doAnalyticsOnThisHost());
    presenter->answers = {kNoThanks};
    unchecked.askUserAboutStatisticsCollectionIfNeeded();
    EXPECT_EQ(presenter->requests.size(), 1U);
}

TEST_F(ApplicationAnalyticsWrapperTest, WithoutAPresenterConsentIsOffAndTheQuestionStaysOpen) {
    AlertPresenter::install(nullptr);
    auto wrapper = makeWrapper(false, std::nullopt);
    UserDefaults::standard()->setInteger(4, kApplicationLaunchCount);
    wrapper.askUserAboutStatisticsCollectionIfNeeded();
    EXPECT_FALSE(ApplicationAnalyticsWrapper::allowStatisticsCollection());
    EXPECT_FALSE(UserDefaults::standard()->boolForKey(kHavePromptedSinceSwitchingAnalytics));
}

TEST_F(ApplicationAnalyticsWrapperTest, ScreenUsageAndSendFollowConsentButStartDoesNot) {
    auto wrapper = makeWrapper(false, std::nullopt);
    int ran = 0;
    UserDefaults::standard()->setBool(false, kAllowStatisticsCollection);
    wrapper.logScreenUsage("Editor");
    wrapper.send([&] { ++ran; });
    wrapper.logApplicationStart();
    const std::string user = ApplicationAnalyticsWrapper::getUserIdentifier().uuidString();
    EXPECT_EQ(backEnd->calls, (std::vector<std::string>{"user:" + user, "start:0"}));
    EXPECT_EQ(ran, 0);

    UserDefaults::standard()->setBool(true, kAllowStatisticsCollection);
    wrapper.logScreenUsage("Editor");
    wrapper.send([&] { ++ran; });
    EXPECT_EQ(backEnd->calls.back(), "screen:Editor");
    EXPECT_EQ(ran, 1);
}

TEST_F(ApplicationAnalyticsWrapperTest, UserIdentifierIsMadeOnceAndStoredUpperCase) {
    EXPECT_FALSE(UserDefaults::standard()->stringForKey(kUserUUIDKey));
    const UUID first = ApplicationAnalyticsWrapper::getUserIdentifier();
    const auto stored = UserDefaults::standard()->stringForKey(kUserUUIDKey);
    ASSERT_TRUE(stored);
    EXPECT_EQ(*stored, first.uuidString());
    for (char c : *stored) EXPECT_FALSE(c >= 'a' && c <= 'z') << *stored;
    EXPECT_EQ(ApplicationAnalyticsWrapper::getUserIdentifier().uuidString(), first.uuidString());
}

using ApplicationAnalyticsWrapperDeathTest = ApplicationAnalyticsWrapperTest;

TEST_F(ApplicationAnalyticsWrapperDeathTest, MalformedStoredIdentifierStopsNamingTheKey) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            UserDefaults::standard()->setString("not-a-uuid", kUserUUIDKey);
            (void)ApplicationAnalyticsWrapper::getUserIdentifier();
        },
        "__user_UUID");
}

TEST_F(ApplicationAnalyticsWrapperDeathTest, MissingBackEndStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ApplicationAnalyticsWrapper wrapper(nullptr, false, 0);
            wrapper.logApplicationStart();
        },
        "no analytics back-end");
}

}  // namespace
}  // namespace zdr
