// ApplicationAnalyticsWrapper: what an application holds to report usage. It
// owns the user's consent (asked once, from the fourth launch on, through the
// host's AlertPresenter and stored in UserDefaults::standard()), an anonymous
// per-installation user identifier ("__user_UUID"), and the rule that the
// developers' own machines (Application::setKnownDevMachineSerialNumbers)
// report nothing; it forwards reports to an AnalyticsProtocol back-end.
//
// The key constants below may be renamed by the host at start-up, before any
// wrapper exists; they are not guarded for changes later.
//
// Threads: askUserAboutStatisticsCollectionIfNeeded() runs a modal alert and
// belongs on the thread that drives the user interface. The other members may
// be called from any thread; the back-end is called on the caller's thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zdr/analytics/analytics_protocol.h"
#include "zdr/runtime/uuid.h"

namespace zdr {

/// The user's consent (registered default: true).
extern std::string kAllowStatisticsCollection;
/// Whether the consent question was asked under the current back-end
/// (registered default: false).
extern std::string kHavePromptedSinceSwitchingAnalytics;
/// Number of launches, kept by the application (registered default: 0).
extern std::string kApplicationLaunchCount;
/// The anonymous user identifier, an upper-case UUID string.
inline constexpr const char* kUserUUIDKey = "__user_UUID";

class ApplicationAnalyticsWrapper {
 public:
    using SerialNumberReader = std::function<std::optional<std::string>()>;

    /// Registers the three defaults. The delay is accepted and ignored: the
    /// back-end chooses its own batching delay.
    ApplicationAnalyticsWrapper(std::shared_ptr<AnalyticsProtocol> wrapper,
                                bool checkIfKnownDevMachine, double interEventDelayInSeconds = 0);

    static bool allowStatisticsCollection();
    /// False only on a listed developer machine when checkIfKnownDevMachine.
    bool doAnalyticsOnThisHost() const;
    /// False on a listed developer machine, else the stored consent.
    bool enabled() const;
    /// The stored identifier, made and stored on first use. A stored value
    /// that is not a UUID stops the program.
    static UUID getUserIdentifier();

    /// Sends the user id and an application start, whatever the consent:
    /// callers check enabled() first.
    void logApplicationStart();
    /// Forwards only with consent.
    void logScreenUsage(const std::string& screenName);
    /// Runs `work` only with consent.
    void send(const std::function<void()>& work);
    /// Asks for consent once, from the fourth launch, never on a developer
    /// machine.
    void askUserAboutStatisticsCollectionIfNeeded();

    bool checkIfKnownDevMachine() const { return checkIfKnownDevMachine_; }
    const std::shared_ptr<AnalyticsProtocol>& analytics() const { return analytics_; }

    /// Where the machine's serial number comes from (Serial::serialNumber()
    /// unless replaced, e.g. by a test or a host that knows better).
    void setSerialNumberReader(SerialNumberReader reader) {
        serialNumberReader_ = std::move(reader);
    }

    static constexpr const char* kAlertMessage = "Help us improve the app!";
    static constexpr const char* kAlertInformativeText =
        "We'd like to collect some non-personal information about what parts of the app you "
        "use.\n\nIt does not contain the contents of your recordings nor any personal "
        "information.\n\nIt can be disabled at any time in the application preferences.";
    static constexpr const char* kAlertIconName = "StatisticsCollection";
    static constexpr const char* kAcceptButton = "Sounds good";
    static constexpr const char* kDeclineButton = "No thanks";

 private:
    bool onKnownDevMachine() const;
    AnalyticsProtocol& backEnd() const;

    std::shared_ptr<AnalyticsProtocol> analytics_;
    bool checkIfKnownDevMachine_;
    SerialNumberReader serialNumberReader_;
};

}  // namespace zdr
