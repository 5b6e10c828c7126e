// How frames are stacked, as people choose it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "korimg/geometry/CInterp.h"

#include "session/Export.h"
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

inline const std::vector<Named<std::optional<Normalisation>>> kNormalisations = {
    {"auto", std::nullopt},
    {"none", Normalisation::None},
    {"level", Normalisation::Level},
    {"level+scale", Normalisation::LevelAndScale}};

enum class FrameWeights { Noise, Fwhm, None };

inline const std::vector<Named<FrameWeights>> kFrameWeights = {
    {"noise", FrameWeights::Noise}, {"fwhm", FrameWeights::Fwhm}, {"none", FrameWeights::None}};

inline const std::vector<Named<bool>> kUndershoots = {{"clamp", true}, {"keep", false}};

/// Holds the limits of a test of outliers, in standard deviations below and above.
struct Kappa {
  double low, high;
};

/// Reads "auto", which is none, one number or "LOW,HIGH". Throws UsageError for anything else.
KORIMG_SESSION_API std::optional<Kappa> KappaFrom(const std::string& text);
KORIMG_SESSION_API std::string TextOf(const std::optional<Kappa>& kappa);

struct KORIMG_SESSION_API StackChoices {
  CImgStack::Method method = CImgStack::Mean;
  Rejection::Test reject = Rejection::Auto;
  std::optional<Kappa> kappa;              ///< of tests that take one; each has its own unless told
  int iterations = 5;                      ///< of tests that go on with what they left
  std::optional<Normalisation> normalise;  ///< by level and scale where scales are known, unless told
  FrameWeights weight = FrameWeights::Noise;
  CInterp::Method kernel = CInterp::MethodBicubic;
  bool clampUndershoot = true;                  ///< see StackOptions
  std::optional<CImgDrizzle::Options> drizzle;  ///< on a finer grid; outliers are told on the reference's

  /// Settles how frames are normalised unless it was told: to one scale where the light of their stars was
  /// compared.
  void Settle(bool fluxesAreCompared);
  /// Tells whether outliers are rejected.
  bool Rejects() const { return method == CImgStack::Mean && reject != Rejection::None; }
  /// Tells whether anything of it goes by the levels and the noise of the frames.
  bool WantsLevels() const {
    return normalise != Normalisation::None || weight == FrameWeights::Noise || clampUndershoot;
  }
  /// Answers the options once that is settled. Throws UsageError for what does not go together, and a kappa
  /// beyond its limits or that nothing asks for.
  StackOptions Options() const;
  /// Tells it as a call would be written with all that counts.
  std::string Text() const;
  /// Weighs frames by noise of each plane, by FWHM in pixels, or 1 for all; the best frame has 1, and one
  /// without a FWHM too.
  void Weigh(std::vector<StackInput>& inputs, const std::vector<double>& fwhms, int reference) const;
};

}  // namespace korimg::session
