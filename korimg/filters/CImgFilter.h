#pragma once

#include <optional>

#include "korimg/image/CVelImage.h"

/// Filters of small fixed neighbourhoods, chosen by a mode: 0 the pixel and its 4 neighbours, 1 the 3 x 3, 2
/// the 5 x 5 without its corners, any other the pixel alone. The source must be another object.
///
/// Edges: rows above the image mirror about its first row, rows below repeat its last row and mirror on;
/// columns mirror about the edge columns.
class KORIMG_API CImgFilter : public CVelImage {
 public:
  CImgFilter() = default;

  /// Answers the rows that a mode needs to either side.
  static int GetMeanR(int mode);
  /// Answers the addresses of the pixels of column x in rows y - r to y + r, from the top. Under a paged
  /// store they are good for the next few accesses unless `access` has Locked.
  void SetFilterAdr(int x, int y, int plane, int r, float* rows[], Mode access);

  // Values at column x of a row; `rows` as SetFilterAdr gives them, or for the pixel (x, y) of this image.
  // Raw values, and the same on the scales of CVelImage.
  /// Answers (neighbours x weight + centre) / (their number x weight + 1); `plain` gets the mean of all when
  /// not null.
  float GetMeanRaw(float* rows[], int x, int mode, double weight, double* plain) const;
  float GetMeanRaw(int x, int y, int mode, double weight, int plane);
  float GetMedianRaw(float* rows[], int x, int mode) const;
  float GetMedianRaw(int x, int y, int mode, int plane);
  /// Answers the pixel of that rank, 0 the smallest; ranks beyond the ends are limited. NaN sorts last.
  float GetMinMaxRaw(float* rows[], int x, int mode, int rank) const;
  /// Answers the size of the Laplacian plus the plane's level minimum, from three rows about the pixel in
  /// every mode. Mode 2 is the 3 x 3 kernel 1, -2, 1 / -2, 4, -2 / 1, -2, 1.
  float GetLaplacianRaw(float* rows[], int x, int mode, int plane) const;
  float GetLaplacianRaw(int x, int y, int mode, int plane);
  /// Answers how far the pixel is from its 8 neighbours, times 8; the edge is repeated.
  float HighPassRaw(int x, int y, int plane);
  float GetMeanGray(int x, int y, int mode, double weight, int plane);
  float GetMedianGray(int x, int y, int mode, int plane);
  float GetLaplacianGray(int x, int y, int mode, int plane);
  float GetMean256f(int x, int y, int mode, double weight, int plane);
  float GetMedian256f(int x, int y, int mode, int plane);
  float GetLaplacian256f(int x, int y, int mode, int plane);

  /// Makes a copy with a mirrored margin on all sides (0: 2 pixels), on the same store; left and top mirror
  /// about the edge, right and bottom repeat it. Null when there is no store or no room. The store must
  /// outlive it.
  CVelImage* MakeFilterWork(int margin, int show);
  /// Makes the same, and the mean of the planes on the scale of plane 0 as plane 3 of a colour image. A mono
  /// image gives one plane.
  CVelImage* MakeDDWork(int margin, int show);

  /// Writes the Laplacian; all planes get plane 0's level minimum added.
  void LaplacianFilter(int mode, CVelImage* src, CRect* rect, int show);
  void MedianFilter(int mode, CVelImage* src, CRect* rect, int show);
  void MinMaxFilter(int mode, int rank, CVelImage* src, CRect* rect, int show);
  /// Adds (pixel - weighted mean) x strength where pixel and plain mean differ by the share `threshold`
  /// or more.
  void UnSharpMask(double strength, int mode, double weight, double threshold, CVelImage* src, CRect* rect,
                   int show);
  void UnSharpMask(double strength, int mode, double weight, double threshold, CVelImage* src, int plane,
                   CRect* rect, int show);

 protected:
  /// Limits each side to the image; nothing sees to left being below right.
  void CalcRect(int& left, int& top, int& right, int& bottom, CRect* rect) const;
  /// Tells where this image lies in the middle of one that is larger; else the numbers stay as they are.
  void CalcShift(int& dx, int& dy, int, CVelImage* other) const;

 private:
  CVelImage* MakeWork(int margin, int sources, int planes, int show, int message);
  void FillWork(CVelImage& work, int r, int sources, int show, int message);
  void RankFilter(int mode, std::optional<int> rank, int message, CVelImage* src, CRect* rect, int show);
  void SharpenPlanes(double strength, int mode, double weight, double threshold, CVelImage* src, int first,
                     int end, CRect* rect, int show);
};
