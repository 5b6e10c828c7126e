#include "korimg/measurement/CPlaceMatcher.h"

#include <algorithm>
#include <cmath>

#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/geometry/CImgSoftBinning.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/measurement/CImgLight.h"
#include "korimg/measurement/internal/RigidFit.h"

using namespace korimg;

namespace {

/// Longest side of what the whole range is searched in. Chosen.
constexpr int kCoarse = 256;
/// Likeness of two images that show the same. Of 60 pairs each of noise, of six clouds, and of four stars of
/// different fields the most alike reached 0.19, 0.67 and 0.57; planets two deviations above the noise of a
/// pixel reach 0.85.
constexpr double kAlike = 0.75;

int CoarsestBin(const CVelImage& image) {
  int bin = 1;
  while (std::max(image.GetWidth(), image.GetHeight()) > kCoarse * bin) {
    bin *= 2;
  }
  return bin;
}

/// The share of the light of two images that lies on the same one's: 1 when all does.
double Likeness(CVelImage& image, CVelImage& other, double x, double y) {
  const int dx = static_cast<int>(std::lround(x)), dy = static_cast<int>(std::lround(y));
  const auto squares = [](CVelImage& of) {
    double sum = 0;
    for (int v = 0; v < of.GetHeight(); ++v) {
      const float* row = of.GetLine(0, v, 0);
      for (int u = 0; u < of.GetWidth(); ++u) {
        sum += static_cast<double>(row[u]) * row[u];
      }
    }
    return sum;
  };
  double both = 0;
  for (int v = std::max(0, dy); v < std::min(image.GetHeight(), dy + other.GetHeight()); ++v) {
    const float *a = image.GetLine(0, v, 0), *b = other.GetLine(0, v - dy, 0);
    for (int u = std::max(0, dx); u < std::min(image.GetWidth(), dx + other.GetWidth()); ++u) {
      both += static_cast<double>(a[u]) * b[u - dx];
    }
  }
  const double all = squares(image) * squares(other);
  return all > 0 ? both / std::sqrt(all) : 0;
}

}  // namespace

/// Light above the sky in sums of bin x bin pixels.
struct CPlaceMatcher::Scale {
  int bin;
  std::unique_ptr<CImgMatching> light;
};

/// The coarsest first.
std::vector<CPlaceMatcher::Scale> CPlaceMatcher::ScalesOf(CVelImage& image, int coarsest) {
  constexpr double kSingle = 1.5, kNoise = 3;  // chosen: the median's radius; deviations that light has
  if (image.IsEmpty()) return {};
  CImgLight light;
  light.DoWithoutSky(&image);
  CImgFilterBlur whole;  // without single pixels
  MakeWorkImage(whole, light);
  whole.MedianFilter(kSingle, &light, nullptr, 0);
  std::vector<Scale> scales;
  for (int bin = coarsest; bin >= 1; bin /= 2) {
    CImgSoftBinning sums;
    MakeWorkImage(sums, CVelImage(image.VmManager(), CImage::Float, 1, 1, 1, 1.0, 0.0, 1, nullptr));
    if (!sums.Do(bin, bin, 0, 0, &whole, 0)) continue;
    light.DoAboveSky(&sums, kNoise);
    scales.push_back({bin, std::make_unique<CImgMatching>()});
    scales.back().light->Swap(&light);
  }
  return scales;
}

CPlaceMatcher::CPlaceMatcher(CVelImage& reference)
    : coarsest_(CoarsestBin(reference)), scales_(ScalesOf(reference, coarsest_)) {}

CPlaceMatcher::~CPlaceMatcher() = default;

CStarMatch CPlaceMatcher::Match(CVelImage& image) const {
  constexpr int kRange = 8;  // pixels of a scale, to both sides, about what the coarser one found
  // Pixels, and how many residuals. Of calibrated frames of an infrared array with a faint galaxy they refuse
  // what the array's own pattern leaves, which does not move.
  constexpr double kMoved = 0.5, kSure = 1, kResiduals = 3;
  CStarMatch match;
  match.status = CStarMatch::NoMatch;
  if (image.IsEmpty()) return match;
  const std::vector<Scale> own = ScalesOf(image, coarsest_);
  double x = 0, y = 0;
  bool found = false;
  for (size_t k = 0; k < std::min(scales_.size(), own.size()); ++k) {
    const int bin = own[k].bin;
    CImgMatching& reference = *scales_[k].light;
    CVelImage& other = *own[k].light;
    double toX = x / bin, toY = y / bin;
    const int range = found ? kRange : std::min(reference.GetWidth(), reference.GetHeight()) * 2 / 3;
    if (!reference.Do(&other, &toX, &toY, range, 1, 0) || Likeness(reference, other, toX, toY) < kAlike)
      break;
    match.residual = found ? std::hypot(toX * bin - x, toY * bin - y) : 0;
    x = toX * bin;
    y = toY * bin;
    found = true;
  }
  const double moved = std::hypot(x, y);
  if (!found || match.residual > kSure || moved < std::max(kMoved, kResiduals * match.residual)) return match;
  const Pose pose = PoseOf({1, 0, x, y}, image.GetWidth(), image.GetHeight());
  match.dx = pose.dx;
  match.dy = pose.dy;
  match.stars = 1;
  match.status = CStarMatch::Ok;
  return match;
}
