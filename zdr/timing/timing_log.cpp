#include "zdr/timing/timing_log.h"

#include <atomic>

namespace zdr {

namespace {
std::atomic<TimingLogWriter> gWriter{nullptr};
}

void setTimingLogWriter(TimingLogWriter writer) {
    gWriter.store(writer, std::memory_order_release);
}

namespace detail {
void timingLog(int level, std::string_view message, std::string_view function,
               std::string_view file, long line) {
    if (auto writer = gWriter.load(std::memory_order_acquire)) {
        writer(level, message, function, file, line);
    }
}
}  // namespace detail

}  // namespace zdr
