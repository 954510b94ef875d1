// Built when the library is configured without a text stack.
#include "zdr/system/text_width.h"

namespace zdr {

bool textMeasuringAvailable() { return false; }

double widthOfString(std::string_view, std::string_view) { return 0.0; }

}  // namespace zdr
