#pragma once

#include "korimg/image/CVelImage.h"

/// Does arithmetic of an image with a number, on raw values.
class KORIMG_API CImgCalculation : public CVelImage {
 public:
  /// op 0 adds the value, 1 subtracts it (negative results become 0 when cutMinus is non-zero), 2 multiplies,
  /// 3 divides. A division by 0 and any other op leave the target as it is, except that the sequential line
  /// loop copies the source. Pipelines run on a contiguous target and a window of at least 64 x 32 pixels.
  void Do(double value, int op, int cutMinus, CVelImage* src, CRect* rect, int show);

 private:
  void DoCalculation(double value, int op, int cutMinus, CVelImage* src, const CRect& window);
  void DoCalculation_x_add(float value, CVelImage* src, const CRect& window);
  void DoCalculation_x_sub(float value, int cutMinus, CVelImage* src, const CRect& window);
  void DoCalculation_x_mul(float value, CVelImage* src, const CRect& window);
};
