#include "korimg/measurement/PSF.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numbers>
#include <numeric>

#include "korimg/image/internal/Numbers.h"
#include "korimg/platform/CRegistry.h"

namespace {

constexpr double kSigmaOfFwhm = 0.4246609, kFwhmOfSigma = 2.354820045829508;
const CPoint kNoCentre(-1, -1);
const CPoint kDirections[] = {CPoint(-1, 0), CPoint(1, 0), CPoint(0, -1), CPoint(0, 1)};

CPoint Stepped(CPoint from, CPoint direction, int steps) {
  return {from.x + steps * direction.x, from.y + steps * direction.y};
}

bool IsOn(const CVelImage& image, CPoint p) {
  return p.x >= 0 && p.y >= 0 && p.x < image.GetWidth() && p.y < image.GetHeight();
}

/// A walk outward from a peak may stand there: column 0 and row 0 end it on the left and upper side.
bool IsOnWay(const CVelImage& image, CPoint p, CPoint direction) {
  return IsOn(image, p) && p.x + direction.x >= 0 && p.y + direction.y >= 0;
}

}  // namespace

PSF::PSF(CVelImage* image) : image_(image) {
  CRegistry::Read(L"Psf", L"Max", 64.0, &maximum_);
}

PSF::~PSF() = default;

double PSF::FwhmToPsf(double fwhm) {
  return std::sqrt(fwhm) * kSigmaOfFwhm;
}

double PSF::PsfToFwhm(double psf) {
  return psf * kFwhmOfSigma * (psf * kFwhmOfSigma);
}

double PSF::GetPixelValue(CPoint p, CPoint centre, double degrees) {
  const bool turned = !(centre == kNoCentre) && degrees != 0;
  double x = p.x, y = p.y;
  if (turned) {
    const double dx = p.x - centre.x, dy = p.y - centre.y;
    const double r = std::sqrt(dx * dx + dy * dy), a = std::atan2(dx, dy) + degrees * std::numbers::pi / 180;
    x = std::sin(a) * r + centre.x;
    y = std::cos(a) * r + centre.y;
  }
  if (!(x >= 0 && y >= 0 && x <= image_->GetWidth() - 1 && y <= image_->GetHeight() - 1)) return 0;
  double sum = 0;
  for (int plane = 0; plane < image_->GetPlanes(); ++plane) {
    sum += turned ? image_->GetPixelGrayRaw(x, y, plane) : image_->GetPixelGrayRaw(p.x, p.y, plane);
  }
  return sum / image_->GetPlanes();
}

CPoint PSF::ClimbToPeak(CPoint p) {
  for (;;) {
    CPoint highest = p;
    double best = GetPixelValue(p, kNoCentre, 0);
    for (int x = p.x - 1; x <= p.x + 1; ++x) {
      for (int y = p.y - 1; y <= p.y + 1; ++y) {
        if (!IsOn(*image_, {x, y})) continue;
        const double value = GetPixelValue({x, y}, kNoCentre, 0);
        if (value > best) {
          best = value;
          highest = {x, y};
        }
      }
    }
    if (highest == p) return p;
    p = highest;
  }
}

int PSF::GetBase(CPoint peak, double* base) {
  constexpr int kBeyond = 2, kMost = 12;
  std::vector<double> values;
  for (const CPoint& direction : kDirections) {
    double before = GetPixelValue(peak, kNoCentre, 0);
    CPoint p = Stepped(peak, direction, 1);
    while (IsOnWay(*image_, p, direction)) {
      const double value = GetPixelValue(p, kNoCentre, 0);
      if (!(value <= before)) break;
      before = value;
      p = Stepped(p, direction, 1);
    }
    p = Stepped(p, direction, kBeyond);
    for (int i = 0; i < kMost && IsOnWay(*image_, p, direction); ++i, p = Stepped(p, direction, 1)) {
      values.push_back(GetPixelValue(p, kNoCentre, 0));
    }
  }
  if (values.empty()) return 0;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end(),
                   [](double a, double b) { return a < b || (b != b && a == a); });
  *base = *middle;
  return 1;
}

int PSF::GetFWHMXY(CPoint peak, double base, double* left, double* right, double* up, double* down,
                   double degrees) {
  const double top = GetPixelValue(peak, kNoCentre, 0), half = (top + base) * 0.5;
  double* widths[] = {left, right, up, down};
  for (size_t i = 0; i < std::size(kDirections); ++i) {
    double inner = top;
    int steps = 1;
    for (;; ++steps) {
      const CPoint p = Stepped(peak, kDirections[i], steps);
      if (!(steps <= maximum_) || !IsOn(*image_, p)) return 0;
      const double value = GetPixelValue(p, peak, degrees);
      if (!(value > half)) {
        *widths[i] = steps - (half - value) / (inner - value);
        break;
      }
      inner = value;
    }
  }
  return 1;
}

int PSF::GetFWHM(CPoint peak, double base, double* width) {
  double left, right, up, down;
  if (!GetFWHMXY(peak, base, &left, &right, &up, &down, 0)) return 0;
  *width = (left + right + up + down) * 0.5;
  return 1;
}

int PSF::Add(CPoint seed) {
  if (image_->IsEmpty()) return 0;
  const CPoint peak = ClimbToPeak(seed);
  double base = 0, width = 0;
  if (!GetBase(peak, &base) || base >= GetPixelValue(peak, kNoCentre, 0) || !GetFWHM(peak, base, &width))
    return 0;
  if (!(width >= 0 && width < maximum_)) return 0;
  samples_.push_back(FwhmToPsf(width));
  return 1;
}

int PSF::Accept(double psf, double* out) const {
  constexpr double kLeast = 1e-6;
  if (!(psf > kLeast && psf < maximum_)) return 0;
  *out = psf;
  return 1;
}

int PSF::GetMeanPSF(double* out) {
  if (samples_.empty()) return 0;
  return Accept(std::accumulate(samples_.begin(), samples_.end(), 0.0) / GetCount(), out);
}

int PSF::GetMedianPSF(double* out) {
  if (samples_.empty()) return 0;
  std::sort(samples_.begin(), samples_.end());
  return Accept(samples_[samples_.size() / 2], out);
}

int PSF::GetMeanFWHM(double* out) {
  double psf;
  if (!GetMeanPSF(&psf)) return 0;
  *out = PsfToFwhm(psf);
  return 1;
}

int PSF::GetMedianFWHM(double* out) {
  double psf;
  if (!GetMedianPSF(&psf)) return 0;
  *out = PsfToFwhm(psf);
  return 1;
}

int PSF::GetFWHMXY(CPoint seed, double* left, double* right, double* up, double* down, CPoint* peak) {
  constexpr double kDiagonal = 45;
  if (image_->IsEmpty()) return 0;
  const CPoint top = ClimbToPeak(seed);
  double base = 0, straight[4], diagonal[4];
  if (!GetBase(top, &base) || base >= GetPixelValue(top, kNoCentre, 0)) return 0;
  if (!GetFWHMXY(top, base, straight, straight + 1, straight + 2, straight + 3, 0) ||
      !GetFWHMXY(top, base, diagonal, diagonal + 1, diagonal + 2, diagonal + 3, kDiagonal)) {
    return 0;
  }
  const auto elongation = [](const double* w) {
    const double across = w[0] + w[1], along = w[2] + w[3];
    return std::max(across, along) / std::min(across, along);
  };
  const double* widths = elongation(straight) > elongation(diagonal) ? straight : diagonal;
  *left = widths[0], *right = widths[1], *up = widths[2], *down = widths[3];
  if (peak) *peak = top;
  return 1;
}
