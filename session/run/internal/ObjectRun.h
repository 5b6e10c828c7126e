// A run over the lights of one object, whole or in tasks.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "session/run/internal/Cost.h"
#include "session/run/internal/RunContext.h"

namespace korimg::session {

/// Does a run, stage by stage, in the order of Do. Stages of tasks leave what they find in the state, and
/// take from there what others found.
class ObjectRun {
 public:
  ObjectRun(Job& job, const RunOptions& options, std::vector<RunFrame> excluded = {})
      : run_(job, options, std::move(excluded)) {}

  /// Tells of the work; throws FileError when there is none.
  void Show();
  /// Tells the plan of each light, for programs.
  void TellPlan() const;
  RunResult Do();

  size_t Lights() const { return run_.frames.size(); }
  /// Answers the stacks whose rows may be made one by one.
  std::vector<std::string> StacksInParts() const;

  // Tasks.cpp tells of them; parts count from 1 on.
  void MakeMasters();
  void MeasurePart(int part, int parts);
  void Register();
  void StackPart(const std::string& stack, int part, int parts);

 private:
  Workload Work() const;
  std::vector<std::filesystem::path> Outputs() const;
  void OpenState(bool overwrite);
  std::vector<size_t> All() const;
  void PrepareSession();
  template <class F>
  void WithFolder(F&& work);
  void GoOn();
  void TellDone(const std::string& task, bool isNew);

  RunContext run_;
  Cost cost_;
};

}  // namespace korimg::session
