#include "korimg/measurement/CStarMatcher.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <optional>
#include <tuple>
#include <utility>

#include "korimg/measurement/internal/PointGrid.h"
#include "korimg/measurement/internal/RigidFit.h"

using namespace korimg;

namespace {

/// The brightest stars that make triangles and that are fitted, and with how many neighbours each makes them.
/// Chosen: docs/performance.md, "Stars and registration", tells the time that they take.
constexpr size_t kPatternStars = 200, kFitStars = 2000;
constexpr int kNeighbours = 7;
/// Among more stars than these some triangle looks like any three. Chosen.
constexpr size_t kFewForThree = 30;
/// Pixels by which the sides of two triangles of the same stars may differ, and by which the whole patterns
/// may, laid on each other by a triangle. Chosen: centroids are off by far less.
constexpr double kSideError = 1, kPatternError = 3;

/// Corners opposite to the longest, the middle and the shortest side, and what does not change with scale.
struct Triangle {
  std::array<int, 3> corners;
  double longest, middleShare, shortestShare;
  bool clockwise;
};

/// Adds a triangle to a list, in every order of its corners in which no side is longer than the one before by
/// more than `slack`.
void AddTriangle(const std::vector<Point>& points, std::array<int, 3> corners, double slack,
                 std::vector<Triangle>& triangles) {
  constexpr double kShortest = 3, kFlattest = 0.01;  // pixels; area in the longest side's square: chosen
  std::sort(corners.begin(), corners.end());
  do {
    const Point &p = points[corners[0]], &q = points[corners[1]], &r = points[corners[2]];
    const double a = Distance(q, r), b = Distance(r, p), c = Distance(p, q);
    const double area = (q.x - p.x) * (r.y - p.y) - (q.y - p.y) * (r.x - p.x);
    if (c < kShortest || std::abs(area) < kFlattest * a * a) return;
    if (a >= b - slack && b >= c - slack) triangles.push_back({corners, a, b / a, c / a, area > 0});
  } while (std::next_permutation(corners.begin(), corners.end()));
}

std::vector<Triangle> Triangles(const std::vector<Point>& points, double slack) {
  const int count = static_cast<int>(points.size()), near = std::min(count - 1, kNeighbours);
  std::vector<std::array<int, 3>> corners;
  std::vector<std::pair<double, int>> others(count);
  for (int i = 0; i < count; ++i) {
    for (int k = 0; k < count; ++k) {
      others[k] = {k == i ? -1 : Distance(points[i], points[k]), k};
    }
    std::partial_sort(others.begin(), others.begin() + near + 1, others.end());
    for (int j = 1; j <= near; ++j) {
      for (int k = j + 1; k <= near; ++k) {
        corners.push_back({i, others[j].second, others[k].second});
        std::sort(corners.back().begin(), corners.back().end());
      }
    }
  }
  std::sort(corners.begin(), corners.end());
  corners.erase(std::unique(corners.begin(), corners.end()), corners.end());
  std::vector<Triangle> triangles;
  for (const auto& three : corners) {
    AddTriangle(points, three, slack, triangles);
  }
  std::stable_sort(triangles.begin(), triangles.end(),
                   [](const Triangle& s, const Triangle& t) { return s.middleShare < t.middleShare; });
  return triangles;
}

/// The first `most` of a list that do not crowd in one of 8 x 8 zones; others when there are too few.
std::vector<CStar> Spread(const std::vector<CStar>& stars, size_t most) {
  constexpr int kZones = 8;
  if (stars.size() <= most) return stars;
  const auto range = [&](double CStar::*part) {
    const auto [low, high] = std::minmax_element(
        stars.begin(), stars.end(), [&](const CStar& s, const CStar& t) { return s.*part < t.*part; });
    return std::pair((*low).*part, std::max((*high).*part - (*low).*part, 1e-6));
  };
  const auto [left, width] = range(&CStar::x);
  const auto [top, height] = range(&CStar::y);
  const auto zone = [](double along) { return std::min(static_cast<int>(along * kZones), kZones - 1); };
  std::array<size_t, kZones * kZones> taken{};
  const size_t share = 2 * most / taken.size() + 1;
  std::vector<CStar> spread, rest;
  for (const CStar& star : stars) {
    size_t& here = taken[zone((star.y - top) / height) * kZones + zone((star.x - left) / width)];
    (here < share ? spread : rest).push_back(star);
    ++here;
  }
  spread.insert(spread.end(), rest.begin(), rest.end());
  spread.resize(most);
  return spread;
}

/// One over the square of what a position may be off by: half the FWHM over the signal to noise, which is
/// between 0.42 of it for a Gaussian's own photons and 0.60 for the sky's, beside pixels that were chosen.
double WeightOf(const CStar& star) {
  constexpr double kBest = 0.015, kFlagged = 0.3, kUnknown = 0.1;
  const double photons = star.snr > 0 && star.fwhm > 0 ? 0.5 * star.fwhm / star.snr : kUnknown;
  const double flagged = star.flags != 0 ? kFlagged : 0;
  return 1 / (kBest * kBest + photons * photons + flagged * flagged);
}

}  // namespace

namespace korimg {

/// A list of stars made ready.
struct StarField {
  std::vector<Point> pattern;  ///< the stars of the triangles
  PointGrid patternGrid;
  std::vector<double> fluxes;  ///< of the same
  std::vector<Triangle> triangles;
  PointGrid grid;  ///< of the stars of the fit
  std::vector<double> weights;

  double PatternArea() const {
    double left = pattern[0].x, right = left, top = pattern[0].y, bottom = top;
    for (const Point& p : pattern) {
      left = std::min(left, p.x);
      right = std::max(right, p.x);
      top = std::min(top, p.y);
      bottom = std::max(bottom, p.y);
    }
    return std::max((right - left) * (bottom - top), 1.0);
  }

  /// Mirrored, columns count from right to left.
  StarField(std::vector<CStar> stars, double slack, bool mirrored)
      : StarField(CStarMatcher::Select(std::move(stars)), slack, mirrored ? -1 : 1) {}

 private:
  StarField(const std::vector<CStar>& stars, double slack, int direction)
      : pattern(PointsOf(Spread(stars, kPatternStars), direction)),
        patternGrid(pattern),
        triangles(Triangles(pattern, slack)),
        grid(PointsOf(stars, direction)) {
    for (const CStar& star : Spread(stars, kPatternStars)) {
      fluxes.push_back(star.flux);
    }
    for (const CStar& star : stars) {
      weights.push_back(WeightOf(star));
    }
  }

  static std::vector<Point> PointsOf(const std::vector<CStar>& stars, int direction) {
    std::vector<Point> points;
    for (const CStar& star : stars) {
      points.push_back({direction * star.x, star.y});
    }
    return points;
  }
};

}  // namespace korimg

namespace {

/// Two triangles of the same shape: how the one comes to lie on the other.
struct Hypothesis {
  Similarity map;
  bool rigid;
  double error;  ///< of the shape, relative
};

/// The best `most` hypotheses, the best one first, and how many there are in all.
std::pair<std::vector<Hypothesis>, long long> Hypotheses(const StarField& stars, const StarField& reference,
                                                         size_t most) {
  constexpr double kRigid = 0.01;  // chosen: scales nearer to 1 are tried first
  const auto isBetter = [](const Hypothesis& g, const Hypothesis& h) {
    return std::tuple(!g.rigid, g.error) < std::tuple(!h.rigid, h.error);
  };
  std::vector<Hypothesis> found;
  long long all = 0;
  // Of stars that crowd there are millions.
  const auto keepBest = [&] {
    std::stable_sort(found.begin(), found.end(), isBetter);
    if (found.size() > most) found.resize(most);
  };
  for (const Triangle& t : stars.triangles) {
    const double own = kSideError / t.longest;
    const auto before = [](const Triangle& s, double share) { return s.middleShare < share; };
    const double widest = 2 * own + 0.02;
    for (auto r = std::lower_bound(reference.triangles.begin(), reference.triangles.end(),
                                   t.middleShare - widest, before);
         r != reference.triangles.end() && r->middleShare <= t.middleShare + widest; ++r) {
      const double error = std::min(own + kSideError / r->longest, widest);
      if (r->clockwise != t.clockwise || std::abs(r->middleShare - t.middleShare) > error ||
          std::abs(r->shortestShare - t.shortestShare) > error) {
        continue;
      }
      std::vector<Pair> pairs;
      for (int k = 0; k < 3; ++k) {
        pairs.push_back({stars.pattern[t.corners[k]], reference.pattern[r->corners[k]]});
      }
      const Similarity map = Fit(pairs, false);
      found.push_back({map, std::abs(map.Scale() - 1) < kRigid + error, error});
      ++all;
      if (found.size() == 8 * most) keepBest();
    }
  }
  keepBest();
  return {std::move(found), all};
}

/// How many stars have to meet where `expected` do by chance, beside those of the hypothesis, so that one
/// trial in a thousand searches at most is taken in. Beyond `possible`, which cannot meet, it does not count.
double LeastAgreement(double expected, double hypotheses, double possible) {
  constexpr double kMistaken = 1e-3;
  double more = 0;
  // The chance of so many is less than the expected number to that power over its factorial.
  for (double chance = 1; hypotheses * chance > kMistaken && more <= possible;) {
    ++more;
    chance *= expected / more;
  }
  return more;
}

/// How many of the first `count` stars may meet by chance, where `meet` of them do: those that lie farther
/// around tell, as stars that crowd meet more often than even ones.
double CrowdAround(const std::vector<Point>& stars, const PointGrid& reference, size_t count,
                   const Similarity& map, double radius, double meet) {
  constexpr double kWider = 10;  // chosen
  double around = -meet;
  for (size_t i = 0; i < std::min(stars.size(), count); ++i) {
    reference.ForNear(map(stars[i]), kWider * radius,
                      [&](int k, double) { around += static_cast<size_t>(k) < count; });
  }
  return around / (kWider * kWider);
}

/// The map under which most stars of the patterns meet. False when chance would do as well.
bool FindAgreement(const StarField& stars, const StarField& reference, Similarity& best) {
  constexpr size_t kMost = 20000;  // chosen, to bound the time
  constexpr double kEnough = 0.4;  // chosen: with so many of the stars no better map is looked for
  const double count = static_cast<double>(std::min(stars.pattern.size(), reference.pattern.size()));
  const auto [hypotheses, found] = Hypotheses(stars, reference, kMost);
  const auto all = static_cast<double>(found);
  if (count <= 3) {
    // Three stars agree with their own triangle whatever they are.
    const auto rigid =
        std::count_if(hypotheses.begin(), hypotheses.end(), [](const Hypothesis& h) { return h.rigid; });
    if (rigid != 1 || std::max(stars.pattern.size(), reference.pattern.size()) > kFewForThree) return false;
  }
  const double even = static_cast<double>(stars.pattern.size() * reference.pattern.size()) *
                      std::numbers::pi * kPatternError * kPatternError / reference.PatternArea();
  const auto exceedsChance = [&](const Similarity& map, double meet) {
    if (count <= 3) return meet >= 3;
    const double crowd =
        CrowdAround(stars.pattern, reference.patternGrid, kPatternStars, map, kPatternError, meet);
    return meet >= 3 + LeastAgreement(std::max(even, crowd), all, count);
  };
  double most = 0;
  bool agrees = false;
  std::vector<char> taken(reference.pattern.size());
  for (const Hypothesis& h : hypotheses) {
    double meet = 0;
    std::fill(taken.begin(), taken.end(), 0);
    for (const Point& p : stars.pattern) {
      const int i = reference.patternGrid.Nearest(h.map(p), kPatternError);
      if (i >= 0 && !std::exchange(taken[i], 1)) ++meet;
    }
    if (meet <= most) continue;
    most = meet;
    best = h.map;
    agrees = exceedsChance(best, most);
    if (agrees && most >= kEnough * count) break;
  }
  return agrees;
}

/// The pairs of stars that a map brings within a radius, each star of the reference once.
std::vector<Pair> PairsOf(const StarField& stars, const StarField& reference, const Similarity& map,
                          double radius) {
  const std::vector<Point>&from = stars.grid.Points(), &to = reference.grid.Points();
  std::vector<int> partner(to.size(), -1);
  for (int i = 0; i < static_cast<int>(from.size()); ++i) {
    const int k = reference.grid.Nearest(map(from[i]), radius);
    if (k < 0) continue;
    const bool nearer =
        partner[k] < 0 || Distance(map(from[i]), to[k]) < Distance(map(from[partner[k]]), to[k]);
    if (nearer) partner[k] = i;
  }
  std::vector<Pair> pairs;
  for (size_t k = 0; k < to.size(); ++k) {
    const int i = partner[k];
    if (i >= 0) pairs.push_back({from[i], to[k], 1 / (1 / stars.weights[i] + 1 / reference.weights[k])});
  }
  return pairs;
}

/// Finds pairs from those that a map brings together outwards: each star where the stars around it say.
class PairGrower {
 public:
  PairGrower(const StarField& stars, const StarField& reference)
      : stars_(stars),
        reference_(reference),
        partner_(stars.grid.Points().size(), -1),
        taken_(reference.grid.Points().size(), -1) {
    // Wrong neighbours are much farther apart than that. Of the mean distance, and pixels; chosen.
    constexpr double kShare = 0.12, kLeast = 1;
    radius_ = std::clamp(kShare * SpacingOf(reference), kLeast, kPatternError);
    reach_ = kReach * SpacingOf(stars);
  }

  std::vector<Pair> Grow(const Similarity& start) {
    constexpr int kRounds = 60;  // chosen
    around_ = start;
    const std::vector<Point>& from = stars_.grid.Points();
    for (int i = 0; i < Count(); ++i) {
      Take(i, reference_.grid.Nearest(start(from[i]), radius_));
    }
    LeaveOutLonely();
    for (int round = 0; round < kRounds; ++round) {
      const int before = pairs_;
      Near paired(*this);
      for (int i = 0; i < Count(); ++i) {
        if (partner_[i] >= 0) continue;
        if (const auto place = paired.PlaceOf(i)) Take(i, reference_.grid.Nearest(*place, radius_));
      }
      if (pairs_ == before) break;
    }
    LeaveOutLonely();
    std::vector<Pair> pairs;
    for (size_t k = 0; k < taken_.size(); ++k) {
      const int i = taken_[k];
      if (i < 0) continue;
      pairs.push_back(
          {from[i], reference_.grid.Points()[k], 1 / (1 / stars_.weights[i] + 1 / reference_.weights[k])});
    }
    return pairs;
  }

 private:
  static constexpr double kReach = 4;                 // of the mean distance of stars; chosen
  static constexpr size_t kFewest = 4, kEnough = 10;  // neighbours: three settle a plane

  /// The pairs of this moment.
  struct Near {
    const PairGrower& grower;
    std::vector<int> numbers;
    PointGrid grid;

    explicit Near(const PairGrower& grower) : grower(grower), grid(PointsOf(grower, numbers)) {}

    static std::vector<Point> PointsOf(const PairGrower& grower, std::vector<int>& numbers) {
      std::vector<Point> points;
      for (int i = 0; i < grower.Count(); ++i) {
        if (grower.partner_[i] < 0) continue;
        numbers.push_back(i);
        points.push_back(grower.stars_.grid.Points()[i]);
      }
      return points;
    }

    /// Where star i lies on the reference by a plane through its neighbours' moves; none without enough.
    std::optional<Point> PlaceOf(int i) const {
      const Point& p = grower.stars_.grid.Points()[i];
      std::vector<std::pair<double, int>> found;
      grid.ForNear(p, grower.reach_, [&](int k, double distance2) {
        if (numbers[k] != i) found.emplace_back(distance2, numbers[k]);
      });
      if (found.size() < kFewest) return std::nullopt;
      const size_t count = std::min(found.size(), kEnough);
      std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(count), found.end());
      // The slope of what the first map leaves is 0.1 at most, about, and a place is known to 0.2 pixels.
      constexpr double kFlat = 4;
      double sx = 0, sy = 0, sxx = kFlat, sxy = 0, syy = kFlat;
      Point sum, sumX, sumY;
      for (size_t n = 0; n < count; ++n) {
        const int k = found[n].second;
        const Point& q = grower.stars_.grid.Points()[k];
        const Point is = grower.reference_.grid.Points()[grower.partner_[k]], at = grower.around_(q);
        const double x = q.x - p.x, y = q.y - p.y, dx = is.x - at.x, dy = is.y - at.y;
        sx += x, sy += y, sxx += x * x, sxy += x * y, syy += y * y;
        sum = {sum.x + dx, sum.y + dy};
        sumX = {sumX.x + x * dx, sumX.y + x * dy};
        sumY = {sumY.x + y * dx, sumY.y + y * dy};
      }
      // The height of the plane at the star itself.
      const double n = static_cast<double>(count);
      const double a = sxx * syy - sxy * sxy, b = sxy * sy - sx * syy, c = sx * sxy - sxx * sy;
      const double determinant = n * a + sx * b + sy * c;
      const Point start = grower.around_(p);
      return Point{start.x + (a * sum.x + b * sumX.x + c * sumY.x) / determinant,
                   start.y + (a * sum.y + b * sumX.y + c * sumY.y) / determinant};
    }
  };

  int Count() const { return static_cast<int>(partner_.size()); }

  static double SpacingOf(const StarField& field) {
    return std::sqrt(field.PatternArea() / static_cast<double>(field.grid.Points().size()));
  }

  /// Pairs star i with one of the reference that is free.
  void Take(int i, int k) {
    if (k < 0 || taken_[k] >= 0) return;
    partner_[i] = k;
    taken_[k] = i;
    ++pairs_;
  }

  /// Parts pairs that do not lie where their neighbours say.
  void LeaveOutLonely() {
    constexpr int kRounds = 4;  // chosen
    for (int round = 0; round < kRounds; ++round) {
      const Near paired(*this);
      std::vector<int> wrong;
      for (const int i : paired.numbers) {
        const auto place = paired.PlaceOf(i);
        if (!place || Distance(*place, reference_.grid.Points()[partner_[i]]) > radius_) wrong.push_back(i);
      }
      for (const int i : wrong) {
        taken_[partner_[i]] = -1;
        partner_[i] = -1;
        --pairs_;
      }
      if (wrong.empty()) return;
    }
  }

  const StarField& stars_;
  const StarField& reference_;
  std::vector<int> partner_, taken_;  ///< of each star of the frame and of the reference
  int pairs_ = 0;
  double radius_ = 1, reach_ = 1;
  Similarity around_;
};

/// Pixels by which two stars alone have to move: what stays may be the sensor's own. Chosen.
constexpr double kLeastMoved = 0.5;

/// Stars of which couples are made. Chosen: they make 435.
constexpr size_t kBrightest = 30;

/// Two stars of a list. Their order counts.
struct Couple {
  int first, second;
  double length;
};

/// Of the brightest stars, by growing length.
std::vector<Couple> Couples(const StarField& field) {
  constexpr double kShortest = 10;  // pixels, chosen: shorter ones tell little of the turn
  const int count = static_cast<int>(std::min(field.pattern.size(), kBrightest));
  std::vector<Couple> couples;
  for (int i = 0; i < count; ++i) {
    for (int k = 0; k < count; ++k) {
      const double length = Distance(field.pattern[i], field.pattern[k]);
      if (i != k && length >= kShortest) couples.push_back({i, k, length});
    }
  }
  std::stable_sort(couples.begin(), couples.end(),
                   [](const Couple& a, const Couple& b) { return a.length < b.length; });
  return couples;
}

/// The shift and turn that lay two stars on two as far from each other and that chance explains least. False
/// when it explains them well enough.
bool FindTurn(const StarField& stars, const StarField& reference, double area, Similarity& best) {
  // Pixels, radians, times as bright, and the chance of a mistake. Chosen: of six layouts of two to five
  // stars, turned by up to 2 degrees, corners of 700 x 500 pixels are off by 0.01 to 0.13 px.
  constexpr double kLengthError = 1, kRadius = 1.5, kLeastTurn = 0.01, kBrighter = 2, kMistaken = 1e-3;
  const std::vector<Couple> ours = Couples(stars), theirs = Couples(reference);
  const double tried = 0.5 * static_cast<double>(ours.size()) * static_cast<double>(theirs.size());
  const auto count = [](const StarField& field) {
    return static_cast<double>(std::min(field.pattern.size(), kBrightest));
  };
  const double others =
      (count(stars) - 2) * (count(reference) - 2) * std::numbers::pi * kRadius * kRadius / area;
  double least = kMistaken;
  std::vector<char> taken(reference.pattern.size());
  for (const Couple& a : ours) {
    if (a.first > a.second) continue;
    const auto before = [](const Couple& c, double length) { return c.length < length; };
    for (auto b = std::lower_bound(theirs.begin(), theirs.end(), a.length - kLengthError, before);
         b != theirs.end() && b->length <= a.length + kLengthError; ++b) {
      const Similarity map = Fit({{stars.pattern[a.first], reference.pattern[b->first]},
                                  {stars.pattern[a.second], reference.pattern[b->second]}},
                                 true);
      int meet = 0;
      bool moves = false;
      std::fill(taken.begin(), taken.end(), 0);
      for (size_t i = 0; i < std::min(stars.pattern.size(), kBrightest); ++i) {
        const Point to = map(stars.pattern[i]);
        const int k = reference.patternGrid.Nearest(to, kRadius);
        if (k < 0 || k >= static_cast<int>(kBrightest) || std::exchange(taken[k], 1)) continue;
        ++meet;
        moves |= Distance(stars.pattern[i], to) >= kLeastMoved;
      }
      const double brighter = stars.fluxes[a.first] / stars.fluxes[a.second] *
                              (reference.fluxes[b->second] / reference.fluxes[b->first]);
      if (meet < 2 || (meet == 2 && !(moves && brighter < kBrighter && brighter > 1 / kBrighter))) continue;
      // With the first stars on each other, the second ones have to meet in a part of a ring.
      const double turn = std::max(std::abs(std::atan2(map.b, map.a)), kLeastTurn);
      const auto chanceOf = [&](double expected) {
        double chance = tried * 4 * kLengthError * a.length * turn / area;
        for (int more = 1; more <= meet - 2; ++more) {
          chance *= expected / more;
        }
        return chance;
      };
      if (chanceOf(others) >= least) continue;
      const double chance = chanceOf(std::max(
          others, CrowdAround(stars.pattern, reference.patternGrid, kBrightest, map, kRadius, meet)));
      if (chance >= least) continue;
      least = chance;
      best = map;
    }
  }
  return least < kMistaken;
}

/// The shift that lays the brightest star on the reference's brightest one, if others meet then. False when
/// chance would do as well, and for what has not moved.
bool FindShift(const StarField& stars, const StarField& reference, double area, std::vector<Pair>& pairs) {
  constexpr double kRadius = 1;  // pixels; chosen
  const std::vector<Point>&from = stars.grid.Points(), &to = reference.grid.Points();
  if (Distance(from[0], to[0]) < kLeastMoved) return false;
  const Similarity shift{1, 0, to[0].x - from[0].x, to[0].y - from[0].y};
  pairs = PairsOf(stars, reference, shift, kRadius);
  const auto meet = static_cast<double>(pairs.size());
  const double others = static_cast<double>((from.size() - 1) * (to.size() - 1));
  const double even = others * std::numbers::pi * kRadius * kRadius / area;
  const double crowd = CrowdAround(from, reference.grid, kFitStars, shift, kRadius, meet);
  return meet >= 1 + LeastAgreement(std::max(even, crowd), 1, meet);
}

/// By weighted least squares.
Similarity FitShift(const std::vector<Pair>& pairs) {
  double weight = 0, x = 0, y = 0;
  for (const Pair& p : pairs) {
    weight += p.weight;
    x += p.weight * (p.to.x - p.from.x);
    y += p.weight * (p.to.y - p.from.y);
  }
  return {1, 0, x / weight, y / weight};
}

/// What a fit leaves open, by the weights of its pairs and the distances that it leaves.
struct FitError {
  double shift = 0, turn = 0;  ///< deviations: of the pairs' middle, and in radians about it
  double corner = 0;           ///< of the corner farthest from there
};

FitError ErrorOf(const std::vector<Pair>& pairs, const Similarity& map, int width, int height) {
  double weight = 0, lever = 0, left = 0;
  Point middle;
  for (const Pair& p : pairs) {
    weight += p.weight;
    middle = {middle.x + p.weight * p.from.x, middle.y + p.weight * p.from.y};
  }
  middle = {middle.x / weight, middle.y / weight};
  for (const Pair& p : pairs) {
    const double r = Distance(p.from, middle), d = Distance(map(p.from), p.to);
    lever += p.weight * r * r;
    left += p.weight * d * d;
  }
  const double unknown = std::max(2.0 * static_cast<double>(pairs.size()) - 3, 1.0);
  const double wider = std::max(left / unknown, 1.0);
  FitError error{std::sqrt(2 * wider / weight), std::sqrt(wider / lever), 0};
  for (const Point& corner :
       {Point{0, 0}, Point{1.0 * width, 0}, Point{0, 1.0 * height}, Point{1.0 * width, 1.0 * height}}) {
    error.corner = std::max(error.corner, std::hypot(error.shift, error.turn * Distance(corner, middle)));
  }
  return error;
}

/// Shift and turn of few stars, or the shift alone where the turn is lost in what it may be off by.
Similarity FitFew(std::vector<Pair>& pairs, double limit, int width, int height) {
  constexpr double kSeen = 3;  // deviations; chosen
  const Similarity map = RobustFit(pairs, true);
  const FitError error = ErrorOf(pairs, map, width, height);
  const bool tells = error.corner <= limit || std::abs(std::atan2(map.b, map.a)) > kSeen * error.turn;
  return tells ? map : FitShift(pairs);
}

std::vector<CStarPair> StarPairsOf(const std::vector<Pair>& pairs) {
  std::vector<CStarPair> all;
  for (const Pair& pair : pairs) {
    all.push_back({pair.from, pair.to, pair.weight});
  }
  return all;
}

}  // namespace

CStarMatcher::CStarMatcher(const std::vector<CStar>& reference)
    : reference_(std::make_unique<StarField>(reference, 0.0, false)) {}

CStarMatcher::~CStarMatcher() = default;

std::vector<CStar> CStarMatcher::Select(std::vector<CStar> stars) {
  constexpr double kFarthest = 1e9;  // pixels; differences and areas of what is nearer are numbers
  std::erase_if(stars, [](const CStar& s) {
    return !(std::abs(s.x) <= kFarthest && std::abs(s.y) <= kFarthest && s.flux == s.flux);
  });
  std::sort(stars.begin(), stars.end(), [](const CStar& s, const CStar& t) {
    return std::tuple(-s.flux, s.y, s.x) < std::tuple(-t.flux, t.y, t.x);
  });
  return Spread(stars, kFitStars);
}

CStarMatch CStarMatcher::Match(const std::vector<CStar>& list, int width, int height) const {
  constexpr size_t kFewest = 2;
  CStarMatch match;
  const StarField stars(list, kSideError, false);
  if (stars.pattern.size() < kFewest || reference_->pattern.size() < kFewest) return match;
  const double area = 1.0 * width * height;
  Similarity map, rigid;
  std::vector<Pair> pairs;
  bool isFew = false;
  if (FindAgreement(stars, *reference_, map)) {
    constexpr double kNearest = 1;  // pixels, chosen: pairs that are nearer are never left out
    const Similarity found = map;
    double radius = kPatternError;
    for (int round = 0; round < 4; ++round) {
      pairs = PairsOf(stars, *reference_, map, radius);
      map = RobustFit(pairs, false);
      radius = std::clamp(4 * RootMeanSquare(pairs, map), kNearest, kPatternError);
    }
    match.scale = map.Scale();
    match.pairs = StarPairsOf(PairsOf(stars, *reference_, map, radius));
    rigid = RobustFit(pairs, true);
    constexpr double kApart = 0.3;  // pixels, chosen: far above what centroids are off by
    if (RootMeanSquare(pairs, rigid) > kApart) {
      auto grown = StarPairsOf(PairGrower(stars, *reference_).Grow(found));
      if (grown.size() > match.pairs.size()) match.pairs = std::move(grown);
    }
  } else if (FindTurn(stars, *reference_, area, map)) {
    pairs = PairsOf(stars, *reference_, map, kPatternError);
    isFew = true;
  } else if (FindAgreement(StarField(list, kSideError, true), *reference_, map)) {
    match.status = CStarMatch::Mirrored;
    return match;
  } else if (FindShift(stars, *reference_, area, pairs)) {
    isFew = true;
  } else {
    match.status = CStarMatch::NoMatch;
    return match;
  }
  if (isFew) {
    rigid = FitFew(pairs, residualLimit_, width, height);
    // What two or three stars agree to is not enough to say what else may be wrong with the frame.
    if (RootMeanSquare(pairs, rigid) > residualLimit_) {
      match.status = CStarMatch::NoMatch;
      return match;
    }
    match.pairs = StarPairsOf(pairs);
  }
  const Pose pose = PoseOf(rigid, width, height);
  match.dx = pose.dx;
  match.dy = pose.dy;
  match.degrees = pose.degrees;
  match.residual = RootMeanSquare(pairs, rigid);
  match.cornerError = ErrorOf(pairs, rigid, width, height).corner;
  match.stars = static_cast<int>(pairs.size());
  match.status = match.residual <= residualLimit_ ? CStarMatch::Ok : CStarMatch::ResidualTooLarge;
  return match;
}
