// How frames lie on a reference: first by their stars, then by their light. Nothing here reads files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "korimg/measurement/CDiscMatcher.h"
#include "korimg/measurement/CFrameFitter.h"
#include "korimg/measurement/CPhaseMatcher.h"
#include "korimg/measurement/CPlaceMatcher.h"
#include "korimg/measurement/CStarMatcher.h"

#include "session/Export.h"

namespace korimg::session {

/// Holds what is kept of a frame once its pixels are gone.
struct FrameMeasure {
  int width = 0, height = 0;
  double sky = 0, noise = 0;         ///< level and deviation, raw
  double fwhm = 0, elongation = 0;   ///< of the usual star
  std::optional<double> guideError;  ///< see GuideErrorOf
  int starCount = 0;                 ///< found
  std::vector<CStar> stars;          ///< those that frames are matched by: 2000 at most
  std::string noData;                ///< for people: what of its edges was left out
  std::uint64_t digest = 0;          ///< of its pixels: equal for copies
};

/// Finds and measures the stars of an image, `sigmas` above the sky.
KORIMG_SESSION_API FrameMeasure MeasureFrame(CVelImage& image, double sigmas = 5);

/// Chooses the frame that others are best laid on: of those with half as many stars as the richest one, or
/// more, and with three times the usual sky at most, that of the smallest FWHM; the first when no frame has
/// any star. With `candidates`, one of those that are not 0; there must be one.
KORIMG_SESSION_API size_t ChooseReference(const std::vector<FrameMeasure>& frames,
                                          const std::vector<char>& candidates = {});

/// Tells how a frame comes to lie on the reference.
struct Registration {
  std::string file;  ///< as the user named it
  /// In the terms of CImgComposit::Do: shifts in pixels, and degrees about the middle, clockwise on the
  /// screen. Of a map that is more than that, what comes nearest in the middle of the frame.
  double dx = 0, dy = 0, degrees = 0;
  int stars = 0;        ///< that the fit is made of
  double residual = 0;  ///< pixels, root mean square
  double fwhm = 0;      ///< pixels, of the frame's stars
  std::string method;   ///< "reference", "stars", "disc", "phase", "place"
  std::string
      status;  ///< "ok", "no stars", "no match", "mirrored", "residual too large", "copy", "cannot be read"
  std::string note;  ///< numbers and limits: of what is not ok why, else what few stars leave open
  /// Of its stars' light to that of the same ones on the reference; none when none is the same.
  std::optional<double> fluxRatio = {};
  /// Of frames that shift and turn do not lay.
  std::optional<CFrameMap> map = {};
  /// The stars that it shares with what it was laid on by them, while frames are laid.
  std::vector<CStarPair> pairs = {};

  bool IsGood() const { return status == "ok"; }
  /// Tells status and note.
  std::string Text() const { return note.empty() ? status : status + ": " + note; }
};

/// Answers where a position of a frame comes to lie on the reference.
KORIMG_SESSION_API std::pair<double, double> PlaceOf(const Registration& registration,
                                                     const FrameMeasure& frame, double x, double y);

/// Answers the registration of the reference itself.
KORIMG_SESSION_API Registration ReferenceRegistration(const FrameMeasure& reference);

/// Gives an image again whose pixels were let go, and keeps what it needs to live.
using ImageSource = std::function<std::shared_ptr<CVelImage>()>;

/// Lays frames on a reference. Any number of threads may call it at once.
class KORIMG_SESSION_API Registrar {
 public:
  /// The image of the reference is only asked for by the first frame whose stars do not match: discs are laid
  /// on each other by their middles, everything else by phase correlation, and what has hardly any stars in
  /// the end by the place where its light fits best. Stars may be off by `residual` pixels.
  Registrar(const FrameMeasure& reference, ImageSource image, double residual = 1);

  /// A frame that no method can lay on the reference has the status of its stars. Throws what the sources of
  /// images throw.
  Registration Register(const FrameMeasure& frame, const ImageSource& image);

 private:
  Registration RegisterByLight(const FrameMeasure& frame, const ImageSource& image);
  Registration RegisterByPlace(const FrameMeasure& frame, CVelImage& image);

  CStarMatcher stars_;
  size_t starCount_;  ///< of the reference
  double residual_;
  ImageSource loadReference_;
  std::mutex mutex_;  ///< one frame at a time by its light: phase correlation holds a few images
  std::shared_ptr<CVelImage> reference_;
  std::unique_ptr<CDiscMatcher> disc_;
  std::unique_ptr<CPhaseMatcher> phase_;
  std::unique_ptr<CPlaceMatcher> place_;
};

/// Lays a frame again whose stars were matched, by what the fitter has chosen for all frames, unless that is
/// shift and turn. With `mayDiffer` one that is off by more than `limit` pixels then has a map of its own.
KORIMG_SESSION_API void LayByStars(const CFrameFitter& fitter, const FrameMeasure& frame,
                                   const FrameMeasure& reference, double limit, bool mayDiffer,
                                   Registration& registration);

/// Lays frames that do not match the reference on frames that lie on it: those nearest in the order of
/// frames, five at most by their stars, and the nearest one by its light too. A frame that its light turns
/// over between others that are not turned is compared with the nearest of these, which has to bear it out.
/// `image` gives the image of a frame again. One registration for each frame; false when none was found.
KORIMG_SESSION_API bool RegisterThroughOthers(const std::vector<FrameMeasure>& frames,
                                              std::vector<Registration>& registrations,
                                              const CFrameFitter& fitter,
                                              const std::function<std::shared_ptr<CVelImage>(size_t)>& image);

/// Fills in how much brighter the stars of registered frames are than the same ones of the reference: by
/// transparency, exposure and gain. The brightest stars of the reference decide that are neither saturated,
/// nor blended, nor at an edge, each by its signal to noise. Nothing is filled in unless most of the frames
/// have such stars.
KORIMG_SESSION_API void CompareFluxes(const std::vector<FrameMeasure>& frames, const FrameMeasure& reference,
                                      std::vector<Registration>& registrations);

/// Tells why a frame without a flux ratio cannot stand beside others that have one.
inline constexpr const char* kNoCommonLight =
    "no star to compare its light with the reference's by; --normalize level takes it as it is";

/// Writes one line, an object of JSON: file, dx, dy, degrees, stars, residual_px, fwhm, flux_ratio, method,
/// status, note, and map where shift and turn do not lay the frame; see MapJson.h.
KORIMG_SESSION_API std::string ToJson(const Registration& registration);

/// Reads the map of such an object. Throws UsageError for other texts.
KORIMG_SESSION_API CFrameMap MapOf(const std::string& json);

}  // namespace korimg::session
