#pragma once

#include <vector>

#include "korimg/platform/Export.h"

/// A square kernel of floats of odd side 2 R + 1, in rows from the top left: offsets run from -R to R. Those
/// who make one get 1, or 0 when it was refused: for a radius below 0, or more cells than there are. No room
/// throws std::bad_alloc.
///
/// Discs hold the cells whose distance from the centre, squared, is at most the square of the radius
/// `extent`; an extent of -1 is R. Laplacian and sharpening stars compare with the extent itself.
class KORIMG_API CFilterMatrix {
 public:
  CFilterMatrix() = default;
  CFilterMatrix(int r, int size) { MakeMtx(r, size, 0); }
  CFilterMatrix(int r, const float* p, int size) { SetMtx(r, p, size); }
  CFilterMatrix(int r, const double* p, int size) { SetMtx(r, p, size); }
  CFilterMatrix(const CFilterMatrix&) = default;
  CFilterMatrix& operator=(const CFilterMatrix&) = default;
  virtual ~CFilterMatrix() = default;

  /// Makes room for the kernel of radius r, all zeros whether asked to be cleared or not. `size` cells are
  /// going to be filled; 0 means all. Too many are refused, though the room is made.
  int MakeMtx(int r, int size, int clear);
  /// Does the same, and fills in `size` cells, or all when it is 0.
  int SetMtx(int r, const float* p, int size);
  int SetMtx(int r, const double* p, int size);

  int GetR() const { return r_; }
  int GetD() const { return d_; }
  long long GetCount() const { return static_cast<long long>(cells_.size()); }
  /// Answers cell i; 0 beyond the ends.
  float GetPrm(int i) const;
  /// Answers the cell at an offset from the centre. A dx beyond the radius reaches into a neighbouring row;
  /// beyond the ends it is 0, or null.
  float GetPrm(int dx, int dy) const;
  float* GetMtxPtr(int dx, int dy);

  /// Answers the cells of the middle row, divided by their sum in float when `normalize` is non-zero and it
  /// is not 0.
  std::vector<float> GetMiddleRow(int normalize) const;

  /// Divides by the sum of the cells, added up in float; a sum of exactly 0 leaves them.
  void Normalize();
  /// Makes the mean over a disc: cells of `weight` about a centre of 1, normalised.
  int MakeMean(int r, double extent, double weight);
  /// Makes a Gaussian, normalised. A sigma of -1 is R; 0 leaves the pixel itself.
  int MakeGaussian(int r, double sigma);
  int MakeGaussian(double sigma);
  /// Makes -1 about a centre that brings the sum to 0.
  int MakeLaplacian(int r, double extent);
  /// Makes -strength about a centre that brings the sum to 1; the radius is that of `extent`, at least 1.
  int MakeSharp(double extent, double strength);
  /// Makes 1 on a disc; the answer is the number of its cells.
  int MakeMask(int r, double extent);
  /// Makes 1 at the four nearest cells of the same colour on a colour filter array, Bayer's or a honeycomb; 0
  /// red, 1 green, 2 blue. The answer is 4, or 0 for any other colour.
  int MakeCFAMask(int colour, int bayer);
  /// Undoes a trail of `length` pixels (-1: R) to either side at `angle` degrees from the vertical; `center`
  /// scales what the centre gets. The trail's fraction of a pixel counts at its first end only.
  int MakeGuideErrorCanceller(int r, double length, double angle, double center);

  /// Answers the radius at which a Gaussian is cut off.
  static int GetGaussian_nR(double sigma);

 protected:
  void Init();
  /// Answers the place of an offset, limited to the kernel.
  static int GetIndex(int dx, int dy, int r);
  /// Interpolates bilinearly between four cells.
  static float Hokan4(float f00, float f10, float f01, float f11, float fx, float fy);

 private:
  template <class Rule>
  int Star(int r, double extent, double weight, Rule&& centre);
  long long Place(int dx, int dy) const { return (static_cast<long long>(r_) + dy) * d_ + r_ + dx; }

  std::vector<float> cells_;
  int r_ = 0;
  int d_ = 0;
};
