// The range of levels that a filter is confined to. Internal.
#pragma once

#include <algorithm>
#include <limits>

#include "korimg/image/CVelImage.h"

namespace korimg {

/// The limits of a band as they are given, one value for each plane, on the 0 to 255 scale.
struct BandLimits {
  const int* useDark;
  const double *dark, *darkRange;
  const int* useHighlight;
  const double *highlight, *highlightRange;
};

/// How much of what a filter darkened comes back.
struct DarkeningLimit {
  bool on = false;
  float share = 0;

  DarkeningLimit() = default;
  DarkeningLimit(int on, double percent)
      : on(on != 0), share(static_cast<float>(std::clamp(percent, 0.0, 100.0) / 100.0)) {}

  /// What becomes of pixel s that a filter makes into f.
  float operator()(float s, float f) const { return on && s > f ? f + (s - f) * share : f; }
};

/// A band of raw values with soft shoulders. Pixels beyond the shoulders stay, those inside take the filtered
/// value, and on a shoulder it is mixed in by proportion. NaN counts as inside.
struct LevelBand {
  static constexpr float kOpen = std::numeric_limits<float>::max();
  float dark = -kOpen, darkMin = -kOpen, darkWidth = 0;
  float highlight = kOpen, highlightMax = kOpen, highlightWidth = 0;

  LevelBand(const CVelImage& src, int p, const BandLimits& limits) {
    const auto raw = [&](double v) { return static_cast<float>(src.ToRaw(v, p)); };
    if (limits.useDark[p]) {
      dark = raw(limits.dark[p]);
      darkMin = raw(limits.dark[p] - limits.darkRange[p]);
      darkWidth = dark - darkMin;
    }
    if (limits.useHighlight[p]) {
      highlight = raw(limits.highlight[p]);
      highlightMax = raw(limits.highlight[p] + limits.highlightRange[p]);
      highlightWidth = highlightMax - highlight;
    }
  }

  bool Excludes(float s) const { return s < darkMin || s > highlightMax; }
  /// The share of the filtered value, of a pixel that is not excluded.
  float Share(float s) const {
    return s < dark ? (s - darkMin) / darkWidth : s > highlight ? (highlightMax - s) / highlightWidth : 1.0f;
  }
  bool IsOnShoulder(float s) const { return s < dark || s > highlight; }
  /// What becomes of pixel s that a filter makes into f.
  float Blend(float s, float f) const {
    if (Excludes(s)) return s;
    if (!IsOnShoulder(s)) return f;
    const float share = Share(s);
    return (1.0f - share) * s + share * f;
  }
};

}  // namespace korimg
