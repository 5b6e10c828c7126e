// The stages of a run over one object's lights, which share what is known of these.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/calibrate/internal/Session.h"
#include "session/compose/Palette.h"
#include "session/files/internal/ConstantBorder.h"
#include "session/run/Run.h"
#include "session/run/internal/Cost.h"
#include "session/run/internal/Kept.h"
#include "session/run/internal/Report.h"
#include "session/run/internal/State.h"
#include "session/stack/internal/Journal.h"

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

/// Does a run, stage by stage: each goes on from what the ones before it found, in the order of Do. Those of
/// tasks leave what they find in the state, and take from there what others found.
class Road {
 public:
  Road(Job& job, const RunOptions& options, std::vector<RunFrame> excluded = {});

  /// Tells of the work; throws FileError when there is none.
  void Show();
  /// Tells the plan of each light, for programs.
  void TellPlan() const;
  RunResult Do();

  size_t Lights() const { return frames_.size(); }
  /// Answers the stacks whose rows may be made one by one.
  std::vector<std::string> StacksInParts() const;

  // Tasks.cpp tells of them; parts count from 1 on.
  void MakeMasters();
  void MeasurePart(int part, int parts);
  void Register();
  void StackPart(const std::string& stack, int part, int parts);

 private:
  /// Holds the frames that are laid, and on what.
  struct Laying {
    std::vector<size_t> numbers;
    std::shared_ptr<CVelImage> whole;  ///< of a reference that is none of them
    std::string digest;                ///< of all that they lie by, but for the lens
    std::string camera;                ///< and lens
  };
  /// Tells what a target's stack is made of, and how.
  struct Making {
    std::vector<RunLight*> used;
    size_t reference = 0;  ///< of these
    std::vector<StackInput> inputs;
    StackOptions options;
    std::string digest;  ///< of all that the stack and its files depend on
  };
  /// Rows of a stack in a file.
  struct Part {
    StackRows rows;
    std::filesystem::path path;
  };
  /// Counts how many values were rejected in each pixel.
  struct RejectionMaps {
    std::unique_ptr<CVelImage> low, high;
  };
  /// A stack on a finer grid.
  struct Drizzled {
    std::unique_ptr<CVelImage> image, weights;
    std::optional<double> spread;  ///< of the weights
  };

  // Road.cpp
  std::filesystem::path Path(const std::string& name) const { return options_.calibrate.out / name; }
  void Plan(const std::string& line);
  void LeaveOut(RunLight& frame, const std::string& reason);
  Workload Work() const;
  /// Answers what a light takes once it is developed, and while its stars are found.
  long long BytesOfFrame() const;
  static std::optional<double> StartOf(const RunLight& frame);
  std::vector<std::filesystem::path> Outputs() const;
  std::vector<std::filesystem::path> Files() const;
  std::vector<size_t> All() const;
  void PrepareSession();
  template <class F>
  void WithFolder(F&& work);
  void GoOn();
  void TellDone(const std::string& task, bool isNew);

  // Measuring.cpp
  Levels StretchOfFrames(const RunTarget& target) const;
  void TakeKeptFrames(const std::vector<size_t>& numbers);
  /// Answers how many of them were not measured before.
  size_t MeasureFrames(const std::vector<size_t>& numbers);
  std::optional<RunLight> FindKept(const RunLight& frame) const;
  void Keep(const RunLight& frame);
  void TellBorders();
  void LeaveOutCopies();

  // Registering.cpp
  /// Tells where lenses are kept: what is known of them lies beside the masters.
  std::filesystem::path Lenses() const;
  /// Answers the frame that others lie on.
  const RunLight& Grid() const { return fixed_ ? *fixed_ : frames_[reference_]; }
  std::string NameOf(const RunLight& frame) const;
  std::shared_ptr<CVelImage> FindReference();
  Laying BeginLaying();
  std::optional<LaidFrames> FindLaid(const Laying& laying) const;
  LaidFrames Lay(const Laying& laying);
  void Apply(const Laying& laying, const LaidFrames& laid);
  /// Lays the frames; false when they were laid before.
  bool RegisterFrames();
  void LeaveOutBad(const RunTarget& target);
  void TellLimitsThatSayLittle(const RunTarget& target, size_t frames, size_t starry);

  // Stacking.cpp
  std::vector<std::filesystem::path> OutputsOf(const RunTarget& target) const;
  std::vector<StackInput> Inputs(const std::vector<RunLight*>& used) const;
  /// Begins a stack; none where no frame is left.
  std::optional<Making> BeginStack(const RunTarget& target);
  void StackFrames(const RunTarget& target);
  /// Stacks a part; false when it was done before, or there is nothing to stack.
  bool StackRowsOf(const RunTarget& target, int part, int parts);
  /// Answers the files of rows that tasks have made, from the top down.
  std::vector<Part> PartsOf(const RunTarget& target) const;
  Journal OpenPart(const Making& made, const std::filesystem::path& path, const StackRows& rows,
                   Journal::Use use = Journal::Finished) const;
  std::filesystem::path PathOf(const RunTarget& target, const StackRows& rows) const;
  Drizzled DrizzleFrames(const RunTarget& target, const Making& made,
                         const std::shared_ptr<CVmManager>& store);
  std::string DigestOf(const RunTarget& target, const std::vector<RunLight*>& used,
                       const RunLight& reference) const;
  KeptJson StampsOf(const RunTarget& target) const;
  void KeepStack(const RunTarget& target, const Making& made, const nlohmann::ordered_json& told);
  std::optional<KeptJson> FindKeptStack(const RunTarget& target, const Making& made) const;
  bool TakeKeptStack(const RunTarget& target, const Making& made);

  // Saving.cpp
  std::vector<std::string> History(const std::vector<RunLight*>& used, const RunTarget& target) const;
  nlohmann::ordered_json SaveStack(const RunTarget& target, const std::vector<RunLight*>& used,
                                   const RunLight& reference, CVelImage& image, const Quality& quality,
                                   const RejectionMaps& maps, const Drizzled* drizzled = nullptr);
  void TellStack(const RunStack& made, const nlohmann::ordered_json& more, const std::string& how) const;
  void Together(const std::string& title, const std::vector<std::function<void()>>& parts);
  bool ComposeColours();

  // Telling.cpp
  std::vector<RunFrame> Frames() const;
  void TellFrames(const std::vector<RunFrame>& frames) const;
  void TellFailed() const;
  void WriteReport();
  void CheckShares();

  // Finished.cpp
  void KeepFinished(const RunResult& result);

  Job& job_;
  const RunOptions& options_;
  Session session_;
  std::vector<RunLight> frames_;
  std::vector<RunTarget> targets_;
  std::optional<ColourPlan> colours_;  ///< their numbers are those of targets
  size_t reference_ = 0;
  std::optional<RunLight> fixed_;  ///< a reference that is none of the lights
  std::optional<RunState> state_;
  std::vector<RunFrame> excluded_;
  Cost cost_;
  Report report_;
  std::vector<RunStack> stacks_;
};

}  // namespace korimg::session
