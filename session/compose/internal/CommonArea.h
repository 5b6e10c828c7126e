// What images that were shifted and turned share. Internal.
#pragma once

#include <vector>

#include "korimg/platform/CRect.h"

#include "session/Export.h"

namespace korimg::session {

/// Tells how an image lies on a canvas: its pixel at (x - dx, y - dy), turned about its middle, comes to (x,
/// y), in the terms of CImgComposit::Do.
struct Placement {
  int width, height;
  double dx, dy, degrees;
};

/// Finds the largest rectangle of a canvas whose pixels lie on all images, between the middles of their
/// outermost pixels; empty when there is none.
KORIMG_SESSION_API CRect CommonArea(int width, int height, const std::vector<Placement>& images);

}  // namespace korimg::session
