// What the stages of a run over one object's lights share.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/calibrate/internal/Session.h"
#include "session/compose/Palette.h"
#include "session/files/internal/ConstantBorder.h"
#include "session/run/Run.h"
#include "session/run/internal/Report.h"
#include "session/run/internal/State.h"

namespace korimg::session {

inline constexpr int kThumbnailSide = 300;  // pixels; chosen

/// A light on its way.
struct RunLight {
  const Light* light = nullptr;
  std::string digest = {};               ///< of all that its pixels depend on
  std::string error = "cannot be read";  ///< it could not be done at all
  bool isUnfinished = false;             ///< since it is still being written
  Shape shape;
  double clipped = 0;
  std::shared_ptr<const files::ConstantBorder> border;  ///< of its file
  FrameMeasure measure;
  FrameLevels levels;
  std::string thumbnail;
  Registration registration;
  std::string reason;  ///< why it is left out
  double weight = 0;
  std::vector<double> weights;  ///< by planes
  CImgStack::Counts counts;
  bool isKept = false;  ///< it was measured by an earlier call

  bool IsMeasured() const { return error.empty(); }
  bool IsUsed() const { return error.empty() && reason.empty(); }
  /// Answers the start of its exposure in seconds since 1970, if it is known.
  std::optional<double> Start() const;
};

/// Lights that make one image.
struct RunTarget {
  std::string filter;
  std::string name;  ///< of its files
  std::vector<RunLight*> frames = {};
};

/// Answers the share of the values that were rejected.
inline double ShareRejected(const CImgStack::Counts& c) {
  return c.values > 0 ? static_cast<double>(c.low + c.high) / static_cast<double>(c.values) : 0;
}

/// Holds what is known of the lights; each stage goes on from what the ones before it found.
struct RunContext {
  RunContext(Job& job, const RunOptions& options, std::vector<RunFrame> excluded);
  RunContext(const RunContext&) = delete;
  RunContext& operator=(const RunContext&) = delete;

  Job& job;
  const RunOptions& options;
  Session session;
  std::vector<RunFrame> excluded;     ///< by the options
  std::vector<RunLight> frames;       ///< in the order of time
  std::vector<RunTarget> targets;     ///< by filter
  std::optional<ColourPlan> colours;  ///< their numbers are those of targets
  size_t reference = 0;               ///< of frames
  std::optional<RunLight> fixed;      ///< a reference that is none of the lights
  std::optional<RunState> state;
  Report report;
  std::vector<RunStack> stacks;  ///< as they are made

  std::filesystem::path Path(const std::string& name) const { return options.calibrate.out / name; }
  /// Answers the frame that others lie on.
  const RunLight& Grid() const { return fixed ? *fixed : frames[reference]; }
  std::string GridName() const;
  /// Answers what a light takes once it is developed, and while its stars are found.
  long long BytesOfFrame() const;

  /// Tells a line of the plan.
  void Plan(const std::string& line);
  void LeaveOut(RunLight& frame, const std::string& reason);
};

}  // namespace korimg::session
