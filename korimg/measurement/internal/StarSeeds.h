// Where stars may be. Internal.
#pragma once

#include <vector>

#include "korimg/measurement/internal/SkyMesh.h"

namespace korimg {

/// Lies about the middle of a star.
struct StarSeed {
  double x = 0, y = 0;
};

struct StarSeeds {
  std::vector<StarSeed> seeds;  ///< line by line
  double grain = 1;  ///< noise of the smoothed sky over what that of single pixels lets expect, at least 1
};

/// Finds the maxima of the smoothed image that stand out by `threshold` deviations; see CStarFinder.
StarSeeds FindStarSeeds(CVelImage& image, const SkyMesh& sky, double threshold);

}  // namespace korimg
