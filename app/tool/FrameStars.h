// The stars of frames, and how frames lie on each other by them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "korimg/measurement/CStarMatcher.h"

#include "app/tool/Tool.h"

namespace korimg::tool {

/// What is kept of a frame once its pixels are gone.
struct FrameStars {
  std::filesystem::path file;
  int width = 0, height = 0;
  double sky = 0, noise = 0;        ///< level and deviation, raw
  double fwhm = 0, elongation = 0;  ///< of the usual star
  std::vector<CStar> stars;         ///< in order of falling flux
};

/// Reads a frame and finds its stars, `sigmas` above the sky. Throws FileError.
FrameStars MeasureFrame(Tool& tool, const std::filesystem::path& file, double sigmas,
                        const std::string& hdu = {});

/// The frame that others are best laid on: of those with half as many stars as the richest one, or more, that
/// of the smallest FWHM. -1 when none has any star.
int ChooseReference(const std::vector<FrameStars>& frames);

/// How a frame comes to lie on the reference, in the terms of CImgComposit::Do.
struct Registration {
  double dx = 0, dy = 0, degrees = 0, residual = 0;  ///< pixels and degrees
  double scale = 1;
  int stars = 0;  ///< that the fit is made of
  std::string method, status;

  bool IsGood() const { return status == "ok"; }
};

/// By their stars. The status tells why it failed: "no stars", "no match", "mirrored", "residual too large".
Registration RegisterByStars(const CStarMatcher& reference, const FrameStars& frame);

}  // namespace korimg::tool
