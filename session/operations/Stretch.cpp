// Stretches of linear images, and the balance of their colours.
#include <algorithm>
#include <array>
#include <cmath>

#include <fmt/format.h>

#include "korimg/colour/CImgAutoColor.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/levels/CImgAutoStretch.h"
#include "korimg/levels/CImgHyperbolic.h"
#include "korimg/levels/CImgMidtones.h"

#include "session/operations/Describe.h"
#include "session/picture/Images.h"

namespace korimg::session {
namespace {

void CheckColour(const Call& call) {
  if (!call.image->IsColor()) {
    throw UsageError(call.Name() + ": the image has one plane, and no colours to bring together");
  }
}

struct AutoColourOptions {
  std::optional<PerPlane> filter;
  std::optional<double> offset;
};

CImgAutoColor::Settings SettingsOf(const std::optional<PerPlane>& filter, std::optional<double> offset) {
  CImgAutoColor::Settings settings = CImgAutoColor::Settings::Read();
  for (int p = 0; filter && p < 3; ++p) {
    settings.scale[p] = (*filter)[p];
  }
  settings.offset = offset.value_or(settings.offset);
  return settings;
}

/// Pixels at the edges that hold some that are no numbers, such as a stack has where frames did not reach: up
/// to an eighth of the shorter side, beyond which they are no edge.
int BlankMargin(CVelImage& image) {
  const int width = image.GetWidth(), height = image.GetHeight(), most = std::min(width, height) / 8;
  const auto deepest = MapLines(0, height, [&](int y) {
    int margin = 0;
    for (int p = 0; p < image.GetPlanes(); ++p) {
      const float* line = image.GetLine(0, y, p);
      for (int x = 0; x < width; ++x) {
        const int depth = std::min({x, y, width - 1 - x, height - 1 - y}) + 1;
        if (depth > margin && depth <= most && !std::isfinite(line[x])) margin = depth;
      }
    }
    return margin;
  });
  return deepest.empty() ? 0 : *std::max_element(deepest.begin(), deepest.end());
}

struct AutoStretchOptions : AutoColourOptions {
  std::optional<int> margin;
  std::optional<CRect> sky;
  bool link = true;
  std::optional<PerPlane> bias;
};

void AutoStretch(Call& call, const AutoStretchOptions& options) {
  CheckColour(call);
  CVelImage& image = *call.image;
  CImgAutoColor::Settings settings = SettingsOf(options.filter, options.offset);
  double scale[3], background[3], spread[3];
  image.SetProgressHandle(call.Window());
  const int margin = options.margin ? *options.margin : BlankMargin(image);
  if (!CImgAutoStretch::CalcAutoStretchParam(&image, margin, !options.sky, options.sky.value_or(CRect()),
                                             settings.scale, scale, background, spread, kShow)) {
    throw UsageError(call.Name() + (options.sky
                                        ? ": nothing is left of the sky within the margin"
                                        : ": there is no clean sky; give auto-stretch the sky= to go by"));
  }
  if (!std::all_of(spread, spread + 3, [](double s) { return std::isfinite(s); })) {
    throw UsageError(call.Name() +
                     ": the image has pixels that are no numbers; give auto-stretch a margin= without them");
  }
  std::vector<double> bias(3, settings.offset * 2 * spread[0] / 100);
  if (options.bias) bias = options.bias->For(3);
  call.Replace<CImgAutoStretch>([&](CImgAutoStretch& target) {
    target.DoStretch(&image, options.link, scale, background, spread, bias.data(), call.rect);
    CImgAutoStretch::AutoStretchAdjustLevel(&target, &image, scale, background, spread);
  });
}

void AutoColour(Call& call, const AutoColourOptions& options) {
  AutoStretch(call, {options});
}

struct StretchOptions {
  std::optional<PerPlane> shadow, midtone, highlight;
  bool link = true, inverse = false;
};

/// Moves white up to the brightest pixel, by one factor for all planes, so that nothing is cut.
void WidenLevels(CVelImage& image) {
  double factor = 1;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const double max = FiniteExtremes(image, p).second, range = image.GetLevelRange(p);
    if (range > 0) factor = std::max(factor, (max - image.GetLevelMin(p)) / range);
  }
  for (int p = 0; p < image.GetPlanes(); ++p) {
    image.SetLevelMax(p, image.GetLevelMin(p) + image.GetLevelRange(p) * factor);
  }
}

void Stretch(Call& call, const StretchOptions& options) {
  const bool given = options.shadow || options.midtone || options.highlight;
  if (options.inverse && !given) {
    throw UsageError("stretch: the inverse needs the shadow, midtone and highlight of what it undoes");
  }
  std::array<CImgMidtones::Parameters, 3> parameters;
  if (!given) {
    WidenLevels(*call.image);
    parameters = CImgMidtones::Measure(*call.image, options.link);
  }
  for (int p = 0; p < 3; ++p) {
    auto& [shadow, midtone, highlight] = parameters[p];
    if (options.shadow) shadow = (*options.shadow)[p];
    if (options.midtone) midtone = (*options.midtone)[p];
    if (options.highlight) highlight = (*options.highlight)[p];
    if (!(shadow < highlight)) {
      throw UsageError(
          fmt::format("stretch: the shadow {:g} is not below the highlight {:g}", shadow, highlight));
    }
  }
  call.Replace<CImgMidtones>([&](CImgMidtones& target) {
    return target.Do(parameters.data(), options.inverse, call.image.get(), call.rect, kShow);
  });
}

struct GhsOptions {
  PerPlane amount = 2, shape = 1, symmetry = 0, shadows = 0, highlights = 1;
  bool inverse = false;
};

void Ghs(Call& call, const GhsOptions& options) {
  CImgHyperbolic::Parameters parameters[3];
  for (int p = 0; p < 3; ++p) {
    parameters[p] = {options.amount[p], options.shape[p], options.symmetry[p], options.shadows[p],
                     options.highlights[p]};
    const auto& [amount, shape, symmetry, shadows, highlights] = parameters[p];
    if (!(shadows <= symmetry && symmetry <= highlights)) {
      throw UsageError(fmt::format("ghs: shadows {:g}, symmetry {:g} and highlights {:g} must ascend",
                                   shadows, symmetry, highlights));
    }
  }
  call.Replace<CImgHyperbolic>([&](CImgHyperbolic& target) {
    return target.Do(parameters, options.inverse, call.image.get(), call.rect, kShow);
  });
}

}  // namespace

std::vector<Operation> StretchOperations() {
  return {
      Describe<AutoColourOptions>(
          "auto-colour", "makes the sky grey and balances the colours on it, by a clean piece of sky",
          "Takes the colour cast of the sky and of the camera's filters off a stack: all skies come to that "
          "of "
          "the first plane, and all planes spread as far as the widest. It finds the sky by itself; nebulae "
          "that fill the frame leave none. Levels follow the first plane.")
          .Takes("filter", &AutoColourOptions::filter,
                 {"factors of the planes' distances to the sky; by the settings, 1", "", 0, 1e6})
          .Takes("offset", &AutoColourOptions::offset,
                 {"added to all planes; by the settings, 0", "% of twice the first plane's deviation", -1e6,
                  1e6})
          .Header(HeaderEffect::DropsCounts)
          .Example("offset=1")
          .Runs(AutoColour),
      Describe<AutoStretchOptions>(
          "auto-stretch", "brings the planes of a colour image to one sky and one spread, as measured",
          "The same as auto-colour with its choices open: another piece of sky, a margin for the ragged "
          "edges "
          "of a stack, planes that keep their own skies. Levels follow the first plane.")
          .Takes("margin", &AutoStretchOptions::margin,
                 {"edges that are not measured; by default those that hold blank pixels", "pixels", 0, 1e6})
          .Takes("sky", &AutoStretchOptions::sky, {"the sky to go by; by default it is found", "pixels"})
          .Takes("link", &AutoStretchOptions::link,
                 {"1: all skies come to that of the first plane; 0: each stays"})
          .Takes("filter", &AutoStretchOptions::filter,
                 {"factors of the planes' distances to the sky; by the settings, 1", "", 0, 1e6})
          .Takes("offset", &AutoStretchOptions::offset,
                 {"added to all planes; by the settings, 0", "% of twice the first plane's deviation", -1e6,
                  1e6})
          .Takes("bias", &AutoStretchOptions::bias, {"added in place of the offset", "raw", -1e30, 1e30})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("margin=2 sky=4,4,40,30 filter=1,1.1,0.9")
          .KeepsSource()
          .Runs(AutoStretch),
      Describe<GhsOptions>(
          "ghs", "a generalised hyperbolic stretch: lifts the tones about one point, and spares others",
          "Stretches a linear stack in steps, each where contrast is wanted: put the symmetry on the tones "
          "of a "
          "faint nebula, and protect the sky below and the stars above. Nothing is clipped, and inverse=1 "
          "with "
          "the same values undoes it as far as the curve was not flat. Set the levels first: shares are of "
          "black "
          "to white.")
          .Takes("amount", &GhsOptions::amount,
                 {"how steep it becomes: ln(D + 1), 0 changes nothing", "", 0, 15})
          .Takes("shape", &GhsOptions::shape,
                 {"how it eases off from there: -1 logarithmic, 0 exponential, 1 harmonic, more is local", "",
                  -15, 15})
          .Takes("symmetry", &GhsOptions::symmetry, {"the tone about which it lifts", "0-1", 0, 1})
          .Takes("shadows", &GhsOptions::shadows, {"below it the curve is straight", "0-1", 0, 1})
          .Takes("highlights", &GhsOptions::highlights, {"above it the curve is straight", "0-1", 0, 1})
          .Takes("inverse", &GhsOptions::inverse, {"1: undoes the stretch"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("amount=3 shape=2 symmetry=0.2 highlights=0.9")
          .KeepsSource()
          .Runs(Ghs),
      Describe<StretchOptions>("stretch",
                               "a stretch by midtones: what is faint comes into sight, by itself or as told",
                               "The shortest way from a linear stack to a picture. Without values it "
                               "measures the sky, puts black a little below it, the sky itself at a quarter "
                               "and white at the brightest pixel; with values it takes those, as shares of "
                               "the levels, and what is not given is 0, 0.5 and 1. Measure before, not "
                               "after: brightness is no longer proportional to light.")
          .Takes("shadow", &StretchOptions::shadow,
                 {"becomes black, a share of the levels", "0-1", -1e6, 1e6})
          .Takes("midtone", &StretchOptions::midtone,
                 {"becomes medium grey, a share of shadow to highlight", "0-1", 1e-9, 1 - 1e-9})
          .Takes("highlight", &StretchOptions::highlight,
                 {"becomes white, a share of the levels", "0-1", -1e6, 1e6})
          .Takes("link", &StretchOptions::link,
                 {"as measured: 1 one stretch for all planes, which keeps colours; 0 one for each"})
          .Takes("inverse", &StretchOptions::inverse, {"1: undoes the stretch of the values given"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("link=0")
          .KeepsSource()
          .Runs(Stretch),
  };
}

}  // namespace korimg::session
