#pragma once

#include <vector>

#include "korimg/image/CVelImage.h"

/// Takes gradients of moonlight, city light and optics off an image: boxes of sky are found, a smooth surface
/// is fitted to their levels, plane by plane, and subtracted or divided by.
///
/// Boxes lie on a grid, each moved to the darkest of nine places about its own; the level of a box is the
/// median of what kappa-sigma clipping leaves. What is much brighter than the surface, nebulae and the halos
/// of stars, is not sky: a polynomial is fitted again and again with weights that fall with the distance
/// above it (iteratively reweighted least squares, Holland and Welsch 1977, one-sided), of the degree that
/// tells most of the boxes by the fewest numbers (after Schwarz 1978); boxes above it by more than the
/// tolerance have no part in the last fit, and neither have their neighbours where a nebula is more than a
/// box. Surfaces are polynomials, or that polynomial with a thin-plate spline that smooths what is left
/// (Duchon 1977; Wahba 1990, ch. 2). Of simulated lines and bowls over a nebula that fills a third of the
/// image the plate leaves 0.2 % and takes less than 2 % of the nebula; of the glow of a moon at an edge it
/// leaves 1 to 4 %, and takes 3 to 10 % of a nebula beside it, which it cannot tell from the glow.
class KORIMG_API CImgGradient : public CVelImage {
 public:
  enum Surface : int { Polynomial, ThinPlate };
  enum Result : int { Subtracted, Divided, Model };

  struct Options {
    Surface surface = ThinPlate;
    int degree = 2;          ///< of Polynomial, 1 to 4
    double smoothing = 0.5;  ///< of the thin plate: 0 goes through all boxes, 1 is nearly the polynomial
    int boxes = 16;          ///< on the longer side, 4 to 40
    int size = 0;            ///< of a box, pixels; 0: a third of their distance, from 8 to 64
    double tolerance = 3;    ///< deviations of the boxes about the surface, above which a box is not sky
    Result result = Subtracted;
  };

  struct Box {
    int x, y;          ///< of its middle, pixels
    int size;          ///< of its sides
    double levels[3];  ///< of the planes
    bool isSky;
  };
  static int CountSky(const std::vector<Box>& boxes);

  /// Tells what was taken for the gradient: the extremes of its surface over the image, and the median, which
  /// stays in the image.
  struct Findings {
    std::vector<Box> boxes;
    double low[3] = {}, high[3] = {}, middle[3] = {};
  };

  /// Finds the boxes of an image, and which of them are sky. Empty when the image is smaller than four boxes,
  /// or fewer than twice the surface's numbers of them are sky.
  static std::vector<Box> FindBoxes(CVelImage& image, const Options& options);

  /// Writes src without its gradient, or the gradient itself, into this image, over the whole of it:
  /// subtracted, the median of the surface stays. Levels stay; src may be this image. Answers 1, or 0 with
  /// nothing done for options out of range, and where FindBoxes finds none. Division wants a surface above 0.
  int Do(const Options& options, CVelImage* src, int show, Findings* findings = nullptr);
};
