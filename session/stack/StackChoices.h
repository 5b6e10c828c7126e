// How frames are stacked, as people choose it.
#pragma once

#include <string>
#include <vector>

#include "session/job/Named.h"
#include "session/stack/Stack.h"

namespace korimg::session {

inline const std::vector<Named<CImgStack::Method>> kStackMethods = {{"median", CImgStack::Median},
                                                                    {"mean", CImgStack::Mean},
                                                                    {"sigma", CImgStack::ClippedMean},
                                                                    {"max", CImgStack::Maximum},
                                                                    {"min", CImgStack::Minimum}};

struct StackChoices {
  std::string method = "sigma", kappa = "2.5", normalise = "auto", weight = "noise", kernel = "bicubic",
              undershoot = "clamp";
  int iterations = 5;

  /// Decides what auto means: frames are brought to one scale where the light of their stars was compared.
  void Settle(bool fluxesAreCompared);
  /// Once that is settled. Throws UsageError for a kappa that is none.
  StackOptions Options() const;
  /// As a call would be written with all that counts.
  std::string Text() const;
  /// By noise, by FWHM in pixels, or 1 for all; the best frame has 1, and one without a FWHM too.
  void Weigh(std::vector<StackInput>& inputs, const std::vector<double>& fwhms, int reference) const;
};

}  // namespace korimg::session
