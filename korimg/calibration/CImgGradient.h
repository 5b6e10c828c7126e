#pragma once

#include <vector>

#include "korimg/image/CVelImage.h"

/// Takes gradients of moonlight, city light and optics off an image: boxes of sky are found, a smooth surface
/// is fitted to their levels, plane by plane, and subtracted or divided by.
///
/// Boxes lie on a grid, each moved to the darkest of nine places about its own; the level of a box is the
/// median of what repeated clipping leaves. What is much brighter than the surface, nebulae and the halos of
/// stars, is no sky: the surface is fitted again and again with weights that fall with the distance above it
/// (iteratively reweighted least squares, Holland and Welsch 1977, one-sided), and boxes above it by more
/// than the tolerance have no part in the last fit. Surfaces are polynomials, or a polynomial of degree 2
/// with a thin-plate spline that smooths what is left (Duchon 1977; Wahba 1990, ch. 2). Of simulated
/// gradients over a nebula that fills a third of the image less than a twentieth is left; the surface takes 2
/// to 3 % of the nebula with it under lines and bowls, and up to 14 % of a faint one under the glow of a
/// moon.
class KORIMG_API CImgGradient : public CVelImage {
 public:
  enum Surface : int { Polynomial, ThinPlate };
  enum Result : int { Subtracted, Divided, Model };

  struct Options {
    Surface surface = ThinPlate;
    int degree = 2;          ///< of the polynomial, 1 to 4
    double smoothing = 0.5;  ///< of the thin plate: 0 goes through all boxes, 1 is nearly a parabola
    int boxes = 16;          ///< on the longer side, 4 to 40
    int size = 0;            ///< of a box, pixels; 0: a third of their distance, from 8 to 64
    double tolerance = 3;    ///< deviations of the boxes about the surface, above which a box is no sky
    Result result = Subtracted;
  };

  struct Box {
    int x, y;          ///< of its middle
    double levels[3];  ///< of the planes
    bool isSky;
  };

  /// The boxes of an image, and which are taken for sky. Empty when the image is smaller than four boxes, or
  /// fewer than twice the surface's numbers of them hold finite pixels.
  static std::vector<Box> FindBoxes(CVelImage& image, const Options& options);

  /// Writes src without its gradient, or the gradient itself, into this image, over the whole of it:
  /// subtracted, the median of the surface stays. Levels stay. Answers 1, or 0 with nothing done for options
  /// out of range, and where FindBoxes finds none. Division wants a surface above 0.
  int Do(const Options& options, CVelImage* src, int show);
};
