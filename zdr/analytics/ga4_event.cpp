#include "zdr/analytics/ga4_event.h"

#include <nlohmann/json.hpp>

#include "zdr/runtime/bundle.h"
#include "zdr/timing/detail/fatal_error.h"

namespace zdr {

std::string GA4Event::applicationName() {
    const Bundle& bundle = Bundle::main();
    if (auto display = bundle.displayName()) return *display;
    if (auto name = bundle.name()) return *name;
    detail::fatalError("The main bundle has no \"CFBundleName\": analytics cannot name the app");
}

std::string GA4Event::applicationVersion() {
    return Bundle::main().shortVersion().value_or("unknown");
}

GA4Event GA4Event::pageView(const std::string& windowName) {
    return GA4Event("page_view",
                    {{"page_title", windowName},
                     {"page_location", "https://" + applicationName() + "/" + windowName + "/"}},
                    true);
}

GA4Event GA4Event::selectContent(const std::string& contentType, const std::string& itemId) {
    return GA4Event("select_content", {{"content_type", contentType}, {"item_id", itemId}}, true);
}

std::vector<GA4QueryItem> GA4Event::queryParameters() const {
    std::vector<GA4QueryItem> items;
    if (!contributesQueryParams()) return items;
    items.emplace_back("en", "page_view");
    if (auto it = params.find("page_location"); it != params.end()) {
        items.emplace_back("dl", it->second);
    }
    if (auto it = params.find("page_title"); it != params.end()) {
        items.emplace_back("dt", it->second);
    }
    return items;
}

std::string GA4Event::asGAPIBodyString() const {
    std::string out = "en=" + name;
    for (const auto& [key, value] : params) {
        out += "&epn.";
        out += key;
        out += '=';
        out += value;
    }
    return out;
}

std::string GA4Event::jsonString() const {
    nlohmann::ordered_json j;
    j["name"] = name;
    j["params"] = nlohmann::ordered_json::object();
    for (const auto& [key, value] : params) j["params"][key] = value;
    j["sendInGA4Body"] = sendInGA4Body;
    return j.dump();
}

std::optional<GA4Event> GA4Event::fromJSONString(const std::string& text) {
    const auto j = nlohmann::json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object()) return std::nullopt;
    auto name = j.find("name");
    auto params = j.find("params");
    auto flag = j.find("sendInGA4Body");
    if (name == j.end() || !name->is_string() || params == j.end() || !params->is_object() ||
        flag == j.end() || !flag->is_boolean()) {
        return std::nullopt;
    }
    GA4Event event;
    event.name = name->get<std::string>();
    for (const auto& [key, value] : params->items()) {
        if (!value.is_string()) return std::nullopt;
        event.params.emplace(key, value.get<std::string>());
    }
    event.sendInGA4Body = flag->get<bool>();
    return event;
}

std::size_t GA4Event::hashValue() const {
    // Combine in field order (name, every parameter, flag), boost-style.
    std::size_t h = std::hash<std::string>{}(name);
    auto mix = [&h](std::size_t v) { h ^= v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2); };
    for (const auto& [key, value] : params) {
        mix(std::hash<std::string>{}(key));
        mix(std::hash<std::string>{}(value));
    }
    mix(sendInGA4Body ? 1U : 2U);
    return h;
}

}  // namespace zdr
