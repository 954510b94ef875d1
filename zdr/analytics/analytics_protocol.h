// AnalyticsProtocol: the back-end an application's analytics wrapper forwards
// usage reports to (GA4AnalyticsWrapper is the shipped one; tests and other
// services implement their own). ZDRGAAnalyticsLogging: for objects that want
// the analytics messages.
//
// Threads: the wrapper calls the back-end on the caller's thread; back-ends
// must accept calls from any thread.
#pragma once

#include <map>
#include <string>

namespace zdr {

class AnalyticsProtocol {
 public:
    virtual ~AnalyticsProtocol() = default;
    virtual void setUserID(const std::string& user) = 0;
    virtual void logApplicationStart(const std::map<std::string, std::string>& launchParams) = 0;
    virtual void logScreenUsage(const std::string& screenName) = 0;
    virtual void logFeatureUsage(const std::string& featureType,
                                 const std::string& featureName) = 0;
    virtual void logEvent(const std::string& name,
                          const std::map<std::string, std::string>& params) = 0;
};

class ZDRGAAnalyticsLogging {
 public:
    virtual ~ZDRGAAnalyticsLogging() = default;
    virtual void logAnalyticsMessage(const std::string& message) = 0;
};

}  // namespace zdr
