// Makes an observing session with known truth: for trying the job, for tests and for benchmarks.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/job/Job.h"

namespace korimg::session {

struct SimulateOptions {
  int frames = 20;  ///< lights, of each filter, 1 to 9999; calibration frames of a kind: a half, but 3 to 10
  int width = 3008, height = 2008;  ///< pixels, at least 64
  /// RGGB, GRBG, BGGR or GBRG for a colour sensor, HONEYCOMB1 to HONEYCOMB4 for one whose frames are 0
  /// between its sites; empty for a mono one.
  std::string bayer = {};
  std::vector<std::string> filters = {};  ///< of a wheel before a mono sensor: L, R, G, B, Ha, OIII, SII
  double barrel = 0;       ///< share of its distance by which the lens draws a corner to the middle, 0 to 0.1
  double dither = 0;       ///< lights lie up to this share of the sides off, 0 to 0.5; 0: up to 12 pixels
  std::uint64_t seed = 1;  ///< the same seed and options give the same bytes, whatever the threads
  std::uint64_t noiseSeed = 0;  ///< of the photons and the readout alone; 0: as all else
  int threads = 0;              ///< 0: as many as OpenMP gives
};

/// Writes folder/lights/light_0001.fits and so on (light_R_0001.fits with filters), darks/, flats/, biases/
/// and truth.json: 16-bit frames of a star field with nebulosity, sky gradient, vignetting, dust, hot pixels,
/// cosmic rays, a satellite trail, shifts and rotations. truth.json holds every parameter that a test may
/// want, with its conventions in words. Of a job that is cancelled files made so far stay, without
/// truth.json.
/// @throws UsageError for options out of range, files::FileError if a file cannot be written.
KORIMG_SESSION_API void Simulate(Job& job, const std::filesystem::path& folder,
                                 const SimulateOptions& options);

}  // namespace korimg::session
