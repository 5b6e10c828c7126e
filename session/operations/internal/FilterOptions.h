// Options that filters have in common: radii, and the band of levels that a filter is confined to.
#pragma once

#include <algorithm>
#include <optional>
#include <tuple>
#include <vector>

#include <fmt/format.h>

#include "korimg/filters/CFilterMatrix.h"

#include "session/operations/Describe.h"

namespace korimg::session {

/// Refuses a radius that sees hardly anything but mirrored edges: four times the larger side, chosen.
inline void CheckRadius(const Call& call, double radius) {
  constexpr double kMost = 4;
  const int width = call.image->GetWidth(), height = call.image->GetHeight();
  if (radius > kMost * std::max(width, height)) {
    throw UsageError(
        fmt::format("{}: a radius of {} pixels is too much for {} x {}; the most is {} times the larger side",
                    call.Name(), radius, width, height, kMost));
  }
}

/// Answers a radius for each plane, and three at least.
inline std::vector<double> Radii(const Call& call, const PerPlane& radius) {
  auto radii = radius.For(call.image->GetPlanes());
  CheckRadius(call, *std::max_element(radii.begin(), radii.end()));
  return radii;
}

/// Answers the sigma of a Gaussian for each plane, and three at least.
inline std::vector<double> Sigmas(const Call& call, const PerPlane& sigma) {
  auto sigmas = sigma.For(call.image->GetPlanes());
  CheckRadius(call, CFilterMatrix::GetGaussian_nR(*std::max_element(sigmas.begin(), sigmas.end())));
  return sigmas;
}

/// Holds values for each plane that may be left out, as the library takes them: a flag that says so, and a
/// number.
struct OptionalValues {
  std::vector<int> given;
  std::vector<double> values;

  OptionalValues(const std::optional<PerPlane>& value, int planes)
      : values(value.value_or(PerPlane(0)).For(planes)) {
    given.assign(values.size(), value.has_value());
  }
};

/// Holds the limits of a filter that can be confined to a band of levels.
struct BandOptions {
  std::optional<PerPlane> dark, darkRange, highlight, highlightRange;

  bool IsOpen() const { return !dark && !highlight; }
};

template <class Band>
void CheckBand(const Call& call, const Band& band) {
  for (const auto& [side, limit, range] : {std::tuple("dark", &band.dark, &band.darkRange),
                                           {"highlight", &band.highlight, &band.highlightRange}}) {
    if (*range && !*limit) {
      throw UsageError(
          fmt::format("{}: {}-range means nothing without {}; give both", call.Name(), side, side));
    }
  }
}

/// Calls filter with the limits of the band in the order of the library's filters.
template <class F>
void WithBand(const Call& call, const BandOptions& band, F&& filter) {
  const int planes = call.image->GetPlanes();
  OptionalValues dark(band.dark, planes), darkRange(band.darkRange, planes),
      highlight(band.highlight, planes), highlightRange(band.highlightRange, planes);
  filter(dark.given.data(), dark.values.data(), darkRange.values.data(), highlight.given.data(),
         highlight.values.data(), highlightRange.values.data());
}

template <class O>
Describe<O>& TakesRadius(Describe<O>&& description, const std::string& help) {
  return description.Takes("radius", &O::radius, {help, "pixels", 0, 1000});
}

template <class O>
Describe<O>& TakesWeight(Describe<O>& description) {
  return description.Takes("weight", &O::weight, {"of each neighbour against the pixel's 1", "", 0, 1e6});
}

template <class O>
Describe<O>& TakesBand(Describe<O>& description) {
  return description.Takes("dark", &O::dark, {"pixels below it stay as they are", "0-255", -1e6, 1e6})
      .Takes("dark-range", &O::darkRange, {"over which the filter fades in below dark", "0-255", 0, 1e6})
      .Takes("highlight", &O::highlight, {"pixels above it stay as they are", "0-255", -1e6, 1e6})
      .Takes("highlight-range", &O::highlightRange,
             {"over which the filter fades out above highlight", "0-255", 0, 1e6})
      .OnRect();
}

}  // namespace korimg::session
