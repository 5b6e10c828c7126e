#pragma once

#include "korimg/platform/CString.h"
#include "korimg/platform/Export.h"

/// Names of the ways to find the shift between two images: 0 by reference points, 1 by itself, 2 by
/// centroids, 3 by matching the images. Any other number has an empty name.
class KORIMG_API CAlignment {
 public:
  CAlignment() = default;
  virtual ~CAlignment() = default;

  static CString GetString(int alignment);     ///< as shown
  static CString GetEngString(int alignment);  ///< as stored in settings
};
