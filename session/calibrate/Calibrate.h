// Calibration of lights by masters made of dark, flat and bias frames.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "session/Export.h"
#include "session/develop/Develop.h"
#include "session/job/Named.h"
#include "session/picture/Quality.h"

namespace korimg::session {

/// Tells what becomes of hot and cold pixels: auto finds them by the dark that serves a light, or by several
/// lights of a camera where there is none, and gives them the median of the nearest good pixels of their
/// colour.
enum class Cosmetic { Auto, None };
inline const std::vector<Named<Cosmetic>> kCosmetics = {{"auto", Cosmetic::Auto}, {"none", Cosmetic::None}};

struct CalibrateOptions {
  /// Files, or folders of files. One file of a kind is taken as a master.
  std::vector<std::filesystem::path> lights, darks, flats, biases;
  std::filesystem::path out;
  std::filesystem::path masters;  ///< folder for the masters; empty: they are not kept
  /// The value added before anything is taken off, and kept in the output. None: what the noise needs, and
  /// taken off again at the end.
  std::optional<double> pedestal;
  bool mastersAreLibrary = false;    ///< that folder holds those of other sessions too
  std::string group = "auto";        ///< by what flats belong together; see ParseGrouping
  bool allowMismatch = false;        ///< frames that differ in more than size serve with a warning
  DevelopOptions develop;            ///< of lights that are mosaics
  bool keepMosaic = false;           ///< mosaics stay as they are
  bool misfitsMayBeMissing = false;  ///< a light that the calibration frames do not fit is a warning
  bool previews = false;             ///< a small picture of each light too, in the folder previews
  Cosmetic cosmetic = Cosmetic::None;
  bool maps = false;       ///< the maps of hot and cold pixels too, as hot_pixels.fits
  QualityOptions quality;  ///< what is written beside the results

  /// Answers what stays in the output beside light.
  double KeptPedestal() const { return pedestal.value_or(0); }
};

/// Counts the pixels of a light that were mended.
struct MendedPixels {
  int hot = 0, cold = 0;
};

/// A light, and what it has come to.
struct CalibratedLight {
  std::filesystem::path file;
  std::optional<std::filesystem::path> output, preview;  ///< no output where there is nothing to do
  std::string dark, flat, bias, mosaic;  ///< names of the masters that serve it, and its pattern
  bool isDone = false;
  double clipped = 0, mean = 0;  ///< share of the pixels limited at 0; of the result
  double seconds = 0;
  std::string noData;                   ///< for people: what of its edges holds no data
  std::optional<MendedPixels> defects;  ///< none: none were looked for
};

/// Writes a calibrated FITS of floats for each light, and a picture where they are wanted; mosaics are
/// developed into colour, with one white balance for all lights of a camera. Darks contain the bias; the bias
/// comes off flats that have no dark of their own exposure, and off lights when there are no darks. A light
/// that cannot be read is a warning, one that the calibration frames do not fit a failure, and so are less
/// than half of the lights; anything wrong with calibration frames or outputs ends the call before anything
/// is written.
KORIMG_SESSION_API std::vector<CalibratedLight> Calibrate(Job& job, const CalibrateOptions& options);

/// Tells what Calibrate would do: groups of frames, and what serves each light. Writes nothing.
KORIMG_SESSION_API std::vector<CalibratedLight> PlanCalibration(Job& job, const CalibrateOptions& options);

}  // namespace korimg::session
