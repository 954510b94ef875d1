// Text width: how wide a string is when drawn in a font, for laying out
// labels. The font is a font description as Pango reads it: family, style
// and size in points ("Sans 12", "DejaVu Serif Bold 9").
//
// Measuring needs a text stack (Pango, with fontconfig's fonts). It is an
// optional part of the library: built when Pango is found (CMake option
// ZDR_WITH_PANGO); without it textMeasuringAvailable() is false and every
// width is 0.
//
// Threads: any; calls are serialised on one font map (Pango's are not meant
// for use from several threads at once). The first call loads the font
// configuration and may take a moment.
#pragma once

#include <string_view>

namespace zdr {

/// True when this build measures text.
bool textMeasuringAvailable();

/// The logical width, in points, of `string` laid out on one line in the font
/// described by `usingFont` (an unknown family falls back to the closest font
/// installed). Bytes that are not valid UTF-8 are measured as replacement
/// characters. 0 for the empty string, or without a text stack.
double widthOfString(std::string_view string, std::string_view usingFont);

}  // namespace zdr
