#pragma once

#include "korimg/image/CVelImage.h"

/// Filters that repair a frame. The source must be another object of the same size and planes.
class KORIMG_API CImgFilterMisc : public CVelImage {
 public:
  CImgFilterMisc() = default;

  /// The number of ranks of a disc of that radius: of its pixels.
  int GetMinMaxFilterNmax(double r) const;
  /// The pixel of the given rank in the disc about each pixel: 0 the smallest, the number of ranks less 1 the
  /// largest, 0.0 for a rank beyond. NaN sorts last. Arrays have one value for each plane.
  ///
  /// When all planes ask for the smallest, or all for the largest, contiguous images are done by pipelines:
  /// discs have the radius rounded up to a whole number then, pixels mirror about the edges, and a plane of a
  /// radius above 10 is left as it is. Else discs have the radius given, rows mirror, and columns repeat the
  /// edge.
  void MinMaxFilter(double r[], int rank[], CVelImage* src, CRect* rect, int show);
};
