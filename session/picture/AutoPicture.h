#pragma once

#include <utility>
#include <vector>

#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/image/CVelImage.h"

#include "session/Export.h"
#include "session/job/Named.h"
#include "session/picture/Images.h"

namespace korimg::session {

/// Tells how an image is shown: Auto stretches its midtones so that a linear image shows what is faint, on a
/// grey sky, Linked with the same black for all planes; others set black and white, and None leaves them.
enum class LevelMethod { Auto, Linked, Normal, Mean, Median, Histogram, None };
inline const std::vector<Named<LevelMethod>> kLevelMethods = {
    {"auto", LevelMethod::Auto}, {"linked", LevelMethod::Linked}, {"normal", LevelMethod::Normal},
    {"mean", LevelMethod::Mean}, {"median", LevelMethod::Median}, {"histogram", LevelMethod::Histogram},
    {"none", LevelMethod::None}};

/// Answers what Auto and Linked show an image by: the sky, the median M with a spread s of 1.4826 times the
/// median distance from it, becomes a quarter of white, and M - 2.8 s black. Colours keep their ratios above
/// the sky. An image that is bright throughout, or of one value, is shown from its minimum to its maximum.
KORIMG_SESSION_API Levels StretchForPicture(CVelImage& image, bool linked = false);
/// Does the same for an image that nobody holds as a whole, by its sky and by the extremes of each plane's
/// finite pixels.
KORIMG_SESSION_API Levels StretchForPicture(const FrameLevels& sky,
                                            const std::vector<std::pair<double, double>>& extremes,
                                            bool linked = false);

/// Sets the levels of an image so that it makes a good picture of a sky, and answers what it is shown by. A
/// colour image keeps its colours.
KORIMG_SESSION_API Levels LevelForPicture(CVelImage& image, LevelMethod method);

/// Sets the levels by Histogram, from the pixels that a preview of `side` pixels takes: quick on a large
/// image.
KORIMG_SESSION_API void LevelForPreview(CVelImage& image, int side);

}  // namespace korimg::session
