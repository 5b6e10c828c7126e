#include "korimg/composite/stacking/CImgDrizzle.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "korimg/geometry/internal/MapRows.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/platform/CArray.h"
#include "korimg/platform/CParallel.h"

using namespace korimg;

namespace {

constexpr int kAtOnce = 256;  // pixels whose drops are worked out together
/// Less of a drop, and less of a pixel of the grid, is rounding.
constexpr double kLeast = 1e-6;
/// sqrt(8 ln 2); and where a Gaussian drop ends in deviations, chosen: 2.5 % of its light lie beyond.
constexpr double kFwhmPerSigma = 2.3548200450309493, kCut = 2.5;

}  // namespace

/// The drops of some neighbours in a row, and their shares of the pixels of the grid. Each has a window of
/// across x down pixels, whose first is at (column, row) of the grid.
class CImgDrizzle::Drops {
 public:
  int across = 0, down = 0;
  int top = 0, bottom = 0;  ///< rows of the grid that windows lie in
  int column[kAtOnce], row[kAtOnce];

  /// Those of pixels x0 to x0 + n - 1 of a row whose upper and lower edge two maps bring to the reference.
  void Place(const Options& options, const MapRows& upper, const MapRows& lower, int x0, int n, int width,
             int height) {
    n_ = n;
    const double half = options.pixfrac / 2;
    PlaceCorners(upper, x0 - half, options.scale, width, height, 0);
    PlaceCorners(upper, x0 + half, options.scale, width, height, 1);
    PlaceCorners(lower, x0 + half, options.scale, width, height, 2);
    PlaceCorners(lower, x0 - half, options.scale, width, height, 3);
    if (options.kernel == Square) {
      FindEnds(x_, left_, right_, n_);
      FindEnds(y_, above_, below_, n_);
    } else {
      FindMiddles();
      FindReach(options.kernel);
    }
    FindWindows();
  }

  /// Works out the shares.
  void Share(Kernel kernel) {
    shares_.assign(static_cast<size_t>(across) * down * kAtOnce, 0.0f);
    if (kernel == Square) return ShareAreas();
    if (kernel == Gaussian) return ShareGaussians();
    std::fill_n(shares_.begin(), kAtOnce, 1.0f);
  }

  /// Drop i's share of the pixel at (column + k, row + j).
  float Of(int i, int k, int j) const { return shares_[(1UL * j * across + k) * kAtOnce + i]; }

 private:
  /// Corner c of each drop on the grid. Those far outside come nearer; nowhere is far outside.
  void PlaceCorners(const MapRows& map, double x0, double scale, int width, int height, int c) {
    constexpr double kFar = 64;  // chosen: pixels, beyond any drop that reaches the grid
    const double right = width + kFar, below = height + kFar;
    map.Along(0, x0, n_, x_[c], y_[c]);
    RunInLongVectors([=, n = n_, xs = x_[c], ys = y_[c]]() KORIMG_IN_LOOP {
      for (int i = 0; i < n; ++i) {
        double x = (xs[i] + 0.5) * scale, y = (ys[i] + 0.5) * scale;
        x = x > -kFar ? x : -kFar;
        y = y > -kFar ? y : -kFar;
        xs[i] = x < right ? x : right;
        ys[i] = y < below ? y : below;
      }
    });
  }

  void FindMiddles() {
    for (int i = 0; i < n_; ++i) {
      middleX_[i] = (x_[0][i] + x_[1][i] + x_[2][i] + x_[3][i]) / 4;
      middleY_[i] = (y_[0][i] + y_[1][i] + y_[2][i] + y_[3][i]) / 4;
      const double area =
          (x_[2][i] - x_[0][i]) * (y_[3][i] - y_[1][i]) - (x_[3][i] - x_[1][i]) * (y_[2][i] - y_[0][i]);
      sigma_[i] = std::sqrt(std::max(area / 2, 0.0)) / kFwhmPerSigma;
    }
  }

  /// What lies beyond a pixel's edge by rounding alone does not count.
  void FindWindows() {
    int lastColumns[kAtOnce], lastRows[kAtOnce];
    FindPixels(left_, right_, column, lastColumns);
    FindPixels(above_, below_, row, lastRows);
    across = down = 1;
    top = std::numeric_limits<int>::max();
    bottom = std::numeric_limits<int>::min();
    for (int i = 0; i < n_; ++i) {
      across = std::max(across, lastColumns[i] - column[i] + 1);
      down = std::max(down, lastRows[i] - row[i] + 1);
      top = std::min(top, row[i]);
      bottom = std::max(bottom, lastRows[i] + 1);
    }
  }

  void FindPixels(const double* from, const double* to, int* first, int* last) const {
    RunInLongVectors([=, n = n_]() KORIMG_IN_LOOP {
      for (int i = 0; i < n; ++i) {
        first[i] = static_cast<int>(std::floor(from[i] + kLeast));
        last[i] = static_cast<int>(std::floor(to[i] - kLeast));
      }
    });
  }

  /// From the lowest to the highest corner.
  static void FindEnds(const double (&corners)[4][kAtOnce], double* from, double* to, int n) {
    RunInLongVectors([=, &corners]() KORIMG_IN_LOOP {
      const double *a = corners[0], *b = corners[1], *c = corners[2], *d = corners[3];
      for (int i = 0; i < n; ++i) {
        const double low1 = a[i] < b[i] ? a[i] : b[i], low2 = c[i] < d[i] ? c[i] : d[i];
        const double high1 = a[i] < b[i] ? b[i] : a[i], high2 = c[i] < d[i] ? d[i] : c[i];
        from[i] = low1 < low2 ? low1 : low2;
        to[i] = high1 < high2 ? high2 : high1;
      }
    });
  }

  /// About the middle: a point, or pixels whose middles lie within the cut, and the nearest one always.
  void FindReach(Kernel kernel) {
    for (int i = 0; i < n_; ++i) {
      const double reach = kernel == Gaussian ? std::max(kCut * sigma_[i] - 0.5, 0.0) : 0;
      left_[i] = middleX_[i] - reach;
      right_[i] = middleX_[i] + reach + 2 * kLeast;
      above_[i] = middleY_[i] - reach;
      below_[i] = middleY_[i] + reach + 2 * kLeast;
    }
  }

  /// Green's theorem in each pixel of the window: each edge of the drop, as far as it runs through a column,
  /// has below it in pixel j what lies below line j less what lies below line j + 1.
  void ShareAreas() {
    float xs[4][kAtOnce], ys[4][kAtOnce], perArea[kAtOnce];
    for (int c = 0; c < 4; ++c) {
      for (int i = 0; i < n_; ++i) {
        xs[c][i] = static_cast<float>(x_[c][i] - column[i]);
        ys[c][i] = static_cast<float>(y_[c][i] - row[i]);
      }
    }
    for (int i = 0; i < n_; ++i) {
      const float area =
          ((xs[2][i] - xs[0][i]) * (ys[3][i] - ys[1][i]) - (xs[3][i] - xs[1][i]) * (ys[2][i] - ys[0][i])) / 2;
      perArea[i] = area > 0 ? 1 / area : 0.0f;
    }
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    for (int edge = 0; edge < 4; ++edge) {
      const int next = (edge + 1) % 4;
      for (int k = 0; k < across; ++k) {
        const float left = k == 0 ? -kInfinity : static_cast<float>(k),
                    right = k == across - 1 ? kInfinity : static_cast<float>(k + 1);
        ShareEdge({xs[edge], ys[edge], xs[next], ys[next]}, left, right, k);
      }
    }
    for (size_t cell = 0; cell < static_cast<size_t>(across) * down; ++cell) {
      float* shares = shares_.data() + cell * kAtOnce;
      for (int i = 0; i < n_; ++i) {
        shares[i] *= perArea[i];
      }
    }
  }

  struct Edge {
    const float *x1, *y1, *x2, *y2;
  };

  /// The part of an edge from `left` to `right`, which lies in column k.
  void ShareEdge(const Edge& edge, float left, float right, int k) {
    RunInLongVectors([this, edge, left, right, k, n = n_, across = across, down = down]() KORIMG_IN_LOOP {
      constexpr float kTiny = 1e-30f;
      float width[kAtOnce], low[kAtOnce], high[kAtOnce], perHeight[kAtOnce];
      const auto [x1, y1, x2, y2] = edge;
      for (int i = 0; i < n; ++i) {
        const float all = x2[i] - x1[i];
        const float slope = (y2[i] - y1[i]) / (all == 0 ? 1.0f : all);
        float from = x1[i] > left ? x1[i] : left, to = x2[i] > left ? x2[i] : left;
        from = from < right ? from : right;
        to = to < right ? to : right;
        // An edge that does not reach the column has both ends at the same side of it.
        const float a = y1[i] + (from - x1[i]) * slope, b = y1[i] + (to - x1[i]) * slope;
        width[i] = to - from;
        low[i] = a < b ? a : b;
        high[i] = a < b ? b : a;
        perHeight[i] = 0.5f / (high[i] - low[i] + kTiny);
      }
      for (int j = 0; j < down; ++j) {
        float* const own = shares_.data() + (1UL * j * across + k) * kAtOnce;
        float* const above = j > 0 ? own - 1L * across * kAtOnce : own;
        const auto line = static_cast<float>(j);
        const float isInside = j > 0 ? 1.0f : 0.0f;
        for (int i = 0; i < n; ++i) {
          const float a = low[i] - line, b = high[i] - line;
          // The mean of what an edge from a to b has above 0, and for the first line all of it.
          const float whole = (a + b) * 0.5f, part = b > 0 ? b * b * perHeight[i] : 0.0f;
          const float below = width[i] * (((a >= 0) | (line == 0)) ? whole : part);
          own[i] -= below;
          above[i] += isInside * below;
        }
      }
    });
  }

  void ShareGaussians() {
    std::vector<double> weightsX(across), weightsY(down);
    for (int i = 0; i < n_; ++i) {
      const double all = Weigh(middleX_[i] - column[i], sigma_[i], weightsX) *
                         Weigh(middleY_[i] - row[i], sigma_[i], weightsY);
      for (int j = 0; j < down; ++j) {
        for (int k = 0; k < across; ++k) {
          shares_[(1UL * j * across + k) * kAtOnce + i] = static_cast<float>(weightsX[k] * weightsY[j] / all);
        }
      }
    }
  }

  /// A Gaussian at the middles of pixels, in units of its value at the nearest; answers the sum.
  static double Weigh(double at, double sigma, std::vector<double>& weights) {
    const double reach = std::max(kCut * sigma, 0.5) + kLeast;
    double nearest = reach, sum = 0;
    for (size_t k = 0; k < weights.size(); ++k) {
      nearest = std::min(nearest, std::abs(static_cast<double>(k) + 0.5 - at));
    }
    for (size_t k = 0; k < weights.size(); ++k) {
      const double far = std::abs(static_cast<double>(k) + 0.5 - at);
      weights[k] = far > reach ? 0 : std::exp((nearest * nearest - far * far) / (2 * sigma * sigma));
      sum += weights[k];
    }
    return sum;
  }

  int n_ = 0;
  double x_[4][kAtOnce], y_[4][kAtOnce];  ///< corners on the grid, in which pixel 0 lies from 0 to 1
  double left_[kAtOnce], right_[kAtOnce], above_[kAtOnce], below_[kAtOnce];  ///< ends of the drops
  double middleX_[kAtOnce], middleY_[kAtOnce], sigma_[kAtOnce];
  std::vector<float> shares_;
};

CImgDrizzle::CImgDrizzle(const Options& options, int width, int height, int planes)
    : options_(options),
      width_(SizeOf(width, options.scale)),
      height_(SizeOf(height, options.scale)),
      planes_(planes) {
  const bool isKnown = options.kernel == Square || options.kernel == Point || options.kernel == Gaussian;
  if (!(options.scale >= 1 && options.pixfrac > 0 && options.pixfrac <= 1) || !isKnown || planes < 1)
    throw new CInvalidArgException;
}

int CImgDrizzle::SizeOf(int pixels, double scale) {
  return static_cast<int>(std::ceil(pixels * scale - kLeast));
}

void CImgDrizzle::Begin(int y0, int rows) {
  top_ = y0;
  rows_ = rows;
  sums_.assign(static_cast<size_t>(planes_) * rows * width_, {});
}

CImgDrizzle::Rows CImgDrizzle::RowsOf(const CFrameMap& map, int height, int y0, int y1) const {
  // A pixel of the grid to each side for windows; a Gaussian drop reaches 1.06 pixels of the frame, and half
  // of one is about its middle.
  constexpr double kDrop = 1.6;
  const auto place = [&](double at) { return at / options_.scale - 0.5; };
  const CFrameMap::Bounds bounds =
      map.Inverse().BoundsOf(place(-1), place(y0 - 1), place(width_ + 1), place(y1 + 1));
  if (!(bounds.top <= bounds.bottom)) return {};
  const auto row = [&](double y) { return static_cast<int>(std::clamp(y, 0.0, 1.0 * height)); };
  const Rows rows{row(std::floor(bounds.top - kDrop)), row(std::ceil(bounds.bottom + kDrop) + 1)};
  return rows.first < rows.end ? rows : Rows();
}

void CImgDrizzle::PlaceRow(const CFrameMap& map, int y, std::vector<double>& xs, std::vector<double>& ys) {
  const auto width = static_cast<int>(xs.size());
  MapRows(map, width, y, 1).Along(0, 0, width, xs.data(), ys.data());
}

void CImgDrizzle::Add(const Band<const float>& values, const Band<const float>& weights, const CFrameMap& map,
                      const SitePlanes* sites) {
  KORIMG_ASSERT(values.Planes() == (sites ? 1 : planes_) && weights.Planes() == values.Planes());
  const int width = values.Width(), threads = std::max(CParallel::GetMaxThreads(), 1);
  const int slice = (rows_ + threads - 1) / threads, slices = rows_ > 0 ? (rows_ + slice - 1) / slice : 0;
  const double half = options_.pixfrac / 2;
  ForLines(Team::All, 0, slices, [&](int number) {
    const int top = top_ + number * slice, end = std::min(top + slice, top_ + rows_);
    const Rows rows = RowsOf(map, values.Bottom(), top, end);
    Drops drops;
    /// Drop i falls on a plane.
    const auto drop = [&](int i, int plane, float value, float weight) {
      if (!(weight > 0) || !std::isfinite(weight) || !std::isfinite(value)) return;
      const int left = drops.column[i], first = std::max(left, 0),
                last = std::min(left + drops.across, width_) - 1;
      for (int y = std::max(drops.row[i], top); y < std::min(drops.row[i] + drops.down, end); ++y) {
        Sum* const sums = sums_.data() + (1L * plane * rows_ + y - top_) * width_;
        for (int x = first; x <= last; ++x) {
          const float share = drops.Of(i, x - left, y - drops.row[i]);
          if (!(share > kLeast)) continue;
          const double counts = 1.0 * share * weight;
          sums[x].values += counts * value;
          sums[x].weights += counts;
        }
      }
    };
    for (int y = std::max(rows.first, values.Top()); y < std::min(rows.end, values.Bottom()); ++y) {
      const MapRows upper(map, width, y - half, 1), lower(map, width, y + half, 1);
      for (int x0 = 0; x0 < width; x0 += kAtOnce) {
        const int n = std::min(kAtOnce, width - x0);
        drops.Place(options_, upper, lower, x0, n, width_, height_);
        if (drops.bottom <= top || drops.top >= end) continue;
        drops.Share(options_.kernel);
        for (int p = 0; p < values.Planes(); ++p) {
          const float *value = values.Row(p, y).data() + x0, *weight = weights.Row(p, y).data() + x0;
          for (int i = 0; i < n; ++i) {
            const int plane = sites ? (*sites)[y & 3][(x0 + i) & 3] : p;
            if (plane >= 0) drop(i, plane, value[i], weight[i]);
          }
        }
      }
    }
  });
}

void CImgDrizzle::Take(const Band<float>& means, const Band<float>& weights) const {
  ForLines(Team::All, 0, rows_, [&](int y) {
    for (int p = 0; p < planes_; ++p) {
      const Sum* sums = sums_.data() + (1L * p * rows_ + y) * width_;
      float *mean = means.Plane(p)[y].data(), *weight = weights.Plane(p)[y].data();
      for (int x = 0; x < width_; ++x) {
        weight[x] = static_cast<float>(sums[x].weights);
        mean[x] = sums[x].weights > 0 ? static_cast<float>(sums[x].values / sums[x].weights)
                                      : std::numeric_limits<float>::quiet_NaN();
      }
    }
  });
}
