// How frames are stacked, as people choose it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "session/job/Named.h"
#include "session/stack/Drizzle.h"
#include "session/stack/Stack.h"

namespace korimg::session {

inline const std::vector<Named<CImgStack::Method>> kStackMethods = {{"mean", CImgStack::Mean},
                                                                    {"median", CImgStack::Median},
                                                                    {"max", CImgStack::Maximum},
                                                                    {"min", CImgStack::Minimum}};

inline const std::vector<Named<Rejection::Test>> kRejections = {
    {"auto", Rejection::Auto}, {"sigma", Rejection::Sigma},          {"winsorized", Rejection::Winsorized},
    {"esd", Rejection::Esd},   {"linear-fit", Rejection::LinearFit}, {"noise", Rejection::Noise},
    {"none", Rejection::None}};

struct KORIMG_SESSION_API StackChoices {
  std::string method = "mean", reject = "auto", kappa = "auto", normalise = "auto", weight = "noise",
              kernel = "bicubic", undershoot = "clamp";
  int iterations = 5;
  std::optional<CImgDrizzle::Options> drizzle;  ///< on a finer grid; outliers are told on the reference's

  /// Decides what auto means: frames are brought to one scale where the light of their stars was compared.
  void Settle(bool fluxesAreCompared);
  /// Tells whether outliers are rejected.
  bool Rejects() const { return method == "mean" && reject != "none"; }
  /// Answers the options once that is settled. Throws UsageError for a kappa that is no number, or that
  /// nothing asks for.
  StackOptions Options() const;
  /// Tells it as a call would be written with all that counts.
  std::string Text() const;
  /// Weighs frames by noise of each plane, by FWHM in pixels, or 1 for all; the best frame has 1, and one
  /// without a FWHM too.
  void Weigh(std::vector<StackInput>& inputs, const std::vector<double>& fwhms, int reference) const;
};

}  // namespace korimg::session
