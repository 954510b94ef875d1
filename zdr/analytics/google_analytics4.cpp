#include "zdr/analytics/google_analytics4.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "zdr/analytics/google_analytics4_test_support.h"
#include "zdr/logging/shared2.h"
#include "zdr/runtime/dispatch_queue.h"
#include "zdr/timing/dispatch_lock.h"
#include "zdr/timing/detail/fatal_error.h"

namespace zdr {
namespace {

constexpr const char* kDefaultHitURL = "https://www.google-analytics.com/g/collect";

struct State {
    // One short lock makes each read or change of the queue and the settings
    // whole. It does not change when batches form: that is still decided only
    // by the queue's length after each append, as the observer below does.
    std::mutex mutex;
    std::vector<GA4Event> queue;
    std::string api_secret;
    std::string measurement_id;
    std::string client_id;
    bool useDebugEndpoint = false;
    double interEventDelaySeconds = 0;
    long session_id = 0;
    std::string hitURL = kDefaultHitURL;
    std::shared_ptr<const GoogleAnalytics4::LogClosure> log;
    std::shared_ptr<const GoogleAnalytics4::LogClosure> debugLog;

    std::atomic<bool> haveSentFirstStart{false};
    std::atomic<long> inFlightRequests{0};
    std::atomic<double> timeoutSeconds{GoogleAnalytics4::kDefaultRequestTimeoutSeconds};
    DispatchLock requestsLock{"com.zdr.locking.ga4.requests"};
};

// Never destroyed: sends and request completions may still run while the
// process exits.
State& state() {
    static State* s = new State;
    return *s;
}

void ensureCurl() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// Query items are percent-encoded except for the unreserved characters, so
// that a value holding "&", "=" or "#" cannot split an item.
std::string percentEncode(const std::string& text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        }
    }
    return out;
}

void writeLog(const std::string& line) {
    std::shared_ptr<const GoogleAnalytics4::LogClosure> log;
    {
        std::lock_guard lock(state().mutex);
        log = state().log;
    }
    if (log && *log) (*log)(line);
}

size_t discardBody(char*, size_t size, size_t count, void*) { return size * count; }

// The request itself, on a global-queue worker: the pool grows while workers
// wait on the network, and libcurl's timeout bounds each wait, so no request
// stays in flight for ever.
void performRequest(const std::string& url, const std::string& body) {
    std::string line;
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        line = "Error: could not create an HTTP request";
    } else {
        char errorBuffer[CURL_ERROR_SIZE] = {0};
        curl_slist* headers = curl_slist_append(nullptr, "Expect:");
        const double timeout = state().timeoutSeconds.load();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout * 1000.0));
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discardBody);
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
        // A reply that is not HTTP is reported as a missing status (-1) rather
        // than as a transport failure.
        curl_easy_setopt(curl, CURLOPT_HTTP09_ALLOWED, 1L);
        const CURLcode result = curl_easy_perform(curl);
        if (result != CURLE_OK) {
            line = std::string("Error: ") + curl_easy_strerror(result);
            if (errorBuffer[0] != '\0') line += std::string(" (") + errorBuffer + ")";
        } else {
            long status = 0;
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
            if (status <= 0) status = -1;
            line =
                "Event: " + url + ", body: " + body + " returned code: " + std::to_string(status);
        }
        curl_easy_cleanup(curl);
        curl_slist_free_all(headers);
    }
    if (state().inFlightRequests.fetch_sub(1) == std::numeric_limits<long>::min()) {
        detail::fatalError("GoogleAnalytics4: in-flight request count overflowed");
    }
    if (!line.starts_with("Event: ")) Shared2::http()->error("GA4 request failed: {}", line);
    writeLog(line);
}

}  // namespace

// Runs after every append, knowing whether the queue was empty before it and
// how long it is now.
void GoogleAnalytics4::_queueObserver(bool previousWasEmpty, std::size_t countNow) {
    if (previousWasEmpty) {
        // The first event of a burst opens the batching window. Sleeping on a
        // worker rather than arming a timer is deliberate: the pool grows
        // while its workers sleep, so nothing else waits for it.
        DispatchQueue::global().async([] {
            double delay = 0;
            {
                std::lock_guard lock(state().mutex);
                delay = state().interEventDelaySeconds;
            }
            if (delay > 0) std::this_thread::sleep_for(std::chrono::duration<double>(delay));
            if (!GoogleAnalytics4::isEmpty()) GoogleAnalytics4::_sendQueuedParameters();
        });
    } else if (countNow >= kImmediateSendCount) {
        DispatchQueue::global().async([] {
            if (!GoogleAnalytics4::isEmpty()) GoogleAnalytics4::_sendQueuedParameters();
        });
    }
}

void GoogleAnalytics4::setup(const std::string& api_secret, const std::string& measurement_id,
                             const std::string& client_id, bool useDebugEndpoint,
                             double interEventDelaySeconds) {
    std::random_device random;
    std::uniform_int_distribution<long> draw(0, 2998766);
    const long session = draw(random) + 1234;
    std::lock_guard lock(state().mutex);
    state().api_secret = api_secret;
    state().measurement_id = measurement_id;
    state().client_id = client_id;
    state().useDebugEndpoint = useDebugEndpoint;
    state().interEventDelaySeconds = interEventDelaySeconds;
    state().session_id = session;
}

void GoogleAnalytics4::track(const GA4Event& event) { _append(event); }

void GoogleAnalytics4::track(const std::vector<GA4Event>& events) {
    for (const GA4Event& event : events) _append(event);
}

void GoogleAnalytics4::_append(const GA4Event& event) {
    bool previousWasEmpty = false;
    std::size_t countNow = 0;
    {
        std::lock_guard lock(state().mutex);
        auto& queue = state().queue;
        if (std::find(queue.begin(), queue.end(), event) != queue.end()) return;
        previousWasEmpty = queue.empty();
        queue.push_back(event);
        countNow = queue.size();
    }
    _queueObserver(previousWasEmpty, countNow);
}

bool GoogleAnalytics4::isEmpty() {
    std::lock_guard lock(state().mutex);
    return state().queue.empty();
}

std::size_t GoogleAnalytics4::eventCount() {
    std::lock_guard lock(state().mutex);
    return state().queue.size();
}

bool GoogleAnalytics4::isDrained() { return state().inFlightRequests.load() < 1; }
long GoogleAnalytics4::inFlightRequests() { return state().inFlightRequests.load(); }

std::vector<GA4Event> GoogleAnalytics4::queuedCustomEvents() {
    std::lock_guard lock(state().mutex);
    return state().queue;
}

void GoogleAnalytics4::setLog(LogClosure log) {
    auto shared = log ? std::make_shared<const LogClosure>(std::move(log)) : nullptr;
    std::lock_guard lock(state().mutex);
    state().log = std::move(shared);
}

GoogleAnalytics4::LogClosure GoogleAnalytics4::log() {
    std::lock_guard lock(state().mutex);
    return state().log ? *state().log : LogClosure{};
}

void GoogleAnalytics4::setDebugLog(LogClosure log) {
    auto shared = log ? std::make_shared<const LogClosure>(std::move(log)) : nullptr;
    std::lock_guard lock(state().mutex);
    state().debugLog = std::move(shared);
}

GoogleAnalytics4::LogClosure GoogleAnalytics4::debugLog() {
    std::lock_guard lock(state().mutex);
    return state().debugLog ? *state().debugLog : LogClosure{};
}

std::string GoogleAnalytics4::hitURL() {
    std::lock_guard lock(state().mutex);
    return state().hitURL;
}

bool GoogleAnalytics4::setCollectionEndpoint(const std::string& baseURL) {
    ensureCurl();
    CURLU* url = curl_url();
    if (url == nullptr) return false;
    std::string target;
    bool ok = curl_url_set(url, CURLUPART_URL, baseURL.c_str(), 0) == CURLUE_OK;
    char* scheme = nullptr;
    char* host = nullptr;
    char* port = nullptr;
    if (ok) ok = curl_url_get(url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK;
    if (ok) ok = curl_url_get(url, CURLUPART_HOST, &host, 0) == CURLUE_OK;
    if (ok) {
        const std::string s = scheme;
        ok = s == "http" || s == "https";
        target = s + "://" + host;
        if (curl_url_get(url, CURLUPART_PORT, &port, 0) == CURLUE_OK && port != nullptr) {
            target += std::string(":") + port;
        }
        target += "/g/collect";
    }
    curl_free(scheme);
    curl_free(host);
    curl_free(port);
    curl_url_cleanup(url);
    if (!ok) {
        Shared2::analytics()->error("Not a usable analytics endpoint: {}", baseURL);
        return false;
    }
    std::lock_guard lock(state().mutex);
    state().hitURL = target;
    return true;
}

void GoogleAnalytics4::setRequestTimeoutSeconds(double seconds) {
    state().timeoutSeconds.store(seconds > 0 ? seconds : kDefaultRequestTimeoutSeconds);
}
double GoogleAnalytics4::requestTimeoutSeconds() { return state().timeoutSeconds.load(); }

std::string GoogleAnalytics4::api_secret() {
    std::lock_guard lock(state().mutex);
    return state().api_secret;
}
std::string GoogleAnalytics4::measurement_id() {
    std::lock_guard lock(state().mutex);
    return state().measurement_id;
}
std::string GoogleAnalytics4::client_id() {
    std::lock_guard lock(state().mutex);
    return state().client_id;
}
bool GoogleAnalytics4::useDebugEndpoint() {
    std::lock_guard lock(state().mutex);
    return state().useDebugEndpoint;
}
bool GoogleAnalytics4::haveSentFirstStart() { return state().haveSentFirstStart.load(); }
double GoogleAnalytics4::interEventDelaySeconds() {
    std::lock_guard lock(state().mutex);
    return state().interEventDelaySeconds;
}
long GoogleAnalytics4::session_id() {
    std::lock_guard lock(state().mutex);
    return state().session_id;
}

void GoogleAnalytics4::_sendQueuedParameters() {
    if (isEmpty()) return;
    ensureCurl();
    std::string base;
    std::vector<GA4QueryItem> common;
    {
        std::lock_guard lock(state().mutex);
        base = state().hitURL;
        common = {{"v", "2"},
                  {"tid", state().measurement_id},
                  {"cid", state().client_id},
                  {"seg", "1"},
                  {"sid", std::to_string(state().session_id)}};
    }
    // Request building runs in submission order as a barrier on the lock's
    // queue; the network itself runs elsewhere (performRequest).
    state().requestsLock.asyncWrite([base = std::move(base), common = std::move(common)] {
        std::vector<GA4Event> batch;
        {
            std::lock_guard lock(state().mutex);
            batch.swap(state().queue);
        }
        // A send scheduled by both the delay and the 15-event trigger finds
        // the queue already taken: no empty request, and the first-start
        // markers stay for the request that carries events.
        if (batch.empty()) return;
        auto query = std::make_shared<std::vector<GA4QueryItem>>(common);
        // Marked when the request is built, not when it succeeds: a failed
        // first request does not send the markers again.
        if (!state().haveSentFirstStart.exchange(true)) {
            query->emplace_back("_ss", "1");
            query->emplace_back("_fv", "1");
        }
        std::string body;
        bool first = true;
        for (const GA4Event& event : batch) {
            if (event.contributesQueryParams()) {
                for (auto& item : event.queryParameters()) query->push_back(std::move(item));
                continue;
            }
            if (!first) body += "\r\n";
            body += event.asGAPIBodyString();
            first = false;
        }
        std::string url = base;
        char separator = '?';
        for (const auto& [name, value] : *query) {
            url += separator;
            url += percentEncode(name);
            url += '=';
            url += percentEncode(value);
            separator = '&';
        }
        if (state().inFlightRequests.fetch_add(1) == std::numeric_limits<long>::max()) {
            detail::fatalError("GoogleAnalytics4: in-flight request count overflowed");
        }
        DispatchQueue::global().async(
            [url = std::move(url), body = std::move(body)] { performRequest(url, body); });
    });
}

namespace detail {

void resetGoogleAnalytics4ForTesting() {
    std::lock_guard lock(state().mutex);
    state().queue.clear();
    state().log.reset();
    state().debugLog.reset();
    state().hitURL = kDefaultHitURL;
    state().haveSentFirstStart.store(false);
    state().timeoutSeconds.store(GoogleAnalytics4::kDefaultRequestTimeoutSeconds);
}

void setGoogleAnalytics4QueueForTesting(const std::vector<GA4Event>& queue) {
    std::lock_guard lock(state().mutex);
    state().queue.assign(queue.begin(), queue.end());
}

}  // namespace detail
}  // namespace zdr
