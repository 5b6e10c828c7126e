#include "korimg/measurement/CImgEvaluateGuideError.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/geometry/CImgSoftBinning.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/measurement/PSF.h"

using namespace korimg;

namespace {

/// The mean of all planes.
double MeanOf(CVelImage& image) {
  double sum = 0;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    sum += image.GetAvrGrayRaw(p);
  }
  return sum / image.GetPlanes();
}

/// The mean of a pixel's planes.
double PixelOf(CVelImage& image, CPoint p) {
  double sum = 0;
  for (int plane = 0; plane < image.GetPlanes(); ++plane) {
    sum += image.GetPixelGrayRaw(p.x, p.y, plane);
  }
  return sum / image.GetPlanes();
}

/// A window of an image, by the mean of its planes, in which what was found is blanked.
class PeakMap {
 public:
  PeakMap(CVelImage& image, const Window& window)
      : window_(window),
        store_(ContiguousStore(image)),
        pixels_(*store_, window.Width(), window.Height()),
        buffer_(pixels_.Buffer()) {
    pixels_.Clear();
    for (int p = 0; p < image.GetPlanes(); ++p) {
      for (int y = window.top; y < window.bottom; ++y) {
        const float* from = image.GetLine(window.left, y, p);
        float* to = pixels_.Pixels() + static_cast<size_t>(y - window.top) * window.Width();
        for (int x = 0; x < window.Width(); ++x) {
          to[x] += from[x] / static_cast<float>(image.GetPlanes());
        }
      }
    }
    buffer_.SetMin(window.left, window.top);
  }

  /// The brightest pixel, and its value.
  CPoint Peak(double& value) {
    ScalarResult<float> peak;
    ScalarResult<int> x, y;
    peak_float(buffer_, window_.left, window_.right, window_.top, window_.bottom, peak, x, y);
    value = peak.Value();
    return {x.Value(), y.Value()};
  }

  void Blank(const CRect& box) {
    const CPoint from(std::max(box.left, window_.left), std::max(box.top, window_.top));
    const CPoint to(std::min(box.right, window_.right), std::min(box.bottom, window_.bottom));
    if (from.x < to.x && from.y < to.y) fill_area_float(0, from.x, to.x, from.y, to.y, buffer_);
  }

 private:
  Window window_;
  std::shared_ptr<CVmManager> store_;
  TemporaryPlane pixels_;
  PlaneBuffer buffer_;
};

CRect BoxAbout(CPoint p, int radius) {
  return {p.x - radius, p.y - radius, p.x + radius + 1, p.y + radius + 1};
}

/// A box of the image as the reduced one has it, with a margin, and the peak that led to it.
CRect Reduced(const CRect& box, int factor, CPoint peak) {
  constexpr double kMargin = 1.5;
  const auto low = [&](int edge) { return TruncateToInt(std::floor(1.0 * edge / factor - kMargin)); };
  const auto high = [&](int edge) { return TruncateToInt(std::ceil(1.0 * edge / factor + kMargin)); };
  return {std::min(low(box.left), peak.x), std::min(low(box.top), peak.y),
          std::max(high(box.right), peak.x + 1), std::max(high(box.bottom), peak.y + 1)};
}

/// The star that a position leads to, if its widths can be measured.
std::optional<CStarPos> MeasureStar(CVelImage& image, CPoint seed) {
  constexpr double kReach = 1.8;  // half widths
  CStarPos star;
  double* half = star.values;
  if (!PSF(&image).GetFWHMXY(seed, half, half + 1, half + 2, half + 3, nullptr)) return std::nullopt;
  if (!std::all_of(half, half + 4, [](double w) { return std::isfinite(w); })) return std::nullopt;
  const int radius = TruncateToInt(*std::max_element(half, half + 4) * kReach + 0.5);
  CRect box = BoxAbout(seed, radius);
  image.GetCentroid(star.x, star.y, &box);
  star.x += 0.5;
  star.y += 0.5;
  star.rect = BoxAbout({TruncateToInt(star.x), TruncateToInt(star.y)}, radius);
  return star;
}

/// Takes a smoothed copy from an image, and cuts off what is below: stars remain.
void SubtractSmoothed(CVelImage& image, double sigma) {
  CImgFilterBlur smoothed;
  MakeWorkImage(smoothed, image);
  smoothed.GaussianFilter(sigma, &image, nullptr, 0);
  for (int p = 0; p < image.GetPlanes(); ++p) {
    if (MayRunPipelines(image, smoothed)) {
      sub0_float(PlaneBuffer(image, p), PlaneBuffer(smoothed, p), PlaneBuffer(image, p, false));
      continue;
    }
    ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
      float* line = image.GetWritableLine(0, y, p);
      const float* sky = smoothed.GetLine(0, y, p);
      for (int x = 0; x < image.GetWidth(); ++x) {
        line[x] = NotNegative(line[x] - sky[x]);
      }
    });
  }
}

}  // namespace

long long CImgEvaluateGuideError::DetectStars(CVelImage* image, int factor, CRect* rect, int maxStars,
                                              CArray<CStarPos, CStarPos&>& list) {
  const Window window(*this, rect);
  if (window.IsEmpty() || image->IsEmpty()) return 0;
  const double reducedMean = MeanOf(*this), imageMean = MeanOf(*image);
  const std::ptrdiff_t before = list.GetSize();
  PeakMap map(*this, window);
  for (int i = 0; i < maxStars; ++i) {
    double value = 0;
    const CPoint peak = map.Peak(value);
    if (!(value >= reducedMean)) break;
    const CPoint seed(peak.x * factor + factor / 2, peak.y * factor + factor / 2);
    auto star = MeasureStar(*image, seed);
    map.Blank(Reduced(star ? star->rect : BoxAbout(seed, 0), factor, peak));
    if (star && PixelOf(*image, {TruncateToInt(star->x), TruncateToInt(star->y)}) >= imageMean)
      list.Add(*star);
  }
  return list.GetSize() - before;
}

double CImgEvaluateGuideError::Do(CVelImage* image, int* found, CStarPosEx* stars) {
  constexpr double kColumns = 0.0009765625;  // 1 / 1024
  constexpr double kSmooth = 12, kLeastSmooth = 3;
  constexpr double kSide = 0.2;
  constexpr double kPlaces[] = {1.5 * kSide, 3.0 * kSide};
  constexpr int kMostStars = 10;
  if (found) *found = 0;
  if (stars) stars->RemoveAll();
  if (image->IsEmpty()) return 0;

  const int factor = std::max(1, TruncateToInt(image->GetWidth() * kColumns));
  CImgSoftBinning binned;
  MakeWorkImage(binned,
                CVelImage(image->VmManager(), CImage::Float, 1, 1, image->GetPlanes(), 1.0, 0.0, 1, nullptr));
  if (!binned.Do(factor, factor, 0, 0, image, 0)) return 0;
  CImgEvaluateGuideError reduced;
  reduced.Swap(&binned);
  SubtractSmoothed(reduced, std::max(kSmooth / factor, kLeastSmooth));

  CStarPosEx all;
  for (const double down : kPlaces) {
    for (const double across : kPlaces) {
      const auto part = [](int size, double share) { return TruncateToInt(size * share); };
      const int left = part(reduced.GetWidth(), across), top = part(reduced.GetHeight(), down);
      CRect region(left, top, left + part(reduced.GetWidth(), kSide), top + part(reduced.GetHeight(), kSide));
      reduced.DetectStars(image, factor, &region, kMostStars, all.first);
      CStarPos place;
      place.rect =
          CRect(region.left * factor, region.top * factor, region.right * factor, region.bottom * factor);
      all.second.Add(place);
    }
  }

  int measured = 0;
  const double elongation = CalcElongation(image, all.first, measured);
  if (stars) *stars = all;
  if (found) *found = measured > 0;
  return elongation;
}

double CImgEvaluateGuideError::CalcElongation(CVelImage* image, const CArray<CStarPos, CStarPos&>& stars,
                                              int& measured) {
  PSF psf(image);
  double sum = 0;
  measured = 0;
  for (std::ptrdiff_t i = 0; i < stars.GetSize(); ++i) {
    const CPoint centre(TruncateToInt(stars[i].x), TruncateToInt(stars[i].y));
    double left, right, up, down;
    if (!psf.GetFWHMXY(centre, &left, &right, &up, &down, nullptr)) continue;
    sum += std::max(left + right, up + down) / std::min(left + right, up + down);
    ++measured;
  }
  return measured > 0 ? sum / measured : 0;
}
