#include "session/operations/Blend.h"

#include <fmt/format.h>

#include "korimg/image/CImageMask.h"
#include "korimg/platform/Debug.h"

#include "session/files/ImageFile.h"
#include "session/operations/internal/Polygon.h"
#include "session/picture/Images.h"

namespace korimg::session {

std::string BlendOptions::Text() const {
  std::string text;
  if (!mask.empty()) text += " --mask " + mask + (maskReverse ? " --mask-reverse" : "");
  if (!selection.empty()) text += " --select " + selection + (selectionReverse ? " --select-reverse" : "");
  return text;
}

Blend::Blend(Job& job, const BlendOptions& options, CVelImage& before, const files::Header& header,
             CRect* rect)
    : job_(job), options_(options), rect_(rect) {
  if (!options.selection.empty()) {
    selection_ = ReadPolygon(options.selection, before.GetWidth(), before.GetHeight());
    selection_.SetReverse(options.selectionReverse);
  }
  if (!options.mask.empty()) {
    mask_ = LoadSameSize(job, before, header, options.mask, "--mask");
    if (static_cast<float>(mask_->GetLevelMin(0)) == static_cast<float>(mask_->GetLevelMax(0))) {
      throw files::FileError(options.mask,
                             "has no range between black and white; set one by `korimg apply level`");
    }
    if (rect && selection_.IsAllSelection()) {
      // A mask alone does not stop at a rectangle; within a selection, here of all, it does.
      selection_.SetHeight(before.GetHeight());
      selection_.SetAllLine(0, 1);
    }
  }
  if (!before_.CopyImage(before, nullptr, nullptr)) {
    throw velora::CVmMemoryAllocationError("no room for a copy of the image");
  }
}

void Blend::CheckShape(const CVelImage& image, const std::string& operation) const {
  if (image.GetWidth() == before_.GetWidth() && image.GetHeight() == before_.GetHeight() &&
      image.GetPlanes() == before_.GetPlanes()) {
    return;
  }
  throw UsageError(fmt::format(
      "{} makes {} x {} x {} of {} x {} x {}, which --mask and --select cannot blend; run it by itself",
      operation, image.GetWidth(), image.GetHeight(), image.GetPlanes(), before_.GetWidth(),
      before_.GetHeight(), before_.GetPlanes()));
}

void Blend::Apply(CVelImage& image) {
  CImageMask mask(mask_.get(), 0, 1, options_.maskReverse, Widen(options_.mask).c_str(), 0);
  image.SetProgressHandle(job_.OperationWindow("blending"));
  image.ApplyMask(rect_, &selection_, &before_, &mask, 1);
  job_.EndProgress();
}

}  // namespace korimg::session
