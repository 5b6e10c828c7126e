// A pixel's arc has hundreds of places, and the windows over it as many cells each. Places come from turning
// eight of them at a time, without a sine for each, and windows become one weight for each place, the number
// of windows that it lies in; these are those of the pixel before for as long as the arc has as many places.
#include "korimg/restoration/CImgRUsm.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <vector>

#include "korimg/image/internal/Vectors.h"
#include "korimg/restoration/internal/Circles.h"

using namespace korimg;

namespace {

constexpr int kLanes = 8;

/// A turn of places about a centre. Angles count from the y axis towards the x axis: a place is at
/// (sin(t) r, cos(t) r).
struct Turn {
  double sin, cos;

  explicit Turn(double radians) : sin(std::sin(radians)), cos(std::cos(radians)) {}
  double X(double dx, double dy) const { return dx * cos + dy * sin; }
  double Y(double dx, double dy) const { return dy * cos - dx * sin; }
};

/// Means along the arcs of one row's pixels.
class ArcMeans {
 public:
  ArcMeans(const PlanePixels& pixels, double centreX, double centreY, double radians, int segments)
      : pixels_(pixels),
        centreX_(centreX),
        centreY_(centreY),
        radians_(radians),
        forth_(radians),
        back_(-radians),
        segments_(segments) {}

  /// The mean along the arc through a place that is given from the centre, or `none`.
  double Of(double dx, double dy, double none) {
    const double x1 = forth_.X(dx, dy), y1 = forth_.Y(dx, dy);
    const double x2 = back_.X(dx, dy), y2 = back_.Y(dx, dy);
    if (!IsAboveZero(x1, y1) || !IsAboveZero(x2, y2)) return none;
    const double chord = std::sqrt((x1 - x2) * (x1 - x2) + (y1 - y2) * (y1 - y2));
    if (!(chord >= 1.5)) return none;
    Read(x2, y2, Turn(2 * radians_ / chord), static_cast<int>(chord + 0.5));
    if (count_ < 2 || segments_ < 1) return none;
    Weigh();
    return WeightedMean();
  }

 private:
  bool IsAboveZero(double dx, double dy) const {
    const double x = dx + centreX_, y = dy + centreY_;
    return pixels_.Contains(x, y) && pixels_.Clamped(x, y) > 0;
  }

  /// Reads the places from (dx, dy) on, turned by `step` each, those that lie in the image.
  void Read(double dx, double dy, const Turn& step, int places) {
    samples_.resize(std::max<size_t>(samples_.size(), places + kLanes));
    double u[kLanes], v[kLanes];
    u[0] = dx;
    v[0] = dy;
    for (int l = 1; l < kLanes; ++l) {
      u[l] = step.X(u[l - 1], v[l - 1]);
      v[l] = step.Y(u[l - 1], v[l - 1]);
    }
    double sin = step.sin, cos = step.cos;  // of eight steps
    for (int twice = 1; twice < kLanes; twice *= 2) {
      const double doubled = 2 * sin * cos;
      cos = cos * cos - sin * sin;
      sin = doubled;
    }
    count_ = 0;
    RunInLongVectors([=, this, &u, &v]() KORIMG_IN_LOOP {
      const PlanePixels from = pixels_;
      const double centreX = centreX_, centreY = centreY_, right = from.width - 1, bottom = from.height - 1;
      const int lastX = from.lastX, lastY = from.lastY;
      float* next = samples_.data();
      for (int i = 0; i < places; i += kLanes) {
        double a[kLanes], b[kLanes], outside[kLanes];
        int ix[kLanes], iy[kLanes];
        for (int l = 0; l < kLanes; ++l) {
          const double x = u[l] + centreX, y = v[l] + centreY;
          const double insideX = std::min(std::max(x, 0.0), right),
                       insideY = std::min(std::max(y, 0.0), bottom);
          ix[l] = std::min(static_cast<int>(insideX), lastX);
          iy[l] = std::min(static_cast<int>(insideY), lastY);
          a[l] = insideX - ix[l];
          b[l] = insideY - iy[l];
          outside[l] = x < 0 || y < 0 || x >= right + 1 || y >= bottom + 1 ? 1.0 : 0.0;
          const double turned = u[l] * cos + v[l] * sin;
          v[l] = v[l] * cos - u[l] * sin;
          u[l] = turned;
        }
        float p[kLanes], beside[kLanes], below[kLanes], across[kLanes], values[kLanes];
        for (int l = 0; l < kLanes; ++l) {
          const float* const pixel = from.Row(iy[l]) + ix[l];
          p[l] = pixel[0];
          beside[l] = pixel[from.right];
          below[l] = pixel[from.below];
          across[l] = pixel[from.below + from.right];
        }
        for (int l = 0; l < kLanes; ++l) {
          values[l] = PlanePixels::Blend(a[l], b[l], p[l], beside[l], below[l], across[l]);
        }
        for (int l = 0; l < std::min(kLanes, places - i); ++l) {
          *next = values[l];
          next += outside[l] == 0;
        }
      }
      count_ = static_cast<int>(next - samples_.data());
    });
  }

  /// Counts the windows that each place lies in.
  void Weigh() {
    if (count_ == weighed_) return;
    weighed_ = count_;
    const int length = count_ / 2;
    const double half = count_ * 0.5, step = half / std::min(length, segments_);
    weights_.assign(count_ + 1, 0);
    windows_ = 0;
    for (double p = 0; p < half - 0.5; p += step) {
      const int first = static_cast<int>(p);
      ++weights_[first];
      --weights_[first + length];
      reach_ = first + length;
      ++windows_;
    }
    for (int j = 1; j < reach_; ++j) {
      weights_[j] += weights_[j - 1];
    }
  }

  double WeightedMean() const {
    double sums[kLanes] = {};
    RunInLongVectors([this, &sums]() KORIMG_IN_LOOP {
      const float *samples = samples_.data(), *weights = weights_.data();
      double lanes[kLanes] = {};
      int j = 0;
      for (; j + kLanes <= reach_; j += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
          lanes[l] += static_cast<double>(weights[j + l]) * samples[j + l];
        }
      }
      for (; j < reach_; ++j) {
        lanes[j % kLanes] += static_cast<double>(weights[j]) * samples[j];
      }
      std::copy_n(lanes, kLanes, sums);
    });
    double sum = 0;
    for (const double lane : sums) {
      sum += lane;
    }
    return sum / (static_cast<double>(count_ / 2) * windows_);
  }

  PlanePixels pixels_;
  double centreX_, centreY_, radians_;
  Turn forth_, back_;
  int segments_;
  std::vector<float> samples_;
  int count_ = 0;               ///< of samples
  std::vector<float> weights_;  ///< for each of so many samples
  int weighed_ = -1;
  int reach_ = 0;  ///< the first sample behind all windows
  int windows_ = 0;
};

}  // namespace

void CImgRUsm::Do(double angle, double strength, int segments, double centreX, double centreY,
                  double radiusMin, int useDark, double dark, double darkRange, int useHighlight,
                  double highlight, double highlightRange, int brighter, double percent, int markCentre,
                  int showMask, CVelImage* src, CVelImage* target, CRect* rect, int show) {
  if (!Fits(*src, *target)) return;
  const Window window(*target, rect);
  const ProgressScope progress(*this, show, 6204, window.Lines(*target));
  CircleLimits limits(*src, radiusMin, useDark, dark, darkRange, useHighlight, highlight, highlightRange,
                      brighter, percent);
  std::atomic<bool> goesOn = true;
  for (int p = 0; p < target->GetPlanes() && !window.IsEmpty() && goesOn; ++p) {
    const SteadyPlane plane(*src, p);
    const LevelBand band = limits.Band(*src, p);
    ForLines(Team::All, window.top, window.bottom, [&](int y) {
      if (!goesOn) return;
      ArcMeans means(plane.view, centreX, centreY, Radians(angle), segments);
      const float* in = plane.view.Row(y);
      float* out = target->GetWritableLine(0, y, p);
      const double dy = y - centreY;
      for (int x = window.left; x < window.right; ++x) {
        const double dx = x - centreX;
        const float s = in[x];
        out[x] = s;
        if (std::isnan(s) || limits.Keeps(band, s, std::sqrt(dx * dx + dy * dy))) continue;
        const double mean = means.Of(dx, dy, s), v = showMask ? mean : (s - mean) * (3.1 - strength) + s;
        out[x] = limits.Limit(band, s, static_cast<float>(v));
      }
      if (!ShowProgress(1)) goesOn = false;
    });
  }
  if (markCentre) MarkCentre(*target, window, centreX, centreY);
}

void CImgRUsm::Do(double angle, double strength, int segments, int gray, double centreX, double centreY,
                  double radiusMin, int useDark, double dark, double darkRange, int useHighlight,
                  double highlight, double highlightRange, int brighter, double percent, int markCentre,
                  int showMask, CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const auto filter = [&](CVelImage* from, CVelImage* to) {
    Do(angle, strength, segments, centreX, centreY, radiusMin, useDark, dark, darkRange, useHighlight,
       highlight, highlightRange, brighter, percent, markCentre, showMask, from, to, rect, show);
  };
  if (!gray || !HasColours(*src) || !HasColours(*this)) {
    filter(src, this);
    return;
  }
  CImgRUsm graySource, grayTarget;
  MakeWorkImage(graySource, *src);
  MakeWorkImage(grayTarget, *this);
  if (!graySource.ToGray(src, 0) || !grayTarget.ToGray()) {
    throw velora::CVmMemoryAllocationError("no room for the luminance");
  }
  filter(&graySource, &grayTarget);
  const Window window(*this, rect);
  for (int p = 0; p < GetPlanes(); ++p) {
    ForLines(Team::All, window.top, window.bottom, [&](int y) {
      const float* in = grayTarget.GetLine(0, y, 0);
      float* out = GetWritableLine(0, y, p);
      for (int x = window.left; x < window.right; ++x) {
        out[x] = ToRaw(To256(in[x], 0), p);
      }
    });
  }
}
