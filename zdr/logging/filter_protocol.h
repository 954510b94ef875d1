// FilterProtocol: a per-logger veto on messages, asked for every message that
// passed the logger's level check.
//
// Threads: shouldExclude() is called on whichever thread logs, possibly on
// several at once, so implementations must be thread-safe and must not log.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include "zdr/logging/log_level.h"

namespace zdr {

class FilterProtocol {
 public:
    virtual ~FilterProtocol() = default;

    /// True to drop the message. `message` equals logDetails.message.
    virtual bool shouldExclude(const LogDetails& logDetails, std::string_view message) const = 0;

    /// True when the decision never looks at the message text or its date.
    /// The logger then asks before it builds the message, so an excluded
    /// message costs no formatting at all.
    virtual bool decidesBeforeMessage() const { return false; }

    /// For a filter that excludes every message while one flag is false,
    /// that flag; the logger then tests it inline at the call site before
    /// anything else happens, and asks shouldExclude() only while it is true.
    /// The flag must outlive the filter.
    virtual const std::atomic<bool>* passFlag() const { return nullptr; }

    virtual std::string debugDescription() const { return "FilterProtocol"; }
};

}  // namespace zdr
