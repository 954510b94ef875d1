#include "zdr/runtime/layer_log.h"

#include <atomic>

namespace zdr {

namespace {
std::atomic<LayerLogWriter> gWriter{nullptr};
}

void setLayerLogWriter(LayerLogWriter writer) { gWriter.store(writer, std::memory_order_release); }

namespace detail {
void layerLog(std::string_view category, int level, std::string_view message,
              std::string_view function, std::string_view file, long line) noexcept {
    auto writer = gWriter.load(std::memory_order_acquire);
    if (writer == nullptr) return;
    // A report about a failure must not become a failure of its own.
    try {
        writer(category, level, message, function, file, line);
    } catch (...) {
    }
}
}  // namespace detail

}  // namespace zdr
