#pragma once

#include <optional>
#include <string>
#include <vector>

#include "korimg/geometry/CFrameMap.h"
#include "korimg/measurement/CStarMatcher.h"

/// Finds the maps that lay frames of one camera on a reference of it, by the stars that both share: shifts
/// and turns, similarities, affinities or homographies, each for a frame, and a distortion of the lens that
/// all have. By weighted least squares (Gauss and Newton), without pairs that lie far off; the numbers of
/// frames are eliminated from those of the distortion (Triggs et al., 1999, Bundle adjustment).
class KORIMG_API CFrameFitter {
 public:
  using Model = CFrameMap::Model;

  /// Makes a fitter; frames and the reference have this size.
  CFrameFitter(int width, int height) : width_(width), height_(height) {}

  /// Adds the pairs of a frame that is not the reference. Those that are off by more than five deviations of
  /// what is usual in their frame don't count.
  void Add(std::vector<CStarPair> pairs) { frames_.push_back(std::move(pairs)); }
  /// Sets a distortion that is known of the camera, for stars that do not suffice to find one.
  void SetDistortion(const CLensDistortion& distortion) { known_ = distortion; }

  /// Takes the simplest model that the stars do not refute: pairs are left out by turns, a fifth each, and
  /// told from the others. What is richer has to tell them better by five deviations, and by 0.02 pixels in
  /// the mean. A distortion takes 100 pairs of two frames, some of them in the corners; `needsDistortion`
  /// leaves models without one out, unless the stars cannot tell it.
  void Choose(bool needsDistortion = false);
  /// Fixes the model, without a distortion.
  void Choose(Model model);

  Model GetModel() const { return model_; }
  const CLensDistortion& GetDistortion() const { return distortion_; }
  /// True when the distortion was found by these frames.
  bool IsFitted() const { return isFitted_; }
  bool IsRigid() const { return model_ == CFrameMap::Rigid && distortion_.IsNone(); }
  /// Tells why the model was chosen, in numbers, for people.
  const std::string& Text() const { return text_; }

  /// Tells how a frame lies.
  struct Fit {
    CFrameMap map;
    int stars = 0;           ///< pairs that the fit is made of
    double residual = 0;     ///< pixels, root mean square
    double cornerError = 0;  ///< pixels that a corner may be off by, one deviation
  };
  /// Fits a frame by the model, or by the richest one below it that so few pairs settle. None without two
  /// pairs.
  std::optional<Fit> FitFrame(const std::vector<CStarPair>& pairs) const;
  /// Fits a frame that differs from all others: the simplest model up to homographies that leaves it no more
  /// than `limit` pixels.
  std::optional<Fit> FitAlone(const std::vector<CStarPair>& pairs, double limit) const;

 private:
  int width_, height_;
  std::vector<std::vector<CStarPair>> frames_;
  std::optional<CLensDistortion> known_;
  Model model_ = CFrameMap::Rigid;
  CLensDistortion distortion_;
  bool isFitted_ = false;
  std::string text_;
};
