#include "zdr/logging/nslog_destination.h"

#include "zdr/logging/detail/internal_log.h"
#include "zdr/logging/detail/printf_format.h"

namespace zdr {

NSLogDestination::NSLogDestination(std::string identifier)
    : BaseQueuedDestination(std::move(identifier)) {
    pinOption(kDate, false);  // the NSLog-style prefix carries its own date
}

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
    detail::appendPrintfWithoutArguments(text, std::string(message).c_str());
    detail::nsLog(text);
}

}  // namespace zdr
