#pragma once

#include "korimg/platform/CString.h"

class CVelImage;

/// Holds a mask: an image whose plane 0 says how much of an operation's result is taken, from none at its
/// black to all at its white, and where the image came from. The image belongs to the caller. The kind of
/// mask follows from its origin: a window's, a file's, or, with neither, one made of a selection.
class CImageMask {
 public:
  CImageMask() = default;
  CImageMask(CVelImage* image, int windowMask, int useMask, int reverse, CString maskFile, double blurSize)
      : image_(image),
        windowMask_(windowMask),
        useMask_(useMask),
        reverse_(reverse),
        maskFile_(std::move(maskFile)),
        blurSize_(blurSize) {}

  CVelImage* GetVelImage() const { return image_; }
  int IsUseMask() const { return useMask_; }  ///< for the application: blending does not ask
  int GetReverse() const { return reverse_; }
  double GetBlurSize() const { return blurSize_; }  ///< for the application, pixels
  CString GetMaskFile() const { return maskFile_; }
  int HaveWindowMask() const { return image_ && windowMask_; }
  int HaveFileMask() const { return image_ && !windowMask_ && !maskFile_.IsEmpty(); }
  int HaveSelectionMask() const { return image_ && !windowMask_ && maskFile_.IsEmpty(); }
  int HaveMask() const { return HaveWindowMask() || HaveFileMask() || HaveSelectionMask(); }

 private:
  CVelImage* image_ = nullptr;
  int windowMask_ = 0;
  int useMask_ = 0;
  int reverse_ = 0;
  CString maskFile_;
  double blurSize_ = 0;
};
