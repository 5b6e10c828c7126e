// Targets that take a size of their own. Internal.
#pragma once

#include "korimg/image/Frame.h"
#include "korimg/platform/StringTable.h"

namespace korimg {

/// Gives the target a new size; false when src cannot serve its planes, and when there is no room. The store
/// tells its progress when `show` is set.
inline bool Resized(CVelImage& target, CVelImage const& src, int width, int height, int show) {
  if (target.IsEmpty() || src.IsEmpty() || src.GetPlanes() < target.GetPlanes()) return false;
  const auto progress =
      show ? velora::ProgressWin::Create(target.GetProgressHandle(), LoadString(6111).c_str(), false)
           : nullptr;
  return target.ChangeSize(width, height, progress);
}

}  // namespace korimg
