// The timing layer's few log lines (a throttler's "ZDRThrottler deinit", for
// one) belong to the "timing" category logger, Shared2::timing(). Logging sits
// above timing (its logger cache is guarded by timing's locks), so timing
// cannot call it directly: the logging layer installs a writer here when it
// starts (Logging::shared(), which every logger and every switch goes
// through). Until then there is nobody who could have switched the category
// on, and the line is dropped.
//
// Threads: any. The writer is installed once, before or while lines are sent.
#pragma once

#include <string_view>

namespace zdr {

/// Levels as the C entry points number them: 1 error, 2 warning, 3 info,
/// 4 verbose, 5 debug.
using TimingLogWriter = void (*)(int level, std::string_view message, std::string_view function,
                                 std::string_view file, long line);

/// Installs (or, with nullptr, removes) the writer of the timing category.
void setTimingLogWriter(TimingLogWriter writer);

namespace detail {
/// Writes one line through the installed writer, if any.
void timingLog(int level, std::string_view message, std::string_view function,
               std::string_view file, long line);
}  // namespace detail

}  // namespace zdr
