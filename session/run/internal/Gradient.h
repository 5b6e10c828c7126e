// The gradient of a stack, taken off.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "korimg/calibration/CImgGradient.h"

namespace korimg::session {

struct TakenGradient {
  std::unique_ptr<CImgGradient> surface;  ///< as it lay on the image, in the same store
  CImgGradient::Findings findings;
  int planes = 1;

  /// Tells what was taken off about the level that stays, by planes, and by how many boxes of sky: for
  /// people.
  std::string Text() const;
  /// Tells the same for programs.
  nlohmann::ordered_json Description() const;
};

/// Subtracts from an image what CImgGradient finds by itself; the median of it stays. Nothing is done, and
/// none answered, where there are too few boxes of sky.
std::optional<TakenGradient> TakeGradientOff(CVelImage& image);

}  // namespace korimg::session
