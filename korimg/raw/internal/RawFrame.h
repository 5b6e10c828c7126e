// What the developments of all mosaics share: the frame at work, its bits, its white balance and the gamma of
// the result. Internal.
#pragma once

#include <array>
#include <cmath>
#include <memory>
#include <optional>
#include <vector>

#include "korimg/image/CVelImage.h"

namespace korimg {

struct RawRange {
  double min, max;
};

inline double WhiteOf(int bits) {
  return std::ldexp(1.0, bits) - 1;
}

/// Limits a value; NaN stays NaN.
template <class T>
T Limited(T v, T min, T max) {
  const T raised = v < min ? min : v;
  return raised > max ? max : raised;
}

inline float* FrameLine(CImage& frame, int y, int plane) {
  return reinterpret_cast<float*>(frame.GetVmImage()->GetImageAdr(0, y, plane, false, false, nullptr));
}
inline const float* ReadFrameLine(CImage& frame, int y, int plane) {
  return reinterpret_cast<const float*>(frame.GetVmImage()->GetImageAdr(0, y, plane, true, false, nullptr));
}

/// True when the trims are no negative numbers, and leave something of an image.
template <class Parameters>
bool TrimsLeavePixels(const Parameters& p, const CImage& image) {
  const auto leaves = [](int size, int first, int second) {
    return first >= 0 && second >= 0 && 1LL * size - first - second > 0;
  };
  return leaves(image.GetWidth(), p.nTrimLeft, p.nTrimRight) &&
         leaves(image.GetHeight(), p.nTrimTop, p.nTrimBottom);
}

/// Takes a number off all pixels of plane 0.
void SubtractFromRaw(CVelImage& image, float subtrahend);

/// Makes a frame of some planes of the image's size in its store. Throws CMemoryException* when there is no
/// room.
std::unique_ptr<CImage> MakeRawFrame(CVelImage& image, int planes);
/// Copies plane 0 of an image into that of a frame, and its levels to all planes.
void CopyRaw(CVelImage& image, CImage& frame);
/// Brings plane 0 from a range to that of so many bits, limited. A range that is empty becomes black.
void WidenBits(CImage& frame, const RawRange& from, int dstBits);

/// Makes three planes of an image, with plane 0's levels. False when there is no room.
bool MakeColour(CVelImage& image);

/// Bends what lies above black by the power 1 / gamma: from level to level for dstBits of -32, else from 0 to
/// the bits' end. Counts the lines on the display where it goes by lines.
void CorrectGamma(CVelImage& image, int dstBits, double gamma);

/// Holds the gain of one position of the cell, and the knee that brings it back to white: a line of that
/// slope from black to the point, and from there one to white.
struct Knee {
  double gain = 1, pointX = 0, pointY = 0, ratio = 1;

  Knee() = default;
  Knee(double gain, double range) : gain(gain) {
    if (!(range > 0)) return;  // nothing lies within
    pointX = range / (gain + 1);
    pointY = gain * range / (gain + 1);
    ratio = (range - pointY) / (range - pointX);
  }
  double operator()(double v, double black) const {
    const double d = v - black;
    // The pixel itself, not its distance from black, decides the side.
    return (v < pointX ? d * gain : (d - pointX) * ratio + pointY) + black;
  }
};

/// Corrects the white balance of raw numbers by their positions in a mosaic's cell, and what follows it.
struct ToneCorrection {
  std::vector<Knee> knees;      ///< by position
  RawRange range;               ///< black and white
  bool bends, cuts;             ///< the knee instead of the plain gain; limits to black and white
  std::optional<double> power;  ///< of the curve after them

  template <class Parameters>
  ToneCorrection(const Parameters& parameters, int positions, const RawRange& range)
      : range(range), bends(parameters.bKnee), cuts(parameters.bLevelCut) {
    if (parameters.bCurvePower) power = parameters.dCurvePower;
    for (int i = 0; i < positions; ++i) {
      knees.emplace_back(parameters.pGain[i], range.max - range.min);
    }
  }

  /// Corrects a line whose columns have these positions, again from every fourth on.
  void Line(const float* in, float* out, int width, const std::array<int, 4>& positions) const;
};

}  // namespace korimg
