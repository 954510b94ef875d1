// GoogleAnalytics4: the process-wide client of the GA4 measurement protocol in
// its batched "collect" form. Callers hand it GA4Event values; it drops an
// event equal to one already waiting, waits interEventDelaySeconds after the
// first event of a burst so that events arriving together travel together
// (or sends at once when 15 are waiting), and posts the whole queue as one
// HTTP request (libcurl) to "<scheme>://<host>[:port]/g/collect". Page views
// travel in the URL's query, every other event as one body line.
//
// Nothing is retried or persisted: a failed request is reported through log()
// and its events are gone.
//
// Threads: every member may be called from any thread; track() never waits
// for the network. The delayed send sleeps on a global-queue worker; requests
// are built in order on a private lock's queue and performed on global-queue
// workers, where log() is called when each one finishes.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "zdr/analytics/ga4_event.h"

namespace zdr {

class GoogleAnalytics4 {
 public:
    using LogClosure = std::function<void(const std::string&)>;

    /// Stores the identifiers and the batching delay and draws a new session
    /// id in 1234...3000000. The queue and the first-start markers are kept.
    static void setup(const std::string& api_secret, const std::string& measurement_id,
                      const std::string& client_id, bool useDebugEndpoint,
                      double interEventDelaySeconds);

    static void track(const GA4Event& event);
    /// Appends each event unless an equal one is already waiting.
    static void track(const std::vector<GA4Event>& events);

    static bool isEmpty();
    static std::size_t eventCount();
    /// No request is outstanding (events may still wait in the queue).
    static bool isDrained();
    static long inFlightRequests();
    static std::vector<GA4Event> queuedCustomEvents();

    /// One line per finished request: "Event: <url>, body: <body> returned
    /// code: <status>" or "Error: <description>".
    static void setLog(LogClosure log);
    static LogClosure log();
    /// A sink kept for callers; the client writes nothing to it.
    static void setDebugLog(LogClosure log);
    static LogClosure debugLog();

    /// The request target, "https://www.google-analytics.com/g/collect" until
    /// the application points it elsewhere.
    static std::string hitURL();
    /// Takes scheme, host and port from `baseURL` ("http://127.0.0.1:8080");
    /// the path is always "/g/collect". False (target unchanged) when the URL
    /// cannot be parsed or is not http or https.
    static bool setCollectionEndpoint(const std::string& baseURL);

    /// How long one request may take before it is abandoned: 20 seconds.
    /// Tests shorten it to see the timeout without waiting that long.
    static void setRequestTimeoutSeconds(double seconds);
    static double requestTimeoutSeconds();

    static std::string api_secret();
    static std::string measurement_id();
    static std::string client_id();
    static bool useDebugEndpoint();
    static bool haveSentFirstStart();
    static double interEventDelaySeconds();
    static long session_id();

    /// The send trigger: a queue this long goes out at once.
    static constexpr std::size_t kImmediateSendCount = 15;
    static constexpr double kDefaultRequestTimeoutSeconds = 20.0;

 private:
    static void _sendQueuedParameters();
    // One event: dropped when an equal one waits, else appended and observed.
    static void _append(const GA4Event& event);
    // Runs after every append, knowing whether the queue was empty before it
    // and how long it is now.
    static void _queueObserver(bool previousWasEmpty, std::size_t countNow);
};

}  // namespace zdr
