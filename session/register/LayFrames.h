// The frames of a session laid on one of them: which one, by what kind of maps, and through which others.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/job/Named.h"
#include "session/register/Register.h"

namespace korimg::session {

/// Tells what frames may be laid by, beside shift and turn.
enum class FrameModel {
  Auto,   ///< the simplest of these that the stars do not refute
  Rigid,  ///< from here on as CFrameMap's
  Similarity,
  Affine,
  Homography,
  Distortion  ///< one of these over a distortion of the lens, if the stars tell it
};
inline const std::vector<Named<FrameModel>> kFrameModels = {{"auto", FrameModel::Auto},
                                                            {"rigid", FrameModel::Rigid},
                                                            {"similarity", FrameModel::Similarity},
                                                            {"affine", FrameModel::Affine},
                                                            {"homography", FrameModel::Homography},
                                                            {"distortion", FrameModel::Distortion}};

struct LayOptions {
  FrameModel model = FrameModel::Auto;
  double residual = 1;                       ///< pixels that stars may be off by in the mean
  std::optional<CLensDistortion> lens = {};  ///< as it is known, for frames whose stars do not tell it
};

/// Holds the frames of a session while they are laid.
struct FramesToLay {
  std::vector<std::filesystem::path> files;  ///< for messages
  std::vector<FrameMeasure> measures;
  std::function<std::shared_ptr<CVelImage>(size_t)> image;  ///< gives that of a frame again
  long long bytes = 0;                                      ///< that one takes
  bool mayBeMissing = false;                                ///< one that cannot be read again is no failure
  std::vector<char> mayBeReference = {};                    ///< empty: each
};

struct LaidFrames {
  std::optional<size_t> reference;  ///< none when it is an image of its own
  std::vector<Registration> registrations;
  std::string model;                    ///< for people: what the frames are laid by, and why
  std::optional<CLensDistortion> lens;  ///< that was found by their stars
};

/// Lays frames on a reference: the one that is given, else one that is chosen. Of those with half as many
/// stars as the richest one and no more than three times the usual sky, it is the sharpest, unless it lies so
/// far off the others that one of the sharper half nearer to their middle serves better; where half of the
/// frames or more do not lie on it, it is the sharpest of those, if more frames lie on that one.
/// Frames whose pixels cannot be read again are told of, and have the status "cannot be read".
KORIMG_SESSION_API LaidFrames LayFrames(Job& job, const FramesToLay& frames, std::optional<size_t> reference,
                                        const LayOptions& options);
/// Lays frames on an image that is none of them.
KORIMG_SESSION_API LaidFrames LayFrames(Job& job, const FramesToLay& frames, const FrameMeasure& reference,
                                        const ImageSource& image, const LayOptions& options);

}  // namespace korimg::session
