// Stacks of files.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "session/Export.h"
#include "session/stack/StackChoices.h"

namespace korimg::session {

enum class StackFrame {
  Reference,  ///< the stack shows what the reference does
  Union       ///< it shows what any frame does, as a mosaic of panels
};
inline const std::vector<Named<StackFrame>> kStackFrames = {{"reference", StackFrame::Reference},
                                                            {"union", StackFrame::Union}};

/// Rows of a stack that are made by themselves, on whatever machine.
struct StackPart {
  int number = 1, parts = 1;  ///< from 1 on
};

struct StackFilesOptions : StackChoices {
  std::vector<std::filesystem::path> frames;  ///< or folders of frames
  std::filesystem::path output;               ///< FITS, TIFF or PNG, by its extension
  std::filesystem::path transforms;           ///< as WriteRegistrations writes them; empty: frames lie still
  std::filesystem::path reference;            ///< gives header and sky; empty: the first that lies still
  bool integers = false;                      ///< 16 bits in place of floats
  /// A union has frames of any size, their skies are matched where they overlap, and they fade into each
  /// other.
  StackFrame frame = StackFrame::Reference;
  double feather = -1;  ///< pixels; below 0: a tenth of the shorter side in a union
  bool maps = false;    ///< of rejection: OUTPUT_low and OUTPUT_high too; not drizzled
  /// Written beside the stack, into FITS: by the uncertainty that each frame has beside it, and the mask that
  /// it may have. Means and medians have an uncertainty.
  bool uncertainty = false, mask = false;
  bool resume = false;  ///< goes on with what a killed run of the same options left
  /// Makes but these rows, as OUTPUT.part-NUMBER-of-PARTS; none that is whole is made again. Not drizzled.
  std::optional<StackPart> part = {};
  int join = 0;  ///< makes the stack of so many parts, and removes these; 0: there are none
};

struct StackedFrame {
  std::filesystem::path file;
  double weight = 0;                         ///< the mean of its planes
  std::vector<double> weights = {};          ///< of each
  std::optional<double> fluxRatio;           ///< of its stars to those of the transforms' reference
  double covers = 0;                         ///< share of the stack
  double rejectedLow = 0, rejectedHigh = 0;  ///< shares of its pixels
};

struct StackResult {
  std::vector<std::filesystem::path> outputs;  ///< the stack, and the maps if any; drizzled, its weights
  std::vector<StackedFrame> frames;
  std::vector<std::pair<std::filesystem::path, std::string>> leftOut;  ///< and why
  int bands = 0;
};

/// Stacks frames of one size and kind. What is made of parts has the bytes of what is made at once. Files
/// that cannot be read, or that the transforms say are of no use, are left out; the job has failed when these
/// are more than half.
/// @throws FileError, UsageError when no frame is left, Cancelled.
KORIMG_SESSION_API StackResult StackFiles(Job& job, const StackFilesOptions& options);

/// Tells what StackFiles would do. Writes nothing.
KORIMG_SESSION_API void PlanStackFiles(Job& job, const StackFilesOptions& options);

}  // namespace korimg::session
