#include "korimg/platform/Text.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <pango/pangocairo.h>

#include "korimg/platform/Debug.h"

namespace {

struct Release {
  void operator()(PangoContext* p) const { g_object_unref(p); }
  void operator()(PangoLayout* p) const { g_object_unref(p); }
  void operator()(PangoFontDescription* p) const { pango_font_description_free(p); }
  void operator()(PangoFontMetrics* p) const { pango_font_metrics_unref(p); }
  void operator()(PangoAttrList* p) const { pango_attr_list_unref(p); }
  void operator()(cairo_font_options_t* p) const { cairo_font_options_destroy(p); }
  void operator()(cairo_surface_t* p) const { cairo_surface_destroy(p); }
  void operator()(cairo_t* p) const { cairo_destroy(p); }
};
template <class T>
using Owned = std::unique_ptr<T, Release>;

Owned<PangoContext> MakeContext() {
  Owned<PangoContext> context(pango_font_map_create_context(pango_cairo_font_map_get_default()));
  const Owned<cairo_font_options_t> options(cairo_font_options_create());
  cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_NONE);
  cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_ON);
  pango_cairo_context_set_font_options(context.get(), options.get());
  return context;
}

Owned<PangoFontMetrics> Metrics(PangoContext* context, PangoFontDescription* description) {
  return Owned<PangoFontMetrics>(pango_context_get_metrics(context, description, nullptr));
}

Owned<PangoFontDescription> Describe(PangoContext* context, const LOGFONTW& font) {
  constexpr int kDefaultHeight = 16, kNormal = 400;
  Owned<PangoFontDescription> description(pango_font_description_new());
  const std::wstring face(font.lfFaceName, std::find(font.lfFaceName, std::end(font.lfFaceName), L'\0'));
  pango_font_description_set_family(description.get(), face.empty() ? "Sans" : korimg::Narrow(face).c_str());
  pango_font_description_set_style(description.get(),
                                   font.lfItalic ? PANGO_STYLE_ITALIC : PANGO_STYLE_NORMAL);
  pango_font_description_set_weight(description.get(),
                                    static_cast<PangoWeight>(font.lfWeight ? font.lfWeight : kNormal));
  const double height = font.lfHeight ? std::abs(static_cast<double>(font.lfHeight)) : kDefaultHeight;
  pango_font_description_set_absolute_size(description.get(), height * PANGO_SCALE);
  if (font.lfHeight < 0) return description;
  // The square of the letters whose line is as high as was asked for.
  const auto metrics = Metrics(context, description.get());
  const int line =
      pango_font_metrics_get_ascent(metrics.get()) + pango_font_metrics_get_descent(metrics.get());
  if (line > 0) {
    pango_font_description_set_absolute_size(description.get(),
                                             height * height * PANGO_SCALE * PANGO_SCALE / line);
  }
  return description;
}

Owned<PangoLayout> LayOut(PangoContext* context, const PangoFontDescription* description, const CString& text,
                          const LOGFONTW& font) {
  Owned<PangoLayout> layout(pango_layout_new(context));
  const std::string utf8 = korimg::Narrow(std::wstring(text));
  pango_layout_set_single_paragraph_mode(layout.get(), true);
  pango_layout_set_text(layout.get(), utf8.data(), static_cast<int>(utf8.size()));
  pango_layout_set_font_description(layout.get(), description);
  const Owned<PangoAttrList> lines(pango_attr_list_new());
  if (font.lfUnderline) {
    pango_attr_list_insert(lines.get(), pango_attr_underline_new(PANGO_UNDERLINE_SINGLE));
  }
  if (font.lfStrikeOut) pango_attr_list_insert(lines.get(), pango_attr_strikethrough_new(true));
  pango_layout_set_attributes(layout.get(), lines.get());
  return layout;
}

}  // namespace

std::optional<korimg::TextPixels> korimg::DrawTextPixels(const CString& text, const LOGFONTW& font) {
  constexpr int kLargest = 32767;
  if (std::abs(static_cast<long long>(font.lfHeight)) > kLargest || font.lfWidth > kLargest)
    return std::nullopt;
  const auto context = MakeContext();
  const auto description = Describe(context.get(), font);
  const auto layout = LayOut(context.get(), description.get(), text, font);

  double stretch = 1;
  if (font.lfWidth > 0) {
    const auto metrics = Metrics(context.get(), description.get());
    const int mean = pango_font_metrics_get_approximate_char_width(metrics.get());
    if (mean > 0) stretch = 1.0 * font.lfWidth * PANGO_SCALE / mean;
  }
  int across = 0, down = 0;
  pango_layout_get_pixel_size(layout.get(), &across, &down);
  if (across * stretch > kLargest || down > kLargest) return std::nullopt;
  TextPixels pixels{static_cast<int>(across * stretch + 0.5), down, {}};
  if (pixels.width < 1 || pixels.height < 1) return std::nullopt;

  const Owned<cairo_surface_t> surface(
      cairo_image_surface_create(CAIRO_FORMAT_A8, pixels.width, pixels.height));
  const Owned<cairo_t> cairo(cairo_create(surface.get()));
  cairo_set_antialias(cairo.get(), CAIRO_ANTIALIAS_NONE);
  cairo_scale(cairo.get(), stretch, 1);
  pango_cairo_show_layout(cairo.get(), layout.get());
  cairo_surface_flush(surface.get());
  if (cairo_status(cairo.get()) != CAIRO_STATUS_SUCCESS) return std::nullopt;
  const unsigned char* data = cairo_image_surface_get_data(surface.get());
  const int stride = cairo_image_surface_get_stride(surface.get());
  for (int y = 0; y < pixels.height; ++y) {
    for (int x = 0; x < pixels.width; ++x) {
      pixels.covered.push_back(data[1LL * y * stride + x] != 0);
    }
  }
  return pixels;
}
