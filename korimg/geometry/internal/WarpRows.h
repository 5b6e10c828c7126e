// Rows of a grid that an image is laid on by a map. Internal.
#pragma once

#include "korimg/geometry/internal/MapRows.h"
#include "korimg/image/CVelImage.h"

namespace korimg {

/// Rows of a plane, or of a band of planes, in memory.
struct GridRows {
  float* values;
  int* valid;  ///< 1 where the image reaches, else 0; may be null
  int width, rows;
  long long pitch;  ///< from row to row, in values
};

enum class TapWeights {
  Plain,
  Squared  ///< the variance of a sample from the variances of pixels
};

/// Samples an image by a map; the method is one of CInterp. Pipelines read a contiguous image, and lines with
/// plain weights a paged one.
void WarpRows(CVelImage& image, int plane, const MapRows& map, int method, float outside,
              const GridRows& grid, TapWeights weights = TapWeights::Plain);

}  // namespace korimg
