// Fuzzes the JSON form of GA4Event: any text either parses to an event whose
// own JSON form parses back to the same event, or is refused; never a crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zdr/analytics/ga4_event.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto event = zdr::GA4Event::fromJSONString(text);
    if (!event) return 0;
    const auto again = zdr::GA4Event::fromJSONString(event->jsonString());
    if (!again || !(*again == *event) || again->hashValue() != event->hashValue()) std::abort();
    (void)event->asGAPIBodyString();
    (void)event->queryParameters();
    return 0;
}
