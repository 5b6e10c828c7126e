// Targets that take a size of their own. Internal.
#pragma once

#include "korimg/image/internal/Frame.h"
#include "korimg/platform/StringTable.h"

namespace korimg {

/// Answers where a target shows that its size changes; nowhere unless `show` is set.
inline std::shared_ptr<velora::Progress> ResizeProgress(const CVelImage& target, int show) {
  if (!show) return nullptr;
  return velora::ProgressWin::Create(target.GetProgressHandle(), LoadString(6111).c_str(), false);
}

/// Gives the target a new size; false when src cannot serve its planes, and when there is no room. The store
/// tells its progress when `show` is set. Who writes all pixels has no use for zeros.
inline bool Resized(CVelImage& target, const CVelImage& src, int width, int height, int show,
                    CImage::Contents contents = CImage::Contents::Undefined) {
  if (target.IsEmpty() || src.IsEmpty() || src.GetPlanes() < target.GetPlanes()) return false;
  return target.ChangeSize(width, height, ResizeProgress(target, show), contents);
}

}  // namespace korimg
