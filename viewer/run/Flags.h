// Frames that somebody does not want in the stack.
#pragma once

#include <string>
#include <vector>

#include "session/run/Finished.h"

namespace korimg::viewer {

/// Marks on the frames of a run, with a way back, kept in selection.json in its folder, which `korimg run
/// --selection` reads. They begin as that file has them, else with what the run left out by its options.
class Flags {
 public:
  explicit Flags(const session::FinishedRun& run);

  const std::vector<bool>& Now() const { return now_; }
  /// Tells what is wrong with the file, if anything.
  const std::string& Problem() const { return problem_; }
  bool IsSaved() const { return now_ == saved_; }
  bool CanUndo() const { return !before_.empty(); }

  /// Throws UsageError for a frame that is not there.
  void Set(const std::vector<std::size_t>& frames, bool isOut);
  /// Takes the last change back.
  void Undo();
  /// Writes the file, under a temporary name first.
  /// @throws FileError where somebody else has changed it since it was read
  void Save(const session::FinishedRun& run);

 private:
  std::filesystem::path path_;
  std::string stamp_, reference_, problem_;  ///< state, and what else it holds, of the file as it was read
  std::vector<std::string> others_;          ///< patterns of the file that fit none of the frames
  std::vector<bool> now_, saved_;
  std::vector<std::vector<bool>> before_;
};

}  // namespace korimg::viewer
