#include "session/operations/internal/Filters.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CImgFilter.h"
#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/filters/CImgFilterMisc.h"

namespace korimg::session {
namespace {

constexpr int kShow = 1;

/// Refuses a radius that sees hardly anything but mirrored edges.
void CheckRadius(const Call& call, double radius) {
  constexpr double kMost = 4;
  const int width = call.image->GetWidth(), height = call.image->GetHeight();
  if (radius > kMost * std::max(width, height)) {
    throw UsageError(
        fmt::format("{}: a radius of {} pixels is too much for {} x {}; the most is {} times the larger side",
                    call.Name(), radius, width, height, kMost));
  }
}

/// The parameter "radius", for each plane.
std::vector<double> Radii(const Call& call) {
  auto radii = call.PerPlane<double>("radius");
  CheckRadius(call, *std::max_element(radii.begin(), radii.end()));
  return radii;
}

/// Calls filter(target, ..., source, rectangle, show) with the limits of a band of levels in between, where
/// one was given.
template <class F>
void Blur(Call& call, F&& filter) {
  for (const std::string side : {"dark", "highlight"}) {
    if (call.Has(side + "-range") && !call.Has(side)) {
      throw UsageError(
          fmt::format("{}: {}-range means nothing without {}; give both", call.Name(), side, side));
    }
  }
  auto target = call.NewTarget<CImgFilterBlur>();
  CVelImage* source = call.image.get();
  if (call.Has("dark") || call.Has("highlight")) {
    auto dark = call.PerPlane<double>("dark"), darkRange = call.PerPlane<double>("dark-range");
    auto highlight = call.PerPlane<double>("highlight"),
         highlightRange = call.PerPlane<double>("highlight-range");
    std::vector<int> useDark(dark.size(), call.Has("dark")), useHighlight(dark.size(), call.Has("highlight"));
    filter(*target, useDark.data(), dark.data(), darkRange.data(), useHighlight.data(), highlight.data(),
           highlightRange.data(), source, call.rect, kShow);
  } else {
    filter(*target, source, call.rect, kShow);
  }
  call.image = std::move(target);
}

/// The pixel of rank rankOf(plane, number of ranks) in the disc about each pixel.
template <class F>
void RankOfDisc(Call& call, F&& rankOf) {
  constexpr double kLargestDisc = 10;  // that contiguous images have the smallest and largest pixel of
  auto radii = Radii(call);
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
  const double radius = *std::max_element(radii.begin(), radii.begin() + call.image->GetPlanes());
  if ((smallest || largest) && radius > kLargestDisc &&
      call.image->GetAllocationPolicy() != CVmManager::Paged) {
    throw UsageError(
        fmt::format("{}: the radius {} is above {}, the most on contiguous stores; add --store paged",
                    call.Name(), radius, kLargestDisc));
  }
  auto target = call.NewTarget<CImgFilterMisc>();
  target->MinMaxFilter(radii.data(), ranks.data(), call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

}  // namespace

void Gaussian(Call& call) {
  auto sigma = call.PerPlane<double>("sigma");
  CheckRadius(call, CFilterMatrix::GetGaussian_nR(*std::max_element(sigma.begin(), sigma.end())));
  Blur(call, [&](CImgFilterBlur& target, auto... rest) { target.GaussianFilter(sigma.data(), rest...); });
}

void Mean(Call& call) {
  auto radii = Radii(call), weights = call.PerPlane<double>("weight");
  Blur(call, [&](CImgFilterBlur& target, auto... rest) {
    target.MeanFilter(radii.data(), weights.data(), rest...);
  });
}

void MeanWithoutEdge(Call& call) {
  auto radii = Radii(call), weights = call.PerPlane<double>("weight");
  Blur(call, [&](CImgFilterBlur& target, auto... rest) {
    target.MeanWithoutEdgeFilter(radii.data(), weights.data(), rest...);
  });
}

void Median(Call& call) {
  auto radii = Radii(call);
  Blur(call, [&](CImgFilterBlur& target, auto... rest) { target.MedianFilter(radii.data(), rest...); });
}

void Minimum(Call& call) {
  RankOfDisc(call, [](int, int) { return 0; });
}

void Maximum(Call& call) {
  RankOfDisc(call, [](int, int count) { return count - 1; });
}

void Rank(Call& call) {
  const auto ranks = call.PerPlane<double>("rank");
  RankOfDisc(call, [&](int p, int) {
    if (ranks[p] != std::floor(ranks[p]))
      throw UsageError("rank: write a whole number, 0 for the smallest pixel");
    return static_cast<int>(ranks[p]);
  });
}

void SmallMedian(Call& call) {
  auto target = call.NewTarget<CImgFilter>();
  target->MedianFilter(call.Choice("mode"), call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

void SmallRank(Call& call) {
  constexpr int kCells[] = {5, 9, 21};
  const int mode = call.Choice("mode"), rank = call.Integer("rank");
  if (rank >= kCells[mode]) {
    throw UsageError(
        fmt::format("small-rank: this mode has the ranks 0 to {}, not {}", kCells[mode] - 1, rank));
  }
  auto target = call.NewTarget<CImgFilter>();
  target->MinMaxFilter(mode, rank, call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

void SmallUnsharp(Call& call) {
  const auto strength = call.PerPlane<double>("strength"), weight = call.PerPlane<double>("weight"),
             threshold = call.PerPlane<double>("threshold");
  auto target = call.NewTarget<CImgFilter>();
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    target->UnSharpMask(strength[p], call.Choice("mode"), weight[p], threshold[p], call.image.get(), p,
                        call.rect, kShow);
  }
  call.image = std::move(target);
}

void Laplacian(Call& call) {
  auto target = call.NewTarget<CImgFilter>();
  target->LaplacianFilter(call.Choice("mode"), call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

}  // namespace korimg::session
