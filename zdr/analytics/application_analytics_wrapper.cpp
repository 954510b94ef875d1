#include "zdr/analytics/application_analytics_wrapper.h"

#include <nlohmann/json.hpp>

#include "zdr/audio/alert_presenter.h"
#include "zdr/logging/shared2.h"
#include "zdr/runtime/user_defaults.h"
#include "zdr/system/environment.h"
#include "zdr/timing/detail/fatal_error.h"
#include "zdr/timing/serial.h"

namespace zdr {

std::string kAllowStatisticsCollection = "kAllowStatisticsCollection";
std::string kHavePromptedSinceSwitchingAnalytics = "kHavePromptedSinceSwitchingAnalytics";
std::string kApplicationLaunchCount = "kApplicationLaunchCount";

ApplicationAnalyticsWrapper::ApplicationAnalyticsWrapper(std::shared_ptr<AnalyticsProtocol> wrapper,
                                                         bool checkIfKnownDevMachine,
                                                         double /*interEventDelayInSeconds*/)
    : analytics_(std::move(wrapper)),
      checkIfKnownDevMachine_(checkIfKnownDevMachine),
      serialNumberReader_([] { return Serial::serialNumber(); }) {
    nlohmann::json defaults = nlohmann::json::object();
    defaults[kAllowStatisticsCollection] = true;
    defaults[kHavePromptedSinceSwitchingAnalytics] = false;
    defaults[kApplicationLaunchCount] = 0;
    UserDefaults::standard()->registerDefaults(defaults);
}

bool ApplicationAnalyticsWrapper::allowStatisticsCollection() {
    return UserDefaults::standard()->boolForKey(kAllowStatisticsCollection);
}

bool ApplicationAnalyticsWrapper::onKnownDevMachine() const {
    if (!checkIfKnownDevMachine_) return false;
    const auto serial = serialNumberReader_ ? serialNumberReader_() : std::nullopt;
    return serial.has_value() && Application::isAKnownDevMachine(serial);
}

bool ApplicationAnalyticsWrapper::doAnalyticsOnThisHost() const { return !onKnownDevMachine(); }

bool ApplicationAnalyticsWrapper::enabled() const {
    return !onKnownDevMachine() && allowStatisticsCollection();
}

UUID ApplicationAnalyticsWrapper::getUserIdentifier() {
    const auto defaults = UserDefaults::standard();
    const auto stored = defaults->objectForKey(kUserUUIDKey);
    if (!stored) {
        const UUID made = UUID::random();
        defaults->setString(made.uuidString(), kUserUUIDKey);
        return made;
    }
    // A value that is not a UUID means the settings were edited by hand or
    // damaged; inventing a new identifier would silently split the user's
    // history, so the program stops instead.
    if (stored->is_string()) {
        if (auto parsed = UUID::fromString(stored->get<std::string>())) return *parsed;
    }
    detail::fatalError(std::string("The stored \"") + kUserUUIDKey +
                       "\" is not a UUID: " + stored->dump());
}

AnalyticsProtocol& ApplicationAnalyticsWrapper::backEnd() const {
    if (!analytics_) detail::fatalError("ApplicationAnalyticsWrapper has no analytics back-end");
    return *analytics_;
}

void ApplicationAnalyticsWrapper::logApplicationStart() {
    AnalyticsProtocol& analytics = backEnd();
    analytics.setUserID(getUserIdentifier().uuidString());
    analytics.logApplicationStart({});
}

void ApplicationAnalyticsWrapper::logScreenUsage(const std::string& screenName) {
    if (allowStatisticsCollection()) backEnd().logScreenUsage(screenName);
}

void ApplicationAnalyticsWrapper::send(const std::function<void()>& work) {
    if (allowStatisticsCollection() && work) work();
}

void ApplicationAnalyticsWrapper::askUserAboutStatisticsCollectionIfNeeded() {
    if (onKnownDevMachine()) return;
    const auto defaults = UserDefaults::standard();
    if (defaults->objectForKey(kAllowStatisticsCollection).has_value() &&
        defaults->boolForKey(kHavePromptedSinceSwitchingAnalytics)) {
        return;
    }
    // Not before the fourth launch, so that first impressions are not spoiled.
    if (defaults->integerForKey(kApplicationLaunchCount) < 4) return;

    const auto presenter = AlertPresenter::installed();
    if (!presenter) {
        // Nobody to ask: no consent, and the question stays open for a launch
        // that has a user interface.
        Shared2::analytics()->warning(
            "No alert presenter to ask about statistics collection; collection stays off");
        defaults->setBool(false, kAllowStatisticsCollection);
        defaults->synchronize();
        return;
    }
    AlertRequest request;
    request.title = kAlertMessage;
    request.message = kAlertInformativeText;
    request.buttonText = kAcceptButton;
    request.otherButtons = {kDeclineButton};
    request.informational = true;
    request.iconName = kAlertIconName;
    const AlertResponse response = presenter->runModal(request);
    defaults->setBool(response.modalResponse == kAlertFirstButtonReturn,
                      kAllowStatisticsCollection);
    defaults->setBool(true, kHavePromptedSinceSwitchingAnalytics);
    defaults->synchronize();
}

}  // namespace zdr
