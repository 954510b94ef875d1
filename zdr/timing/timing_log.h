// The timing layer's few log lines (a throttler's "ZDRThrottler deinit", for
// one) belong to the "timing" category logger, Shared2::timing(). Logging sits
// above timing, so these go through the writer the logging layer installs
// when it starts (zdr/runtime/layer_log.h); before that they are dropped.
//
// Threads: any.
#pragma once

#include <string_view>

#include "zdr/runtime/layer_log.h"

namespace zdr::detail {

/// Levels: 1 error, 2 warning, 3 info, 4 verbose, 5 debug.
inline void timingLog(int level, std::string_view message, std::string_view function,
                      std::string_view file, long line) noexcept {
    layerLog("timing", level, message, function, file, line);
}

}  // namespace zdr::detail
