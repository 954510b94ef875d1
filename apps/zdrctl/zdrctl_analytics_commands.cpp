#include "apps/zdrctl/zdrctl_analytics_commands.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <ostream>

#include "apps/zdrctl/zdrctl_options.h"
#include "zdr/analytics/ga4_analytics_wrapper.h"
#include "zdr/analytics/google_analytics4.h"
#include "zdr/runtime/bundle.h"

namespace zdr::zdrctl {

namespace {

struct Outcome {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<std::string> line;
};

bool succeeded(const std::string& line) {
    static const std::string kCode = " returned code: ";
    if (!line.starts_with("Event: ")) return false;
    const auto at = line.rfind(kCode);
    if (at == std::string::npos) return false;
    const std::string code = line.substr(at + kCode.size());
    return code.size() == 3 && code[0] == '2';
}

}  // namespace

std::optional<int> runAnalyticsCommand(const std::vector<std::string>& args, std::ostream& out,
                                       std::ostream& err) {
    if (args.empty() || args[0] != "analytics-test") return std::nullopt;
    auto usage = [&](const std::string& message) {
        err << "zdrctl: " << message << "\nRun 'zdrctl --help' for usage.\n";
        return static_cast<int>(kExitUsage);
    };
    std::optional<std::string> endpoint;
    std::string measurementID = "G-ZDRCTL-TEST";
    std::string clientID = "zdrctl-analytics-test";
    double timeout = GoogleAnalytics4::kDefaultRequestTimeoutSeconds;
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& option = args[i];
        if (i + 1 >= args.size()) return usage("\"" + option + "\" needs a value");
        const std::string& value = args[++i];
        if (option == "--endpoint") {
            endpoint = value;
        } else if (option == "--measurement-id") {
            measurementID = value;
        } else if (option == "--client-id") {
            clientID = value;
        } else if (option == "--timeout") {
            try {
                std::size_t used = 0;
                timeout = std::stod(value, &used);
                if (used != value.size() || !(timeout > 0 && timeout <= 600)) throw 0;
            } catch (...) {
                return usage("--timeout takes seconds between 0 and 600, not \"" + value + "\"");
            }
        } else {
            return usage("unknown option \"" + option + "\" for \"analytics-test\"");
        }
    }
    if (!endpoint) return usage("analytics-test needs --endpoint URL");
    if (!GoogleAnalytics4::setCollectionEndpoint(*endpoint)) {
        return usage("\"" + *endpoint + "\" is not an http or https URL");
    }
    // The event names the application; a tool run from a shell has no bundle.
    if (!Bundle::main().name()) Bundle::main().setInfo(kCFBundleNameKey, "zdrctl");

    GA4AnalyticsWrapper analytics(clientID, measurementID, "");
    GoogleAnalytics4::setRequestTimeoutSeconds(timeout);
    auto outcome = std::make_shared<Outcome>();
    GoogleAnalytics4::setLog([outcome](const std::string& line) {
        std::lock_guard lock(outcome->mutex);
        if (!outcome->line) outcome->line = line;
        outcome->changed.notify_all();
    });

    analytics.logApplicationStart({});
    const auto queued = GoogleAnalytics4::queuedCustomEvents();
    out << "Sending to " << GoogleAnalytics4::hitURL() << ":\n";
    for (const GA4Event& event : queued) {
        out << "  event: " << event.jsonString() << "\n";
        out << "  body line: " << event.asGAPIBodyString() << "\n";
    }
    std::unique_lock lock(outcome->mutex);
    const auto limit =
        std::chrono::duration<double>(timeout + GA4AnalyticsWrapper::kInterEventDelaySeconds + 5.0);
    if (!outcome->changed.wait_for(lock, limit, [&] { return outcome->line.has_value(); })) {
        err << "zdrctl: no answer within " << limit.count() << " s\n";
        return kExitFailure;
    }
    out << "Result: " << *outcome->line << "\n";
    return succeeded(*outcome->line) ? kExitOK : kExitFailure;
}

}  // namespace zdr::zdrctl
