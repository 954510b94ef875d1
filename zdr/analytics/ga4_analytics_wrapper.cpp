#include "zdr/analytics/ga4_analytics_wrapper.h"

#include "zdr/analytics/ga4_event.h"
#include "zdr/analytics/google_analytics4.h"
#include "zdr/logging/shared2.h"
#include "zdr/system/process_info.h"
#include "zdr/system/screen_info.h"

namespace zdr {

GA4AnalyticsWrapper::GA4AnalyticsWrapper(const std::string& client_id,
                                         const std::string& measurement_id,
                                         const std::string& auth_token) {
    GoogleAnalytics4::setup(auth_token, measurement_id, client_id, false, kInterEventDelaySeconds);
    GoogleAnalytics4::setLog([](const std::string& line) {
        // Named after the initializer that installed it, wherever the request
        // finished.
        Shared2::analytics()->logln(
            line, LogLevel::info, "init(client_id:measurement_id:auth_token:)", __FILE__, __LINE__);
    });
}

void GA4AnalyticsWrapper::setUserID(const std::string& user) {
    std::lock_guard lock(mutex_);
    user_id_ = user;
}

std::optional<std::string> GA4AnalyticsWrapper::user_id() const {
    std::lock_guard lock(mutex_);
    return user_id_;
}

void GA4AnalyticsWrapper::logApplicationStart(const std::map<std::string, std::string>&) {
    const OperatingSystemVersion os = ProcessInfo::operatingSystemVersion();
    GoogleAnalytics4::track(GA4Event("zdr_app_start",
                                     {{"zdr_app_name", GA4Event::applicationName()},
                                      {"zdr_app_version", GA4Event::applicationVersion()},
                                      {"zdr_os_version", std::to_string(os.majorVersion) + "." +
                                                             std::to_string(os.minorVersion) + "." +
                                                             std::to_string(os.patchVersion)},
                                      {"zdr_os_version_major", std::to_string(os.majorVersion)},
                                      {"zdr_screen_count", std::to_string(Screen::screenCount())},
                                      {"zdr_machine_model", ProcessInfo::machineModel()}},
                                     true));
}

void GA4AnalyticsWrapper::logScreenUsage(const std::string& screenName) {
    GoogleAnalytics4::track(GA4Event::pageView(screenName));
}

void GA4AnalyticsWrapper::logFeatureUsage(const std::string& featureType,
                                          const std::string& featureName) {
    GoogleAnalytics4::track(GA4Event(
        "select_content", {{"content_type", featureType}, {"item_id", featureName}}, true));
}

void GA4AnalyticsWrapper::logEvent(const std::string& name,
                                   const std::map<std::string, std::string>& params) {
    GoogleAnalytics4::track(GA4Event(name, params, true));
}

}  // namespace zdr
