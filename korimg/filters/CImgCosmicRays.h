#pragma once

#include "korimg/image/CVelImage.h"

/// Finds the hits of cosmic rays in a single frame and mends them, by L.A.Cosmic (van Dokkum 2001, PASP 113,
/// 1420): hits have edges sharper than the optics draw.
///
/// Each pixel is divided into four, of which the Laplacian is taken, limited below at 0, and averaged over
/// the pixel. Divided by twice the noise it is the significance S of an edge; S' is S less its median of
/// 5 x 5, which leaves out smooth structure. The noise is that of the light and of the readout, by the median
/// of 5 x 5 pixels M5: sqrt(M5 / gain + (readNoise / gain)^2). The fine structure F is the median of 3 x 3
/// less its own median of 7 x 7, in units of the noise and at least 0.01: stars have much of it. A pixel is
/// hit where S' > sigClip and S' / F > objLim; so are its neighbours with S' > sigClip, and the neighbours of
/// all these with S' > sigFrac sigClip. Hits become the median of the others of the 5 x 5 pixels about them,
/// of a wider square where there are none, and what is left is looked at again.
///
/// Pixels beyond the edges repeat these. Those that are no finite numbers stay, have no part in what hits
/// become, and count as their nearest neighbour in the row. Planes are worked on one by one. Contiguous and
/// paged stores give the same, and so does any number of threads.
class KORIMG_API CImgCosmicRays : public CVelImage {
 public:
  enum Result : int { Cleaned, Mask };

  struct Options {
    double sigClip = 4.5;  ///< deviations above which an edge is significant
    double sigFrac = 0.3;  ///< share of that which suffices beside a hit, 0 to 1
    double objLim = 5;     ///< contrast to the fine structure; less finds more hits, and takes stars for such
    double gain = 1;       ///< electrons of a raw value
    double readNoise = 0;  ///< electrons
    int iterations = 4;    ///< at most; it ends when nothing more is found
    Result result = Cleaned;
  };

  /// Writes src without its hits into this image, over the rectangle; or 1 where pixels of the rectangle are
  /// hit and 0 everywhere else, with levels of 0 and 1. The source must be another object of the same size
  /// and planes. Answers the number of pixels hit in all planes, or -1 with nothing done for options out of
  /// range.
  long long Do(const Options& options, CVelImage* src, CRect* rect, int show);
};
