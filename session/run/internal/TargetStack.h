// Stage of a run: the frames of a target become a stack and its files, and stacks a colour image.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/run/internal/Kept.h"
#include "session/run/internal/RunContext.h"
#include "session/stack/internal/Journal.h"

namespace korimg::session {

/// Names the files of a target's stack.
std::vector<std::filesystem::path> OutputsOf(const RunContext& run, const RunTarget& target);

/// Makes the colour image of the stacks, which lie on one grid. False when one of them is missing, or has
/// colours itself.
bool ComposeColours(RunContext& run);

/// Stacks the frames of a target that are used, which have their weights from then on. What an earlier call
/// has made of the same frames is as good as new.
class TargetStack {
 public:
  TargetStack(RunContext& run, const RunTarget& target);

  /// Makes the stack and its files, of rows that are there and the rest.
  void Make();
  /// Makes a part of the rows; false when it was made before, or there is nothing to stack.
  bool MakeRows(int part, int parts);

 private:
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

  const RunLight& Reference() const { return *used_[reference_]; }
  std::vector<StackInput> Inputs() const;
  std::string Digest() const;
  void MakePlain();
  void MakeDrizzled();
  Drizzled DrizzleFrames(const std::shared_ptr<CVmManager>& store);

  // Rows in files, from the top down.
  std::vector<Part> Parts() const;
  std::filesystem::path PathOf(const StackRows& rows) const;
  Journal Open(const std::filesystem::path& path, const StackRows& rows,
               Journal::Use use = Journal::Finished) const;

  // What is kept of a stack.
  KeptJson Stamps() const;
  void Keep(const nlohmann::ordered_json& told);
  std::optional<KeptJson> FindKept() const;
  bool TakeKept();

  // Saving.cpp
  std::vector<std::string> History() const;
  /// Answers what is told of it beside the numbers of all stacks.
  nlohmann::ordered_json Save(CVelImage& image, const Quality& quality, const RejectionMaps& maps,
                              const Drizzled* drizzled = nullptr);
  void Tell(const RunStack& made, const nlohmann::ordered_json& more, const std::string& how) const;
  void Together(const std::string& title, const std::vector<std::function<void()>>& parts) const;

  RunContext& run_;
  const RunTarget& target_;
  std::vector<RunLight*> used_;
  size_t reference_ = 0;  ///< of these
  std::vector<StackInput> inputs_;
  StackOptions options_;
  std::string digest_;  ///< of all that the stack and its files depend on
};

}  // namespace korimg::session
