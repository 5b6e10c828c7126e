// Filters of a pixel's neighbourhood.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/filters/CImgFilter.h"
#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/filters/CImgFilterMisc.h"

#include "session/operations/internal/FilterOptions.h"

namespace korimg::session {
namespace {

/// Calls filter(target, ..., source, rectangle, show) with the limits of a band of levels in between, where
/// one was given.
template <class F>
void Blur(Call& call, const BandOptions& band, F&& filter) {
  CheckBand(call, band);
  call.Replace<CImgFilterBlur>([&](CImgFilterBlur& target) {
    CVelImage* source = call.image.get();
    if (band.IsOpen()) return filter(target, source, call.rect, kShow);
    WithBand(call, band, [&](auto... limits) { filter(target, limits..., source, call.rect, kShow); });
  });
}

/// The pixel of rank rankOf(plane, number of ranks) in the disc about each pixel.
template <class F>
void RankOfDisc(Call& call, const PerPlane& radius, F&& rankOf) {
  constexpr double kLargestDisc = 10;  // that contiguous images have the smallest and largest pixel of
  auto radii = Radii(call, radius);
  std::vector<int> ranks;
  bool smallest = true, largest = true;
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    const int count = CImgFilterMisc().GetMinMaxFilterNmax(radii[p]);
    const int rank = rankOf(p, count);
    if (rank >= count) {
      throw UsageError(fmt::format("{}: a disc of radius {} has the ranks 0 to {}, not {}", call.Name(),
                                   radii[p], count - 1, rank));
    }
    smallest &= rank == 0;
    largest &= rank == count - 1;
    ranks.push_back(rank);
  }
  const double most = *std::max_element(radii.begin(), radii.begin() + call.image->GetPlanes());
  if ((smallest || largest) && most > kLargestDisc &&
      call.image->GetAllocationPolicy() != CVmManager::Paged) {
    throw UsageError(
        fmt::format("{}: the radius {} is above {}, the most on contiguous stores; add --store paged",
                    call.Name(), most, kLargestDisc));
  }
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.MinMaxFilter(radii.data(), ranks.data(), call.image.get(), call.rect, kShow);
  });
}

struct GaussianOptions : BandOptions {
  PerPlane sigma = 1;
};

void Gaussian(Call& call, const GaussianOptions& options) {
  auto sigma = Sigmas(call, options.sigma);
  Blur(call, options,
       [&](CImgFilterBlur& target, auto... rest) { target.GaussianFilter(sigma.data(), rest...); });
}

struct MeanOptions : BandOptions {
  PerPlane radius = 1, weight = 1;
};

void Mean(Call& call, const MeanOptions& options) {
  auto radii = Radii(call, options.radius), weights = options.weight.For(call.image->GetPlanes());
  Blur(call, options, [&](CImgFilterBlur& target, auto... rest) {
    target.MeanFilter(radii.data(), weights.data(), rest...);
  });
}

void MeanWithoutEdge(Call& call, const MeanOptions& options) {
  auto radii = Radii(call, options.radius), weights = options.weight.For(call.image->GetPlanes());
  Blur(call, options, [&](CImgFilterBlur& target, auto... rest) {
    target.MeanWithoutEdgeFilter(radii.data(), weights.data(), rest...);
  });
}

struct MedianOptions : BandOptions {
  PerPlane radius = 1;
};

void Median(Call& call, const MedianOptions& options) {
  auto radii = Radii(call, options.radius);
  Blur(call, options,
       [&](CImgFilterBlur& target, auto... rest) { target.MedianFilter(radii.data(), rest...); });
}

struct DiscOptions {
  PerPlane radius = 1;
};

void Minimum(Call& call, const DiscOptions& options) {
  RankOfDisc(call, options.radius, [](int, int) { return 0; });
}

void Maximum(Call& call, const DiscOptions& options) {
  RankOfDisc(call, options.radius, [](int, int count) { return count - 1; });
}

struct RankOptions : DiscOptions {
  PerPlane rank;
};

void Rank(Call& call, const RankOptions& options) {
  RankOfDisc(call, options.radius, [&](int p, int) {
    const double rank = options.rank[p];
    if (rank != std::floor(rank)) throw UsageError("rank: write a whole number, 0 for the smallest pixel");
    return static_cast<int>(rank);
  });
}

/// A pixel and its nearest neighbours, by the library's numbers.
enum class Cells : int { Cross, Square3, Square5 };

struct SmallMedianOptions {
  Cells mode = Cells::Cross;
};

void SmallMedian(Call& call, const SmallMedianOptions& options) {
  call.Replace<CImgFilter>([&](CImgFilter& target) {
    target.MedianFilter(static_cast<int>(options.mode), call.image.get(), call.rect, kShow);
  });
}

struct SmallRankOptions {
  int rank = 0;
  Cells mode = Cells::Cross;
};

void SmallRank(Call& call, const SmallRankOptions& options) {
  const int mode = static_cast<int>(options.mode), cells = std::array{5, 9, 21}[mode];
  if (options.rank >= cells) {
    throw UsageError(
        fmt::format("small-rank: this mode has the ranks 0 to {}, not {}", cells - 1, options.rank));
  }
  call.Replace<CImgFilter>([&](CImgFilter& target) {
    target.MinMaxFilter(mode, options.rank, call.image.get(), call.rect, kShow);
  });
}

struct SmallUnsharpOptions {
  PerPlane strength = 1;
  Cells mode = Cells::Cross;
  PerPlane weight = 1, threshold = 0;
};

void SmallUnsharp(Call& call, const SmallUnsharpOptions& options) {
  call.Replace<CImgFilter>([&](CImgFilter& target) {
    for (int p = 0; p < call.image->GetPlanes(); ++p) {
      target.UnSharpMask(options.strength[p], static_cast<int>(options.mode), options.weight[p],
                         options.threshold[p], call.image.get(), p, call.rect, kShow);
    }
  });
}

/// Second differences, by the library's numbers.
enum class Differences : int { Cross, Square3, Product };

struct LaplacianOptions {
  Differences mode = Differences::Cross;
};

void Laplacian(Call& call, const LaplacianOptions& options) {
  call.Replace<CImgFilter>([&](CImgFilter& target) {
    target.LaplacianFilter(static_cast<int>(options.mode), call.image.get(), call.rect, kShow);
  });
}

template <class O>
Describe<O>& TakesMode(Describe<O>& description) {
  return description.Chooses(
      "mode", &O::mode, {{"cross", Cells::Cross}, {"3x3", Cells::Square3}, {"5x5", Cells::Square5}},
      "the pixel and its 4 neighbours; 8 neighbours; 5 x 5 pixels without the corners");
}

const char* const kExtremeRadius = "of the disc; contiguous stores round it up and take 10 at most";

}  // namespace

std::vector<Operation> FiltersOperations() {
  Describe<GaussianOptions> gaussian(
      "gaussian", "blurs by a Gaussian",
      "Smooths noise before something coarse is measured or masked; a FWHM is 2.355 sigmas. A band of levels "
      "keeps it to the sky and off the stars, which any blur makes larger.");
  gaussian.Takes("sigma", &GaussianOptions::sigma,
                 {"standard deviation; 0 leaves the plane as it is", "pixels", 0, 1000});
  Describe<SmallMedianOptions> smallMedian(
      "small-median", "the median of a pixel and its nearest neighbours",
      "Takes hot and cold pixels off a single frame quickly. It rounds undersampled stars off: with several "
      "dithered frames let stacking reject them instead.");
  Describe<SmallRankOptions> smallRank(
      "small-rank", "the pixel of a given rank among a pixel and its nearest neighbours",
      "Between the smallest and the largest neighbour: low ranks thin stars out, high ones thicken them.");
  smallRank.Takes("rank", &SmallRankOptions::rank,
                  {"0: the smallest; the largest is 4 for cross, 8 for 3x3, 20 for 5x5", "", 0, 20});
  Describe<SmallUnsharpOptions> smallUnsharp(
      "small-unsharp", "sharpens by the difference from the mean of the nearest neighbours",
      "Brings out the finest detail of planets and the moon after stacking. It sharpens noise as well; the "
      "threshold keeps what is smooth alone.");
  smallUnsharp.Takes("strength", &SmallUnsharpOptions::strength,
                     {"what the difference is multiplied by", "", -1e6, 1e6});
  return {
      TakesBand(gaussian)
          .StoresAgree(std::nullopt)
          .Example("sigma=2 highlight=180 highlight-range=40")
          .KeepsSource()
          .Runs(Gaussian),
      Describe<LaplacianOptions>(
          "laplacian", "edges: the size of the Laplacian, above the first plane's black",
          "Shows where an image has detail: for masks, and to compare the sharpness of "
          "frames. The result is a map of edges and no picture.")
          .Chooses("mode", &LaplacianOptions::mode,
                   {{"cross", Differences::Cross},
                    {"3x3", Differences::Square3},
                    {"product", Differences::Product}},
                   "by 4 neighbours; by 8; second differences along both axes, one of the other")
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("mode=3x3")
          .KeepsSource()
          .Runs(Laplacian),
      TakesRadius(Describe<DiscOptions>("maximum", "the largest pixel in the disc about each pixel",
                                        "Makes stars larger, for a mask that covers their halos too."),
                  kExtremeRadius)
          .OnRect()
          .StoresAgree(std::nullopt)  // contiguous ones round the radius up
          .Example("radius=2")
          .KeepsSource()
          .Runs(Maximum),
      TakesBand(TakesWeight(TakesRadius(
                    Describe<MeanOptions>(
                        "mean", "the mean of a square about each pixel; with a band of levels, of a disc",
                        "The plainest smoothing, and the fastest for large radii. For stars and noise a "
                        "Gaussian looks more natural."),
                    "of the disc, or half the square's side")))
          .Example("radius=3 weight=0.5")
          .KeepsSource()
          .Runs(Mean),
      TakesBand(
          TakesWeight(TakesRadius(
              Describe<MeanOptions>("mean-without-edge",
                                    "the mean of a square about each pixel where the image is flat, and "
                                    "the pixel itself at edges",
                                    "Smooths the sky and keeps the edges of stars and nebulae. Faint "
                                    "stars near the noise may go with it."),
              "half the square's side")))
          .Example("radius=2")
          .KeepsSource()
          .Runs(MeanWithoutEdge),
      TakesBand(TakesRadius(Describe<MedianOptions>(
                                "median", "the median of the disc about each pixel",
                                "Removes what is smaller than the disc: hot pixels, cosmic rays, "
                                "and with a large radius the stars, which leaves the background."),
                            "of the disc"))
          .Example("radius=2 dark=10 dark-range=5")
          .KeepsSource()
          .Runs(Median),
      TakesRadius(
          Describe<DiscOptions>("minimum", "the smallest pixel in the disc about each pixel",
                                "Makes stars smaller, so that nebulae come forward. Small stars vanish, "
                                "and large ones show rings when it is overdone; blend it by a mask."),
          kExtremeRadius)
          .OnRect()
          .StoresAgree(std::nullopt)  // contiguous ones round the radius up
          .Example("radius=1")
          .KeepsSource()
          .Runs(Minimum),
      TakesRadius(
          Describe<RankOptions>("rank", "the pixel of a given rank in the disc about each pixel",
                                "Between minimum, median and maximum: a rank somewhat below the middle "
                                "shrinks stars more gently than the smallest pixel does."),
          "of the disc; for the smallest and the largest as minimum and maximum have it")
          .Takes("rank", &RankOptions::rank,
                 {"0: the smallest; the largest is the number of pixels in the disc less 1", "", 0, 1e7})
          .Required()
          .OnRect()
          .StoresAgree(std::nullopt)  // contiguous ones round the radius up
          .Example("radius=2 rank=4")
          .KeepsSource()
          .Runs(Rank),
      TakesMode(smallMedian).OnRect().Example("mode=3x3").KeepsSource().Runs(SmallMedian),
      TakesMode(smallRank).OnRect().Example("rank=2 mode=3x3").KeepsSource().Runs(SmallRank),
      TakesWeight(TakesMode(smallUnsharp))
          .Takes("threshold", &SmallUnsharpOptions::threshold,
                 {"share by which a pixel must differ from the plain mean", "", 0, 1e6})
          .OnRect()
          .Example("strength=1.5 mode=3x3 threshold=0.02")
          .KeepsSource()
          .Runs(SmallUnsharp),
  };
}

}  // namespace korimg::session
