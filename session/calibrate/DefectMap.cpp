#include "session/calibrate/internal/DefectMap.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "korimg/calibration/MedianOfFrames.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/SortingNetwork.h"
#include "korimg/image/internal/Vectors.h"

#include "session/develop/Develop.h"
#include "session/files/Mosaic.h"
#include "session/picture/Image.h"

namespace korimg::session {

namespace {

constexpr int kColours = 3;

/// The median of numbers, which change places; of an even count the mean of the middle two.
float MedianOf(std::vector<float>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  if (values.size() % 2) return *middle;
  return 0.5f * (*middle + *std::max_element(values.begin(), middle));
}

/// Level and deviation of a colour.
struct Spread {
  float level = 0, sigma = 0;
};

/// By some two million pixels in whole cells of rows, spread evenly: they tell a median to 0.1 % of sigma.
std::array<Spread, kColours> SpreadsOf(CVelImage& image, const SameColour& colours) {
  constexpr long long kEnough = 2'000'000;
  const long long all = 1LL * image.GetWidth() * image.GetHeight();
  const int step = static_cast<int>(std::max(all / kEnough, 1LL));
  std::array<std::vector<float>, kColours> values;
  for (int y = 0; y < image.GetHeight(); ++y) {
    if ((y >> 2) % step != 0) continue;
    const float* line = image.GetLine(0, y, 0);
    for (int x = 0; x < image.GetWidth(); ++x) {
      const int colour = colours.ColourAt(x, y);
      if (colour >= 0 && std::isfinite(line[x])) values[colour].push_back(line[x]);
    }
  }
  std::array<Spread, kColours> spreads;
  for (int c = 0; c < kColours; ++c) {
    if (values[c].empty()) continue;
    const float level = UpperMedian(values[c]);
    for (float& v : values[c]) {
      v = std::abs(v - level);
    }
    float distance = UpperMedian(values[c]);
    if (distance == 0) {
      // Most of the values are one: the others tell the step that they come in.
      std::erase(values[c], 0.0f);
      distance = values[c].empty() ? 0 : *std::min_element(values[c].begin(), values[c].end());
    }
    spreads[c] = {level, static_cast<float>(kSigmasOfMedianDistance) * distance};
  }
  return spreads;
}

/// The defects of all rows, each of which find(y) answers.
template <class F>
std::vector<Defect> Collect(int height, F&& find) {
  std::vector<Defect> all;
  for (const std::vector<Defect>& row : MapLines(0, height, find)) {
    all.insert(all.end(), row.begin(), row.end());
  }
  return all;
}

bool IsInside(const CVelImage& image, int x, int y) {
  return x >= 0 && y >= 0 && x < image.GetWidth() && y < image.GetHeight();
}

/// Calls visit(value) for the first `count` finite pixels at such offsets.
template <class Offsets, class F>
void ForOffsets(CVelImage& image, int x, int y, const Offsets& offsets, F&& visit) {
  for (const auto& [dx, dy] : offsets) {
    if (!IsInside(image, x + dx, y + dy)) continue;
    const float v = *image.GetLine(x + dx, y + dy, 0);
    if (std::isfinite(v)) visit(v);
  }
}

/// The eight pixels that each is compared with: of its colour in every mosaic, and beyond the light of a
/// small star in its place.
constexpr int kRingStep = 4;
constexpr std::array<SameColour::Offset, 8> kRing = {{{-kRingStep, -kRingStep},
                                                      {0, -kRingStep},
                                                      {kRingStep, -kRingStep},
                                                      {-kRingStep, 0},
                                                      {kRingStep, 0},
                                                      {-kRingStep, kRingStep},
                                                      {0, kRingStep},
                                                      {kRingStep, kRingStep}}};

/// Exchanges that bring the fourth and the fifth of eight values into their places, by Batcher's merges.
KORIMG_IN_LOOP inline float MiddleOfEight(float a, float b, float c, float d, float e, float f, float g,
                                          float h) {
  const auto order = [](float& low, float& high) KORIMG_IN_LOOP {
    const float least = low < high ? low : high;
    high = low < high ? high : low;
    low = least;
  };
  order(a, b), order(c, d), order(e, f), order(g, h);
  order(a, c), order(b, d), order(e, g), order(f, h);
  order(b, c), order(f, g);
  // Two sorted fours: the middle two of all are the largest of the lower and the least of the upper half.
  const auto least = [](float p, float q) KORIMG_IN_LOOP { return p < q ? p : q; };
  const auto most = [](float p, float q) KORIMG_IN_LOOP { return p < q ? q : p; };
  const float low = most(most(least(a, h), least(b, g)), most(least(c, f), least(d, e)));
  const float high = least(least(most(a, h), most(b, g)), least(most(c, f), most(d, e)));
  return 0.5f * (low + high);
}

/// What pixels have above the middle of their ring, by bands of a light.
class Lifter {
 public:
  Lifter(int width, int height) : width_(width), height_(height) {}

  /// Row y by rows that hold it and those of its ring. Where the ring leaves the image it mirrors about the
  /// pixel, which stands for what is outside on both sides. Blank pixels stand out by 0.
  void Lift(const Band<float>& rows, int y, float* out) const {
    std::array<const float*, 8> lines;
    for (size_t i = 0; i < kRing.size(); ++i) {
      lines[i] = rows.Row(0, Folded(y, kRing[i].y, height_)).data();
    }
    const float* middle = rows.Row(0, y).data();
    const auto lift = [&](float v, const std::array<float, 8>& n) KORIMG_IN_LOOP {
      const float above = v - MiddleOfEight(n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7]);
      return above - above == 0.0f ? above : 0.0f;
    };
    const int left = std::min(kRingStep, width_), right = std::max(left, width_ - kRingStep);
    for (int x = 0; x < width_; x = x + 1 == left ? right : x + 1) {
      std::array<float, 8> n;
      for (size_t i = 0; i < n.size(); ++i) {
        n[i] = lines[i][Folded(x, kRing[i].x, width_)];
      }
      out[x] = lift(middle[x], n);
    }
    std::array<const float*, 8> at = lines;
    for (size_t i = 0; i < at.size(); ++i) {
      at[i] += kRing[i].x;
    }
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = left; x < right; ++x) {
        out[x] =
            lift(middle[x], {at[0][x], at[1][x], at[2][x], at[3][x], at[4][x], at[5][x], at[6][x], at[7][x]});
      }
    });
  }

 private:
  static int Folded(int at, int offset, int end) {
    for (const int place : {at + offset, at - offset}) {
      if (place >= 0 && place < end) return place;
    }
    return at;
  }

  int width_, height_;
};

/// By how much pixels stand out.
struct Lifts {
  std::unique_ptr<CVelImage> usual;  ///< the median of all lights
  std::unique_ptr<CVelImage> least;  ///< what all but one of five or more show, on the same side of 0
};

Lifts LiftsOf(Job& job, const std::vector<RowSource>& lights, int width, int height,
              const std::shared_ptr<CVmManager>& store) {
  // Chosen: rows at once beside the margins of rings; lights of which one may be left out.
  constexpr int kRows = 128, kMany = 5;
  const int count = static_cast<int>(lights.size()), few = count >= kMany ? 1 : 0;
  const Lifter lifter(width, height);
  const Network network = MakeNetwork(count);
  Lifts lifts{NewImage(store, width, height, 1), NewImage(store, width, height, 1)};
  BandBuffer buffer;
  std::vector<BandBuffer> lifted(count);
  std::vector<Band<float>> bands(count);
  for (int top = 0; top < height; top += kRows) {
    const int rows = std::min(kRows, height - top);
    const int from = std::max(top - kRingStep, 0), to = std::min(top + rows + kRingStep, height);
    for (int i = 0; i < count; ++i) {
      const Band<float> light = buffer.Get(1, width, from, to - from);
      lights[i](light);
      bands[i] = lifted[i].Get(1, width, top, rows);
      ForLines(Team::All, top, top + rows, [&](int y) { lifter.Lift(light, y, bands[i].Row(0, y).data()); });
      job.CheckCancelled();
    }
    ForLines(Team::All, top, top + rows, [&](int y) {
      const auto sorted = [&](int i) { return bands[i].Row(0, y).data(); };
      float *usual = lifts.usual->GetWritableLine(0, y, 0), *least = lifts.least->GetWritableLine(0, y, 0);
      RunInLongVectors([&]() KORIMG_IN_LOOP {
        for (const auto& [a, b] : network) {
          Exchange(sorted(a), sorted(b), width);
        }
        const float *low = sorted(few), *middle = sorted(count / 2), *high = sorted(count - 1 - few);
        for (int x = 0; x < width; ++x) {
          usual[x] = middle[x];
          least[x] = middle[x] > 0.0f ? low[x] : high[x];
        }
      });
    });
    job.JobProgress("looking for hot pixels", top + rows, height);
  }
  job.JobProgress("", 0, 0);
  return lifts;
}

/// Tells whether a pixel that stands out stands alone, by what all pixels stand out.
class Loneliness {
 public:
  Loneliness(const Lifts& lifts, int cfa, const SameColour& colours)
      : lifted_(*lifts.usual), least_(*lifts.least), colours_(colours) {
    if (files::IsHoneycomb(cfa)) beside_ = {{{-1, -1}, {1, -1}, {-1, 1}, {1, 1}}};
  }

  /// It is brighter or darker than the eight pixels about it, but for such as `isDefect` knows: else it may
  /// be the side of a star.
  template <class F>
  bool IsPeak(int x, int y, F&& isDefect) const {
    const float lift = *lifted_.GetLine(x, y, 0);
    for (int j = std::max(y - 1, 0); j <= std::min(y + 1, lifted_.GetHeight() - 1); ++j) {
      for (int i = std::max(x - 1, 0); i <= std::min(x + 1, lifted_.GetWidth() - 1); ++i) {
        if (*lifted_.GetLine(i, j, 0) / lift > 1 && !isDefect(i, j)) return false;
      }
    }
    return true;
  }

  /// It does so in nearly all lights, by no star that passes; by its surroundings, whose deviation may be
  /// more than the sky's, as it is beside stars; and the four pixels beside it do not follow, nor do the
  /// nearest of its colour, which alone see a star through a filter of one line.
  bool IsAlone(int x, int y, float deviations) const {
    const float lift = *lifted_.GetLine(x, y, 0);
    const auto nearest = std::span(colours_.About(x, y)).first(4);
    return *least_.GetLine(x, y, 0) / lift > kLeast && std::abs(lift) > deviations * SigmaAbout(x, y) &&
           !Follow(x, y, lift, beside_) && !Follow(x, y, lift, nearest);
  }

 private:
  /// Of the light of a star of a FWHM of 1.2 pixels at its middle, at least the double falls on the middle
  /// two of the four pixels beside it.
  static constexpr float kShare = 0.15f;
  static constexpr float kLeast = 1.0f / 3;  // chosen: what noise takes of a pixel just found is less

  template <class Offsets>
  bool Follow(int x, int y, float lift, const Offsets& offsets) const {
    std::vector<float> shares;
    ForOffsets(lifted_, x, y, offsets, [&](float v) { shares.push_back(v / lift); });
    return shares.empty() || MedianOf(shares) > kShare;
  }

  float SigmaAbout(int x, int y) const {
    constexpr int kRadius = 3;  // chosen: 48 pixels
    std::vector<float> distances;
    for (int j = y - kRadius; j <= y + kRadius; ++j) {
      for (int i = x - kRadius; i <= x + kRadius; ++i) {
        if ((i == x && j == y) || !IsInside(lifted_, i, j) || colours_.ColourAt(i, j) < 0) continue;
        distances.push_back(std::abs(*lifted_.GetLine(i, j, 0)));
      }
    }
    // Of the upper quartile of a normal distribution's distances: a small star fills no more than that.
    constexpr float kSigmasOfUpperQuartile = 0.8693f;
    if (distances.empty()) return 0;
    const auto quartile = distances.begin() + static_cast<std::ptrdiff_t>(distances.size() * 3 / 4);
    std::nth_element(distances.begin(), quartile, distances.end());
    return kSigmasOfUpperQuartile * *quartile;
  }

  CVelImage &lifted_, &least_;
  const SameColour& colours_;
  std::array<SameColour::Offset, 4> beside_ = {{{0, -1}, {-1, 0}, {1, 0}, {0, 1}}};
};

}  // namespace

SameColour::SameColour(int cfa) {
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      colours_[y][x] = cfa == 0 ? 0 : files::ColourOfSite(cfa, x, y);
    }
  }
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      std::vector<Offset>& offsets = offsets_[y][x];
      for (int dy = -kReach; dy <= kReach; ++dy) {
        for (int dx = -kReach; dx <= kReach; ++dx) {
          const bool isOther = dx != 0 || dy != 0;
          if (isOther && ColourAt(x + dx, y + dy) == colours_[y][x]) offsets.push_back({dx, dy});
        }
      }
      std::stable_sort(offsets.begin(), offsets.end(), [](const Offset& a, const Offset& b) {
        return a.x * a.x + a.y * a.y < b.x * b.x + b.y * b.y;
      });
    }
  }
}

DefectMap::DefectMap(int width, int height, int cfa, std::vector<Defect> defects)
    : width_(width), height_(height), sameColour_(cfa), defects_(std::move(defects)) {
  const auto rowOf = [](const Defect& d, int y) { return d.y < y; };
  for (int y = 0; y <= height; ++y) {
    rows_.push_back(std::lower_bound(defects_.begin(), defects_.end(), y, rowOf) - defects_.begin());
  }
  hot_ = static_cast<int>(
      std::count_if(defects_.begin(), defects_.end(), [](const Defect& d) { return d.isHot; }));
}

bool DefectMap::IsGood(int x, int y) const {
  const auto first = defects_.begin() + static_cast<std::ptrdiff_t>(rows_[y]),
             last = defects_.begin() + static_cast<std::ptrdiff_t>(rows_[y + 1]);
  const auto found =
      std::lower_bound(first, last, x, [](const Defect& d, int column) { return d.x < column; });
  return found == last || found->x != x;
}

void DefectMap::Mend(const RowOf& rowOf, int top, int bottom, const RowOf& varianceOf,
                     const RowOf& maskOf) const {
  constexpr size_t kEnough = 4;  // chosen: their median passes over a neighbour that is not known to be bad
  std::vector<float> near;
  for (size_t i = rows_[top]; i < rows_[bottom]; ++i) {
    const auto [x, y, isHot] = defects_[i];
    float& pixel = rowOf(y)[x];
    if (!std::isfinite(pixel)) continue;
    near.clear();
    int distance = 0;
    double variances = 0;
    for (const auto& [dx, dy] : sameColour_.About(x, y)) {
      const int own = dx * dx + dy * dy;
      if (near.size() >= kEnough && own > distance) break;
      if (x + dx < 0 || x + dx >= width_ || y + dy < 0 || y + dy >= height_) continue;
      const float v = rowOf(y + dy)[x + dx];
      if (!std::isfinite(v) || !IsGood(x + dx, y + dy)) continue;
      near.push_back(v);
      distance = own;
      if (varianceOf) variances += varianceOf(y + dy)[x + dx];
    }
    if (near.empty()) continue;
    pixel = MedianOf(near);
    const auto count = static_cast<double>(near.size());
    if (varianceOf) varianceOf(y)[x] = static_cast<float>(MedianVariance(count) * variances / count);
    // What the defect itself had come to is no longer in the value.
    if (maskOf) maskOf(y)[x] = isHot ? MaskBit::Hot : MaskBit::Cold;
  }
}

std::unique_ptr<CVelImage> DefectMap::ToImage(const std::shared_ptr<CVmManager>& store) const {
  auto image = NewImage(store, width_, height_, 1);
  for (int y = 0; y < height_; ++y) {
    float* line = image->GetWritableLine(0, y, 0);
    std::fill_n(line, width_, 0.0f);
    for (size_t i = rows_[y]; i < rows_[y + 1]; ++i) {
      line[defects_[i].x] = defects_[i].isHot ? 1.0f : -1.0f;
    }
  }
  image->SetLevel(0, -1, 1);
  return image;
}

DefectMap FindDefectsInDark(CVelImage& dark, int cfa) {
  constexpr float kDeviations = 10;  // chosen: noise never reaches them
  const SameColour colours(cfa);
  const auto spreads = SpreadsOf(dark, colours);
  auto defects = Collect(dark.GetHeight(), [&](int y) {
    std::vector<Defect> row;
    std::vector<float> about;
    for (int x = 0; x < dark.GetWidth(); ++x) {
      const int colour = colours.ColourAt(x, y);
      if (colour < 0) continue;
      const float v = *dark.GetLine(x, y, 0), limit = kDeviations * spreads[colour].sigma;
      if (!(std::abs(v - spreads[colour].level) > limit)) continue;
      about.clear();
      ForOffsets(dark, x, y, colours.About(x, y), [&](float near) { about.push_back(near); });
      if (about.empty() || !(std::abs(v - MedianOf(about)) > limit)) continue;
      row.push_back({x, y, v > spreads[colour].level});
    }
    return row;
  });
  return {dark.GetWidth(), dark.GetHeight(), cfa, std::move(defects)};
}

DefectMap FindDefectsInLights(Job& job, const std::vector<RowSource>& lights, int width, int height, int cfa,
                              const std::shared_ptr<CVmManager>& store) {
  // Tried on five lights with 680 hot pixels: 2 to 5 stay visible, stars of a FWHM of 1.2 keep their light.
  constexpr float kDeviations = 5;
  const SameColour colours(cfa);
  const Lifts lifts = LiftsOf(job, lights, width, height, store);
  const auto spreads = SpreadsOf(*lifts.usual, colours);
  const Loneliness loneliness(lifts, cfa, colours);
  auto defects = Collect(height, [&](int y) {
    std::vector<Defect> row;
    const float* line = lifts.usual->GetLine(0, y, 0);
    for (int x = 0; x < width; ++x) {
      const int colour = colours.ColourAt(x, y);
      if (colour < 0 || !(std::abs(line[x]) > kDeviations * spreads[colour].sigma)) continue;
      if (loneliness.IsAlone(x, y, kDeviations)) row.push_back({x, y, line[x] > 0});
    }
    return row;
  });
  const DefectMap alone(width, height, cfa, std::move(defects));
  defects = alone.Defects();
  std::erase_if(defects, [&](const Defect& d) {
    return !loneliness.IsPeak(d.x, d.y, [&](int x, int y) { return !alone.IsGood(x, y); });
  });
  return {width, height, cfa, std::move(defects)};
}

}  // namespace korimg::session
