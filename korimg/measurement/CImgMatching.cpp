#include "korimg/measurement/CImgMatching.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

constexpr int kProgressText = 6152;
/// A difference is summed up in so many passes, each over rows that are as far apart, so that a bad place
/// shows after the first of them.
constexpr int kPasses = 64;

/// An image at a place: the pixel of the image below that lies next to the first of its own to the right and
/// downward, and how far within its own that one falls.
struct Place {
  int x = 0, y = 0;
  double fractionX = 0, fractionY = 0;

  Place(int x, int y) : x(x), y(y) {}
  Place(double atX, double atY)
      : x(TruncateToInt(std::ceil(atX))),
        y(TruncateToInt(std::ceil(atY))),
        fractionX(x - atX),
        fractionY(y - atY) {}

  bool IsWhole() const { return fractionX == 0 && fractionY == 0; }
};

/// What two images have in common, one laid on the other at a place.
Window Overlap(const CVelImage& image, const CVelImage& other, const Place& place) {
  const auto end = [](int from, double fraction, int size, int limit) {
    return static_cast<int>(std::clamp<long long>(0LL + from + size - (fraction > 0), 0, limit));
  };
  return {std::max(place.x, 0), std::max(place.y, 0),
          end(place.x, place.fractionX, other.GetWidth(), image.GetWidth()),
          end(place.y, place.fractionY, other.GetHeight(), image.GetHeight())};
}

double SquareSum(const float* a, const float* b, float ratio, int count) {
  constexpr int kLanes = 16;
  double lanes[kLanes] = {};
  const int whole = count / kLanes * kLanes;
  RunInLongVectors([=, &lanes]() KORIMG_IN_LOOP {
    double sums[kLanes] = {};
    for (int x = 0; x < whole; x += kLanes) {
      for (int k = 0; k < kLanes; ++k) {
        const double d = a[x + k] - b[x + k] * ratio;
        sums[k] += d * d;
      }
    }
    std::copy_n(sums, kLanes, lanes);
  });
  for (int x = whole; x < count; ++x) {
    const double d = a[x] - b[x] * ratio;
    lanes[x - whole] += d * d;
  }
  return std::accumulate(lanes, lanes + kLanes, 0.0);
}

/// Bilinear between two rows: `columns` of them, of which the last one is followed by `last`.
void BlendRows(const float* upper, const float* lower, double a, double b, int columns, bool last,
               float* out) {
  const double ab = a * b, w00 = (1 - b) * (1 - a), w01 = b - ab, w10 = a - ab;
  const auto blend = [=](int x, int next) KORIMG_IN_LOOP {
    return static_cast<float>(w00 * upper[x] + w01 * lower[x] + w10 * upper[next] + ab * lower[next]);
  };
  const int inner = columns - last;
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    for (int x = 0; x < inner; ++x) {
      out[x] = blend(x, x + 1);
    }
  });
  if (last) out[inner] = blend(inner, inner);
}

/// The differences of two images.
class Comparison {
 public:
  Comparison(CVelImage& image, CVelImage& other, const double* ratio)
      : image_(image),
        other_(other),
        ratio_(ratio),
        planes_(std::min(image.GetPlanes(), other.GetPlanes())) {}

  /// The sum of squares over the rows of a pass.
  double PassSum(const Place& place, const Window& overlap, int pass) {
    double sum = 0;
    for (int p = 0; p < planes_; ++p) {
      const auto ratio = static_cast<float>(ratio_[p]);
      for (int y = overlap.top + pass; y < overlap.bottom; y += kPasses) {
        const float* row = RowOfOther(place, overlap, p, y - place.y);
        sum += SquareSum(image_.GetLine(overlap.left, y, p), row, ratio, overlap.Width());
      }
    }
    return sum;
  }

  double Terms(const Window& overlap) const { return static_cast<double>(overlap.Pixels()) * planes_; }
  Window OverlapAt(const Place& place) const { return Overlap(image_, other_, place); }

 private:
  /// Valid until the next row is asked for.
  const float* RowOfOther(const Place& place, const Window& overlap, int p, int y) {
    const int left = overlap.left - place.x;
    const float* upper = other_.GetLine(left, y, p);
    if (place.IsWhole()) return upper;
    row_.resize(other_.GetWidth());
    const float* lower = other_.GetLine(left, std::min(y + 1, other_.GetHeight() - 1), p);
    BlendRows(upper, lower, place.fractionX, place.fractionY, overlap.Width(),
              left + overlap.Width() == other_.GetWidth(), row_.data());
    return row_.data();
  }

  CVelImage& image_;
  CVelImage& other_;
  const double* ratio_;
  int planes_;
  std::vector<float> row_;
};

/// A place whose difference is known as far as it was asked for.
class Candidate {
 public:
  Candidate(Comparison& images, const Place& place)
      : place_(place), overlap_(images.OverlapAt(place)), terms_(images.Terms(overlap_)) {}

  /// No more than the difference, and that itself once all passes are done.
  double Bound() const { return terms_ > 0 ? sum_ / terms_ : CImgMatching::kNoOverlap; }
  bool IsDone() const { return passes_ == kPasses || terms_ == 0; }
  void Advance(Comparison& images) { sum_ += images.PassSum(place_, overlap_, passes_++); }
  double Finish(Comparison& images) {
    while (!IsDone()) {
      Advance(images);
    }
    return Bound();
  }

 private:
  Place place_;
  Window overlap_;
  double terms_, sum_ = 0;
  int passes_ = 0;
};

struct Best {
  double x = 0, y = 0, value = CImgMatching::kNoOverlap;
};

/// The first place of the smallest difference, if that is below the best one so far. Those that look best
/// after one pass are finished first, and the others only as far as they may still be better. `step` is
/// called for each place.
template <class Coordinate, class F>
void FindBest(Comparison& images, const std::vector<std::pair<Coordinate, Coordinate>>& places, Best& best,
              F&& step) {
  std::vector<Candidate> candidates;
  std::vector<float> bounds;
  for (const auto& [x, y] : places) {
    Candidate& candidate = candidates.emplace_back(images, Place(x, y));
    if (!candidate.IsDone()) candidate.Advance(images);
    bounds.push_back(static_cast<float>(candidate.Bound()));
  }
  std::vector<size_t> order(places.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return NanLast(bounds[a], bounds[b]); });
  size_t winner = 0;  // of these places: those before it win with the same difference too
  for (const size_t i : order) {
    Candidate& candidate = candidates[i];
    while (!candidate.IsDone() && candidate.Bound() <= best.value) {
      candidate.Advance(images);
    }
    const double value = candidate.Bound();
    if (candidate.IsDone() && (value < best.value || (value == best.value && i < winner))) {
      best = {static_cast<double>(places[i].first), static_cast<double>(places[i].second), value};
      winner = i;
    }
    step();
  }
}

/// Whole places about the best one, by rows: from `first` to at most `last`, as far as images overlap there.
std::vector<std::pair<int, int>> Places(const Comparison& images, const Best& about, int first, int last,
                                        int step) {
  std::vector<std::pair<int, int>> places;
  for (long long dy = first; dy <= last; dy += step) {
    for (long long dx = first; dx <= last; dx += step) {
      const Place place(about.x + static_cast<double>(dx), about.y + static_cast<double>(dy));
      if (!images.OverlapAt(place).IsEmpty()) places.emplace_back(place.x, place.y);
    }
  }
  return places;
}

/// Those two steps to each side of the best one, without itself.
std::vector<std::pair<double, double>> PlacesBetween(const Best& about, double step) {
  constexpr int kReach = 2;
  std::vector<std::pair<double, double>> places;
  for (int j = -kReach; j <= kReach; ++j) {
    for (int i = -kReach; i <= kReach; ++i) {
      if (i != 0 || j != 0) places.emplace_back(about.x + i * step, about.y + j * step);
    }
  }
  return places;
}

double Value(CVelImage& image, CVelImage& other, const Place& place, const double* ratio) {
  Comparison images(image, other, ratio);
  return Candidate(images, place).Finish(images);
}

/// How much brighter the planes of an image are than another's.
std::vector<double> MeanRatios(CVelImage& image, CVelImage& other) {
  std::vector<double> ratios(std::max(image.GetPlanes(), 1), 1.0);
  const int planes = image.IsColor() && other.IsColor() ? std::min(image.GetPlanes(), other.GetPlanes()) : 1;
  for (int p = 0; p < planes; ++p) {
    const double mean = image.GetAvrGrayRaw(p), others = other.GetAvrGrayRaw(p);
    if (mean != 0 && others != 0) ratios[p] = mean / others;
  }
  return ratios;
}

}  // namespace

double CImgMatching::CalcValue(CVelImage* other, int x, int y, double* const ratio) {
  return Value(*this, *other, Place(x, y), ratio);
}

double CImgMatching::CalcValue(CVelImage* other, double x, double y, double* const ratio) {
  return Value(*this, *other, Place(x, y), ratio);
}

int CImgMatching::Do(CVelImage* other, double* x, double* y, int range, int fine, int show) {
  constexpr int kBeside = 9, kFine = 288, kFineStep = 6;
  const double total = 1.0 * std::max(range, 0) * std::max(range, 0) / 4 + kBeside + (fine ? kFine : 0);
  const ProgressScope progress(*this, show, kProgressText, TruncateToInt(total));
  if (IsEmpty() || other->IsEmpty()) return 0;
  const std::vector<double> ratios = MeanRatios(*this, *other);
  Comparison images(*this, *other, ratios.data());
  Best best{std::floor(*x + 0.5), std::floor(*y + 0.5)};
  const auto search = [&](const auto& places, int steps) {
    FindBest(images, places, best, [&] { ShowProgress(steps); });
  };
  search(Places(images, best, -(range / 2), range / 2 - 1, 2), 1);
  search(Places(images, best, -1, 1, 1), 1);
  const bool found = best.value < kNoOverlap;
  for (const double pixels : {0.3, 0.1}) {
    if (found && fine) search(PlacesBetween(best, pixels), kFineStep);
  }
  ShowProgressRest();
  if (!found) return 0;
  *x = best.x;
  *y = best.y;
  return 1;
}
