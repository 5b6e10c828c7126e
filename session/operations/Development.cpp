// Digital development.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/filters/CImgFilterSpecial.h"

#include "session/operations/internal/FilterOptions.h"

namespace korimg::session {
namespace {

enum class GammaOrder { Before, After };
enum class Drive { Plane, Brightness };
enum class BlurKind : int { Gaussian, Mean };
/// From where to where the gamma curve goes, by the library's numbers.
enum class CurveEnds : int { ZeroToBrightest, DarkestToBrightest, DarkestToWhite, BlackToBrightest };

struct DevelopmentOptions {
  PerPlane radius = 10;
  BlurKind filter = BlurKind::Gaussian;
  std::optional<double> weight;
  double background = 32, strength = 1;
  Drive drive = Drive::Plane;
  PerPlane gamma = 1;
  GammaOrder order = GammaOrder::Before;
  CurveEnds ends = CurveEnds::BlackToBrightest;
};

void Develop(Call& call, const DevelopmentOptions& options) {
  auto gamma = options.gamma.For(call.image->GetPlanes()), radii = Radii(call, options.radius);
  if (options.filter == BlurKind::Gaussian) Sigmas(call, options.radius);
  const bool hasCurve = std::any_of(gamma.begin(), gamma.end(), [](double g) { return g != 1; });
  if (hasCurve && options.strength != 1) {
    throw UsageError("digital-development: strength is for a gamma of 1; blend the result by --mask instead");
  }
  if (options.weight && options.filter == BlurKind::Gaussian) {
    throw UsageError("digital-development: weight is for filter=mean; leave it out, or give that filter");
  }
  int planes[] = {0, 1, 2};
  if (options.drive == Drive::Brightness) std::fill_n(planes, 3, 3);
  call.image->CalcMinMax();
  call.Replace<CImgFilterSpecial>([&](CImgFilterSpecial& target) {
    CVelImage* source = call.image.get();
    double background[] = {source->ToRaw(options.background, 0)};
    float min[3] = {}, range[3] = {}, a[3] = {}, b[3] = {};
    const bool after = options.order == GammaOrder::After;
    target.DigitalDvlp1(background, static_cast<int>(options.filter), radii.data(),
                        options.weight.value_or(1), gamma.data(), static_cast<int>(options.ends), source, min,
                        range, a, b, after);
    if (!hasCurve) {
      target.DigitalDvlpOnly(1, source, options.strength, planes, min, range, a, b, call.rect, kShow);
    } else if (after) {
      target.DigitalDvlpGmAftrDdp(1, gamma.data(), source, planes, min, range, a, b, call.rect, kShow);
    } else {
      target.DigitalDvlp2(1, gamma.data(), source, planes, min, range, a, b, call.rect, kShow);
    }
  });
}

}  // namespace

std::vector<Operation> DevelopmentOperations() {
  return {
      TakesRadius(
          Describe<DevelopmentOptions>(
              "digital-development", "divides each pixel by its blurred surroundings plus a background",
              "Compresses brightness as photographic emulsion does: faint nebulosity rises, and the cores of "
              "galaxies and stars keep their detail. It is for finished linear stacks of nebulae and "
              "galaxies with a flat sky: gradients and noise rise as well, and bright stars get dark rings, "
              "the larger the radius the fainter. Brightness is no measure afterwards, so do photometry "
              "before. Set levels again when it is done."),
          "of the blur: a Gaussian's sigma, or half the side of a mean's square")
          .Chooses("filter", &DevelopmentOptions::filter,
                   {{"gaussian", BlurKind::Gaussian}, {"mean", BlurKind::Mean}}, "the blur")
          .Takes("weight", &DevelopmentOptions::weight,
                 {"of a mean's neighbours against the pixel's 1; 1 when it is left out", "", 0, 1e6})
          .Takes("background", &DevelopmentOptions::background,
                 {"what is added to the blur: the lower it is, the more is compressed", "0-255", 0.001, 1e6})
          .Chooses(
              "drive", &DevelopmentOptions::drive,
              {{"plane", Drive::Plane}, {"brightness", Drive::Brightness}},
              "each plane is divided by its own blur, which brings colours nearer to grey; or by the mean "
              "of all three, which keeps hues")
          .Takes("strength", &DevelopmentOptions::strength,
                 {"share of the result against the image as it was; for a gamma of 1", "", 0, 1})
          .Takes("gamma", &DevelopmentOptions::gamma,
                 {"of a curve that brightens too: the power is 1 / gamma", "", 0.01, 100})
          .Chooses("order", &DevelopmentOptions::order,
                   {{"before", GammaOrder::Before}, {"after", GammaOrder::After}},
                   "whether the curve goes before the division or after it")
          .Chooses("level-mode", &DevelopmentOptions::ends,
                   {{"black", CurveEnds::BlackToBrightest},
                    {"zero", CurveEnds::ZeroToBrightest},
                    {"pixels", CurveEnds::DarkestToBrightest},
                    {"white", CurveEnds::DarkestToWhite}},
                   "ends of a curve before the division: black to the brightest pixel; 0 to it; darkest to "
                   "brightest; darkest to white")
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .StoresAgree(std::nullopt)
          .Example("radius=8 background=20 drive=brightness")
          .KeepsSource()
          .Runs(Develop),
  };
}

}  // namespace korimg::session
