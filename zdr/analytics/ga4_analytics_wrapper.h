// GA4AnalyticsWrapper: the analytics back-end that turns usage reports into
// GA4Event values for GoogleAnalytics4. Creating one sets the process-wide
// client up (its identifiers and a 0.5 s batching delay) and sends the
// client's per-request lines to the analytics logger at info level.
//
// Threads: any. Reports are queued on the caller's thread; the log lines are
// written on the threads that finish the requests.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "zdr/analytics/analytics_protocol.h"

namespace zdr {

class GA4AnalyticsWrapper : public AnalyticsProtocol {
 public:
    GA4AnalyticsWrapper(const std::string& client_id, const std::string& measurement_id,
                        const std::string& auth_token);

    /// Stored only; GA4 reports do not carry it.
    void setUserID(const std::string& user) override;
    /// Tracks "zdr_app_start" with the app, OS, screen and machine facts;
    /// the launch parameters are not used.
    void logApplicationStart(const std::map<std::string, std::string>& launchParams) override;
    void logScreenUsage(const std::string& screenName) override;
    void logFeatureUsage(const std::string& featureType, const std::string& featureName) override;
    void logEvent(const std::string& name,
                  const std::map<std::string, std::string>& params) override;

    std::optional<std::string> user_id() const;

    static constexpr double kInterEventDelaySeconds = 0.5;

 private:
    mutable std::mutex mutex_;
    std::optional<std::string> user_id_;
};

}  // namespace zdr
