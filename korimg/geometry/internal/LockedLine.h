// Lines that stay in memory while pixels elsewhere are read. Internal.
#pragma once

#include "korimg/image/CVelImage.h"

namespace korimg {

/// Holds a line of an image to write to, locked for the life of this object.
class LockedLine {
 public:
  LockedLine(CVelImage& image, int y, int plane)
      : image_(image), line_(image.GetImageAdr(0, y, plane, CImage::Locked, &lock_)) {}
  ~LockedLine() { image_.Unlock(lock_); }
  LockedLine(const LockedLine&) = delete;
  LockedLine& operator=(const LockedLine&) = delete;

  float& operator[](int x) const { return line_[x]; }

 private:
  CVelImage& image_;
  CImage::AddressHandle lock_;
  float* line_;
};

}  // namespace korimg
