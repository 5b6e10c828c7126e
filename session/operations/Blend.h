// What limits the result of operations: a mask, a selection, or both.
#pragma once

#include <memory>
#include <string>

#include "korimg/image/CImageSelection.h"
#include "korimg/image/CVelImage.h"

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/job/Job.h"

namespace korimg::session {

struct KORIMG_SESSION_API BlendOptions {
  std::string mask, selection;  ///< files; empty for none
  bool maskReverse = false, selectionReverse = false;

  bool Any() const { return !mask.empty() || !selection.empty(); }
  /// Tells them as they are written in a call, with a blank before each.
  std::string Text() const;
};

/// Blends what operations made of an image with the image as it was: by plane 0 of a mask, from nothing of
/// the result at its black to all at its white, and within a selection.
class KORIMG_SESSION_API Blend {
 public:
  /// Reads mask and selection, and copies the image. A rectangle, null for the whole image, says where pixels
  /// may change. Throws FileError for files that do not fit the image.
  Blend(Job& job, const BlendOptions& options, CVelImage& before, const files::Header& header, CRect* rect);

  /// Throws UsageError when the operation left an image of another shape.
  void CheckShape(const CVelImage& image, const std::string& operation) const;
  void Apply(CVelImage& image);

 private:
  Job& job_;
  const BlendOptions& options_;
  CRect* rect_;
  CVelImage before_;
  std::unique_ptr<CVelImage> mask_;
  CImageSelection selection_;
};

}  // namespace korimg::session
