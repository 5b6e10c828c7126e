#include "korimg/measurement/CPhaseMatcher.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "korimg/composite/CImgComposit.h"
#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/geometry/CInterp.h"
#include "korimg/geometry/fourier/CFft.h"
#include "korimg/geometry/fourier/CImgFourier.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/measurement/CImgLight.h"
#include "korimg/measurement/internal/RigidFit.h"
#include "korimg/measurement/internal/SkyMesh.h"
#include "korimg/platform/CParallel.h"

using namespace korimg;

namespace {

/// Pixels are taken one by one first, then in means of 4 x 4, which show faint and wide light. Chosen.
constexpr int kBins[] = {1, 4};
/// Pixels at the edges that are left out: the sky is not known well beyond the middles of the outer cells.
constexpr int kBorder = 32;
/// Longest side of what is correlated as a whole. Chosen: the accuracy comes of tiles of whole pixels.
constexpr int kWhole = 1024;

std::unique_ptr<CImgFourier> MakePlane(const CVelImage& like, int width, int height) {
  auto plane = std::make_unique<CImgFourier>();
  MakeWorkImage(*plane, CVelImage(like.VmManager(), CImage::Float, width, height, 1, 1.0, 0.0, 1, nullptr));
  return plane;
}

/// Means of bin x bin pixels, with the remainder at the right and the bottom left out, put into a plane.
void PutBinned(CVelImage& image, int bin, CVelImage& plane, int left, int top) {
  const int width = image.GetWidth() / bin, height = image.GetHeight() / bin;
  const float share = 1.0f / static_cast<float>(bin * bin);
  ForLines(Team::All, 0, height, [&](int y) {
    std::vector<float> sums(width);
    for (int k = 0; k < bin; ++k) {
      const float* line = image.GetLine(0, y * bin + k, 0);
      for (int x = 0; x < width * bin; ++x) {
        sums[x / bin] += line[x];
      }
    }
    float* out = plane.GetWritableLine(left, top + y, 0);
    for (int x = 0; x < width; ++x) {
      out[x] = share * sums[x];
    }
  });
}

/// What stands out of the sky by three to fifty deviations, once single pixels are gone. All four limits were
/// chosen; docs/performance.md, "Stars and registration", tells what frames are laid within by them.
std::unique_ptr<CImgFourier> LightOf(CVelImage& image, int bin) {
  constexpr double kSingle = 1.5, kBlur = 1.2;
  constexpr float kLeast = 3, kMost = 50;
  CImgLight withoutSky;
  withoutSky.DoWithoutSky(&image);
  CImgFilterBlur whole;
  MakeWorkImage(whole, withoutSky);
  whole.MedianFilter(kSingle, &withoutSky, nullptr, 0);
  auto light = MakePlane(image, image.GetWidth() / bin, image.GetHeight() / bin);
  PutBinned(whole, bin, *light, 0, 0);
  CImgFilterBlur blurred;
  MakeWorkImage(blurred, *light);
  blurred.GaussianFilter(kBlur, light.get(), nullptr, 0);
  const SkyMesh sky(blurred);
  const int width = light->GetWidth(), height = light->GetHeight();
  light = MakePlane(image, width, height);
  ForLines(Team::All, kBorder, height - kBorder, [&](int y) {
    std::vector<float> level(width), weight(width);
    sky.Levels(0, y, width, level.data());
    sky.Weights(0, y, width, weight.data());
    const float* from = blurred.GetLine(0, y, 0);
    float* to = light->GetWritableLine(0, y, 0);
    for (int x = kBorder; x < width - kBorder; ++x) {
      const float v = (from[x] - level[x]) * weight[x] - kLeast;
      to[x] = v > 0 ? std::min(v, kMost) : 0;
    }
  });
  return light;
}

/// Of pixel positions in means of bin x bin pixels: the same of the pixels themselves.
Similarity Unbinned(Similarity map, int bin) {
  const double half = (bin - 1) * 0.5;
  map.x *= bin;
  map.y *= bin;
  const Similarity before{1, 0, -half, -half}, after{1, 0, half, half};
  return Joined(Joined(before, map), after);
}

/// The second image, laid on the first.
std::unique_ptr<CImgFourier> Laid(CVelImage& first, CVelImage& second, const Similarity& map) {
  constexpr int kFirstAndWeight = 2;
  const Pose pose = PoseOf(map, second.GetWidth(), second.GetHeight());
  CImgComposit laid;
  MakeWorkImage(laid, first);
  laid.Do(&first, &second, pose.dx, pose.dy, pose.degrees, 0, kFirstAndWeight, CInterp::MethodBilinear, 1.0,
          0, 0, 0, 0, nullptr, 0, -1);
  auto result = std::make_unique<CImgFourier>();
  result->Swap(&laid);
  return result;
}

/// Nothing has moved by half a pixel: what the sensor's own pattern shows, whatever the sky does.
bool IsSensors(const Similarity& map, const CVelImage& image) {
  constexpr double kLeast = 0.5;
  const double width = image.GetWidth(), height = image.GetHeight();
  for (const Point& p : {Point{0, 0}, Point{width, 0}, Point{0, height}, Point{width, height}}) {
    if (Distance(map(p), p) > kLeast) return false;
  }
  return true;
}

/// Correlations are made of short loops, whose workers would wait for each other longer than they work.
class OnOneThread {
 public:
  OnOneThread() { CParallel::SetMaxThreads(1); }
  ~OnOneThread() { CParallel::SetMaxThreads(before_); }

 private:
  int before_ = CParallel::GetMaxThreads();
};

struct Shift {
  double x = 0, y = 0, peak = 0;
};

/// Where the second image lies against the first one.
Shift Correlate(CImgFourier& first, CVelImage& second, CRect* rect) {
  Shift shift;
  int width = 0, height = 0;
  first.CalcShiftByPOC(&second, nullptr, 0, rect, shift.x, shift.y, shift.peak, width, height, 0);
  return shift;
}

/// Ways in which the second image may lie on the first, the likelier first; each that is turned over has one
/// that is not.
std::vector<Similarity> Candidates(CImgFourier& first, CImgFourier& second) {
  double degrees = 0;
  int width = 0, height = 0;
  first.CalcRotByRIPOC(&second, nullptr, nullptr, nullptr, degrees, width, height, 0);
  struct Candidate {
    Similarity map;
    double peak;
  };
  std::vector<Candidate> candidates;
  for (const double angle : {0.0, 180.0, -degrees, 180 - degrees}) {
    const Similarity turn = MapOf({0, 0, angle}, second.GetWidth(), second.GetHeight());
    const auto turned = Laid(first, second, turn);
    const Shift shift = Correlate(first, *turned, nullptr);
    if (shift.peak > 0) candidates.push_back({Joined(turn, {1, 0, -shift.x, -shift.y}), shift.peak});
  }
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate& a, const Candidate& b) { return a.peak > b.peak; });
  std::vector<Similarity> maps;
  for (const Candidate& c : candidates) {
    maps.push_back(c.map);
  }
  return maps;
}

/// The displacements that tiles of two images show, and in how many of them both have light.
struct Tiles {
  std::vector<Pair> pairs;
  int lit = 0;
};

/// What is displaced far is left out. All limits were chosen; the error is the same for all tiles.
Tiles CorrelateTiles(CImgFourier& first, CVelImage& second) {
  constexpr int kParts = 4, kLargest = 256, kMostAcross = 6;
  constexpr double kFarthest = 6, kError = 0.1;  // pixels
  const int width = first.GetWidth(), height = first.GetHeight();
  const int side = std::min(CFft::GetFloorPowerOf2(std::min(width, height) / kParts), kLargest);
  Tiles tiles;
  const auto count = [&](int size) { return std::clamp(size / side, 2, kMostAcross); };
  const int across = count(width), down = count(height);
  for (int j = 0; j < down; ++j) {
    for (int i = 0; i < across; ++i) {
      const int left = (width - side) * i / (across - 1), top = (height - side) * j / (down - 1);
      CRect rect(left, top, left + side, top + side);
      const Shift shift = Correlate(first, second, &rect);
      if (!(shift.peak > 0)) continue;
      ++tiles.lit;
      if (!(std::hypot(shift.x, shift.y) <= kFarthest)) continue;
      const Point middle{left + side * 0.5, top + side * 0.5};
      tiles.pairs.push_back({{middle.x + shift.x, middle.y + shift.y}, middle, 1 / (kError * kError)});
    }
  }
  return tiles;
}

/// A first guess, made better by tiles.
struct Refined {
  Similarity map, correction;
  Tiles tiles;

  Refined(CImgFourier& first, CImgFourier& second, const Similarity& guess) : map(guess) {
    constexpr int kRounds = 3;  // chosen
    for (int round = 0; round < kRounds; ++round) {
      const auto laid = Laid(first, second, map);
      tiles = CorrelateTiles(first, *laid);
      if (tiles.pairs.size() < kFewest) break;
      correction = RobustFit(tiles.pairs, true);
      map = Joined(map, correction);
    }
  }

  /// Leaves out the tiles that do not agree. False when too few do.
  bool Agrees() {
    constexpr double kAgreement = 0.75, kShare = 0.4;  // pixels; of the tiles with light: chosen
    std::erase_if(tiles.pairs,
                  [&](const Pair& p) { return Distance(correction(p.from), p.to) > kAgreement; });
    const size_t agree = tiles.pairs.size();
    return agree >= kFewest && static_cast<double>(agree) >= kShare * tiles.lit;
  }

  static constexpr size_t kFewest = 3;  ///< tiles: two settle shift and turn, and none would check them
};

bool IsHalfTurn(const Similarity& map) {
  return map.a < 0;
}

/// How much of the light of two images is the same: 1 when all is.
double Likeness(CVelImage& first, CVelImage& second) {
  struct Sums {
    double both = 0, first = 0, second = 0;
  };
  Sums all;
  for (const Sums& line : MapLines(0, first.GetHeight(), [&](int y) {
         Sums sums;
         float const *a = first.GetLine(0, y, 0), *b = second.GetLine(0, y, 0);
         for (int x = 0; x < first.GetWidth(); ++x) {
           sums.both += static_cast<double>(a[x]) * b[x];
           sums.first += static_cast<double>(a[x]) * a[x];
           sums.second += static_cast<double>(b[x]) * b[x];
         }
         return sums;
       })) {
    all = {all.both + line.both, all.first + line.first, all.second + line.second};
  }
  return all.first > 0 && all.second > 0 ? all.both / std::sqrt(all.first * all.second) : 0;
}

}  // namespace

/// The reference's light, in pixels of one size.
struct CPhaseMatcher::Scale {
  int bin;
  std::unique_ptr<CImgFourier> light;

  Scale(CVelImage& reference, int bin) : bin(bin), light(LightOf(reference, bin)) {}

  enum Answer { Nothing, Sensor, Found };
  Answer Match(CVelImage& image, CStarMatch& match) const;
};

CPhaseMatcher::Scale::Answer CPhaseMatcher::Scale::Match(CVelImage& image, CStarMatch& match) const {
  constexpr size_t kMost = 2;     // chosen: guesses that are tried, unless one of them is unproven
  constexpr double kProof = 0.1;  // of the likeness; with it none of 35 simulated planets is turned over
  const OnOneThread alone;
  const auto other = LightOf(image, bin);
  const auto longest = [](const CVelImage& i) { return std::max(i.GetWidth(), i.GetHeight()); };
  const int length = std::max(longest(*light), longest(*other)), coarse = (length + kWhole - 1) / kWhole,
            side = CFft::GetCeilPowerOf2(length / coarse);
  const auto whole = [&](CVelImage& of, Similarity& inverse) {
    auto plane = MakePlane(of, side, side);
    const int left = (side - of.GetWidth() / coarse) / 2, top = (side - of.GetHeight() / coarse) / 2;
    PutBinned(of, coarse, *plane, left, top);
    inverse = {1, 0, -1.0 * left, -1.0 * top};
    return plane;
  };
  Similarity fromFirst, fromSecond;
  const auto first = whole(*light, fromFirst), second = whole(*other, fromSecond);
  const Similarity toSecond{1, 0, -fromSecond.x, -fromSecond.y};
  std::vector<Similarity> guesses = Candidates(*first, *second);
  for (Similarity& guess : guesses) {
    guess = Unbinned(Joined(Joined(toSecond, guess), fromFirst), coarse);
  }
  const auto likeness = [&](const Similarity& map) { return Likeness(*light, *Laid(*light, *other, map)); };
  bool isUnproven = false;
  for (size_t i = 0; i < guesses.size(); ++i) {
    if (i >= kMost && (!isUnproven || IsHalfTurn(guesses[i]))) continue;
    Refined fit(*light, *other, guesses[i]);
    if (!fit.Agrees()) continue;
    // Round and symmetric objects agree with themselves turned over.
    const auto isAsGood = [&](const Similarity& unturned) {
      return !IsHalfTurn(unturned) &&
             likeness(Refined(*light, *other, unturned).map) + kProof > likeness(fit.map);
    };
    if (IsHalfTurn(fit.map) && std::any_of(guesses.begin(), guesses.end(), isAsGood)) {
      isUnproven = true;
      continue;
    }
    Similarity map = fit.map;
    map = Unbinned(map, bin);
    if (IsSensors(map, image)) return Sensor;
    const Pose pose = PoseOf(map, image.GetWidth(), image.GetHeight());
    match.dx = pose.dx;
    match.dy = pose.dy;
    match.degrees = pose.degrees;
    match.residual = bin * RootMeanSquare(fit.tiles.pairs, fit.correction);
    match.stars = static_cast<int>(fit.tiles.pairs.size());
    match.status = CStarMatch::Ok;
    return Found;
  }
  return Nothing;
}

CPhaseMatcher::CPhaseMatcher(CVelImage* reference) : reference_(reference) {}

CPhaseMatcher::~CPhaseMatcher() = default;

CStarMatch CPhaseMatcher::Match(CVelImage& image) {
  constexpr int kSmallest = 192;  // chosen: tiles are 32 pixels wide then, as are the borders
  CStarMatch match;
  match.status = CStarMatch::NoMatch;
  for (int k = 0; k < 2; ++k) {
    const auto tooSmall = [&](const CVelImage& i) {
      return i.IsEmpty() || std::min(i.GetWidth(), i.GetHeight()) < kSmallest * kBins[k];
    };
    if (tooSmall(*reference_) || tooSmall(image)) continue;
    if (!scales_[k]) scales_[k] = std::make_unique<Scale>(*reference_, kBins[k]);
    if (scales_[k]->Match(image, match) != Scale::Nothing) break;
  }
  return match;
}
