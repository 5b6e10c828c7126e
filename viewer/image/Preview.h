// What operations make of a picture, before they are done to the file.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "korimg/platform/CRect.h"

#include "session/job/Job.h"
#include "session/operations/Operation.h"
#include "session/picture/Image.h"
#include "viewer/image/Pyramid.h"
#include "viewer/image/Tiles.h"

namespace korimg::viewer {

struct PreviewOptions {
  CRect seen;         ///< pixels of the picture
  double scale = 1;   ///< pixels of the screen for one of the picture
  bool asIs = false;  ///< shown by `stretch`; else as a file of the result is shown when it is opened
  Stretch stretch;
};

struct Preview {
  CRect rect;  ///< of the picture, that it shows
  Bytes bytes;
  int step = 1;          ///< pixels of the picture for one of it, each way
  bool isWhole = false;  ///< the operations saw all of the picture, and not a window of it
};

/// Answers a window of a level of the picture as an image that lies as the file does. Throws as Pyramid::Get.
session::Image WindowOf(Pyramid& pyramid, int level, const CRect& rect, const std::function<bool()>& isGone);

/// True when what a step makes of a pixel depends on none farther than kReach pixels away: it may be done to
/// a window of a picture.
bool IsLocal(const session::Step& step);
constexpr int kReach = 64;  ///< chosen: a margin that costs less than the window itself

/// Does steps to what is seen, at the size it is seen at, or to all of the picture, made so much smaller that
/// it takes no longer. Where it is smaller, what parameters say in pixels is too, and the preview is but near
/// to the result. What a window will look like as a file is told by pieces spread over the picture.
/// @throws UsageError for steps after which pixels lie elsewhere, and for those that take other images beside
/// a picture that is too large; Cancelled
Preview DrawPreview(session::Job& job, Pyramid& pyramid, const std::vector<session::Step>& steps,
                    const PreviewOptions& options);

}  // namespace korimg::viewer
