#include <glib.h>
#include <pango/pangocairo.h>

#include <mutex>
#include <string>

#include "zdr/system/text_width.h"

namespace zdr {

namespace {

struct Measurer {
    std::mutex mutex;
    PangoFontMap* fontMap = nullptr;
    PangoContext* context = nullptr;
};

// One font map and context for the process (never freed: measuring may happen
// during exit, and fontconfig keeps its own caches for the process anyway).
Measurer& measurer() {
    static Measurer* m = [] {
        auto* result = new Measurer;
        result->fontMap = pango_cairo_font_map_new();
        if (result->fontMap != nullptr) {
            result->context = pango_font_map_create_context(result->fontMap);
        }
        return result;
    }();
    return *m;
}

}  // namespace

bool textMeasuringAvailable() { return true; }

double widthOfString(std::string_view string, std::string_view usingFont) {
    if (string.empty()) return 0.0;
    Measurer& m = measurer();
    std::lock_guard lock(m.mutex);
    if (m.context == nullptr) return 0.0;

    gchar* valid = g_utf8_make_valid(string.data(), static_cast<gssize>(string.size()));
    const std::string fontText(usingFont);
    PangoFontDescription* font = pango_font_description_from_string(fontText.c_str());
    PangoLayout* layout = pango_layout_new(m.context);
    pango_layout_set_font_description(layout, font);
    pango_layout_set_text(layout, valid, -1);
    PangoRectangle logical{};
    pango_layout_get_extents(layout, nullptr, &logical);
    g_object_unref(layout);
    pango_font_description_free(font);
    g_free(valid);
    return static_cast<double>(logical.width) / PANGO_SCALE;
}

}  // namespace zdr
