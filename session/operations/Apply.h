// Operations on a file, one after the other.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/operations/Blend.h"
#include "session/operations/Operation.h"

namespace korimg::session {

struct ApplyOptions {
  std::vector<Step> steps;
  std::filesystem::path input, output;  ///< FITS, TIFF or PNG; the input may be camera raw
  std::optional<CRect> rect;            ///< where pixels may change
  BlendOptions blend;
  std::string hdu;        ///< number or name of the FITS extension to read
  bool paged = false;     ///< the image lies in a paged store
  bool integers = false;  ///< 16 bits in place of floats

  /// Tells the steps as they are written, with what limits them.
  KORIMG_SESSION_API std::string Text() const;
};

/// Refuses what can be refused before anything is read. Throws UsageError.
KORIMG_SESSION_API void CheckSteps(const ApplyOptions& options);

/// Runs the steps on an image in memory; of the options, steps, rect and blend count.
/// @throws UsageError, FileError, Cancelled
KORIMG_SESSION_API void Apply(Job& job, const ApplyOptions& options, Image& image);

/// Runs the steps from file to file; the result's HISTORY tells of them.
/// @throws UsageError, FileError, Cancelled
KORIMG_SESSION_API void ApplyFile(Job& job, const ApplyOptions& options);

}  // namespace korimg::session
