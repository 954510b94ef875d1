// Log lines of the layers beneath logging. The runtime (queues, the thread
// pool, timers, notifications, user defaults) and timing layers have a few
// things worth reporting (work that threw, a settings file moved aside, a
// worker thread that could not start), but logging is built on top of them
// (its logger cache is guarded by timing's locks), so they cannot call it.
// The logging layer installs a writer here when it starts (Logging::shared(),
// which every logger, every category switch and ZDR_LOG go through), and the
// line then reaches the named category logger ("general", "timing"), silent
// until the host switches that category on. Until then nobody can have
// switched a category on, and the line is dropped: the library never writes
// to standard error on its own.
//
// Threads: any. The writer is installed once, before or while lines are sent;
// it must not call back into the layer that is logging while holding its locks.
#pragma once

#include <string_view>

namespace zdr {

/// Levels as the C entry points number them: 1 error, 2 warning, 3 info,
/// 4 verbose, 5 debug. `category` is a category logger's identifier.
using LayerLogWriter = void (*)(std::string_view category, int level, std::string_view message,
                                std::string_view function, std::string_view file, long line);

/// Installs (or, with nullptr, removes) the writer.
void setLayerLogWriter(LayerLogWriter writer);

namespace detail {
/// Writes one line through the installed writer, if any. Never throws.
void layerLog(std::string_view category, int level, std::string_view message,
              std::string_view function, std::string_view file, long line) noexcept;
}  // namespace detail

}  // namespace zdr
