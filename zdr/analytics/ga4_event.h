// GA4Event: one usage-analytics event (a name, string parameters and a flag),
// as GoogleAnalytics4 queues and sends it. A plain value: equality and hashing
// cover all three fields, and it converts to and from a JSON object whose keys
// are "name", "params", "sendInGA4Body" in that order.
//
// Threads: any; values are independent. applicationName/applicationVersion
// read Bundle::main(), which is thread-safe.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zdr {

/// One query item of the request URL, unencoded.
using GA4QueryItem = std::pair<std::string, std::string>;

struct GA4Event {
    std::string name;
    std::map<std::string, std::string> params;
    bool sendInGA4Body = true;

    GA4Event() = default;
    GA4Event(std::string eventName, std::map<std::string, std::string> eventParams,
             bool inBody = true)
        : name(std::move(eventName)), params(std::move(eventParams)), sendInGA4Body(inBody) {}

    /// "CFBundleDisplayName", else "CFBundleName" of the main bundle. A bundle
    /// without a name is broken: the program stops.
    static std::string applicationName();
    /// "CFBundleShortVersionString", else "unknown".
    static std::string applicationVersion();

    /// A "page_view" for the window: "page_title" is the name, "page_location"
    /// is "https://<app>/<window>/" (not escaped).
    static GA4Event pageView(const std::string& windowName);
    static GA4Event selectContent(const std::string& contentType, const std::string& itemId);

    /// Page views travel in the URL's query instead of the body.
    bool contributesQueryParams() const { return name == "page_view"; }
    /// "en", then "dl" and "dt" when present; empty for other events.
    std::vector<GA4QueryItem> queryParameters() const;
    /// "en=<name>" followed by "&epn.<key>=<value>" per parameter. Nothing is
    /// escaped and every parameter takes the "epn." prefix: the collector reads
    /// the batch that way, so both are kept on purpose.
    std::string asGAPIBodyString() const;

    /// The JSON object form, keys in order.
    std::string jsonString() const;
    /// The event from its JSON form; none when the text is not one.
    static std::optional<GA4Event> fromJSONString(const std::string& text);

    std::size_t hashValue() const;
    bool operator==(const GA4Event&) const = default;
};

}  // namespace zdr

template <>
struct std::hash<zdr::GA4Event> {
    std::size_t operator()(const zdr::GA4Event& event) const noexcept { return event.hashValue(); }
};
