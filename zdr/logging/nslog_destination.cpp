#include "zdr/logging/nslog_destination.h"

#include "zdr/logging/internal_log.h"

namespace zdr {

NSLogDestination::NSLogDestination(std::string identifier)
    : BaseQueuedDestination(std::move(identifier)) {}

void NSLogDestination::write(std::string_view message) {
    // NSLog takes the line as its format string. Only "%%" can be honoured
    // without arguments; the other directives stay as text rather than
    // reading arguments that were never passed.
    if (message.find("%%") == std::string_view::npos) {
        detail::nsLog(message);
        return;
    }
    std::string text;
    text.reserve(message.size());
    for (std::size_t i = 0; i < message.size(); ++i) {
        text.push_back(message[i]);
        if (message[i] == '%' && i + 1 < message.size() && message[i + 1] == '%') ++i;
    }
    detail::nsLog(text);
}

}  // namespace zdr
