#include "zdr/system/geometry_types.h"

#include <fmt/format.h>

namespace zdr {

namespace {

// "-0" reads oddly in a frame; every other value is written as the shortest
// text that reads back the same.
double tidy(double v) { return v == 0 ? 0.0 : v; }

}  // namespace

std::string Rect::description() const {
    return fmt::format("{{{{{}, {}}}, {{{}, {}}}}}", tidy(origin.x), tidy(origin.y),
                       tidy(size.width), tidy(size.height));
}

}  // namespace zdr
