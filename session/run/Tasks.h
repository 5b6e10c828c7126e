// A run in tasks that machines share.
#pragma once

#include <string>
#include <vector>

#include "session/Export.h"
#include "session/job/Job.h"
#include "session/job/Named.h"
#include "session/run/Run.h"

namespace korimg::session {

/// Tells a part of a run. The tasks of a stage may be done at the same time, on any machines that reach the
/// frames and the folder of results by the same paths; a stage waits for the one before. All that a task
/// leaves lies in that folder, and the last task takes it from there.
struct RunTask {
  enum Stage {
    Masters,   ///< makes the masters of all objects
    Measure,   ///< calibrates, develops and measures a part of the lights
    Register,  ///< lays all lights on the reference
    Stack,     ///< stacks a part of the rows of one stack
    Finish     ///< is Run: it takes what is there, makes the rest, and writes the results
  };

  Stage stage = Masters;
  std::string object = {};      ///< the name of its folder, where the lights show several
  std::string stack = {};       ///< the name of its files
  int part = 1, parts = 1;      ///< from 1 on
  std::vector<int> after = {};  ///< numbers, from 0 on, of the tasks that have to be done before

  /// Names the task for people.
  KORIMG_SESSION_API std::string Text() const;
};
inline const std::vector<Named<RunTask::Stage>> kRunStages = {{"masters", RunTask::Masters},
                                                              {"measure", RunTask::Measure},
                                                              {"register", RunTask::Register},
                                                              {"stack", RunTask::Stack},
                                                              {"finish", RunTask::Finish}};

/// Cuts a run into tasks, stage by stage, with `parts` for the lights of each object and for each stack.
/// Stacks on a finer grid have no tasks of their own: what is rejected depends on all rows, and Finish makes
/// them. Reads headers, and writes nothing.
KORIMG_SESSION_API std::vector<RunTask> PlanTasks(Job& job, const RunOptions& options, int parts);

/// Does one of them. What is there already is kept, so that a task may be done again after a failure, and
/// twice at once. Whatever the parts and their order, the results have the bytes of those of Run.
/// @throws FileError that names the task to be done again where what it goes on from is missing, or was made
/// of files that have changed since; UsageError for a job that overwrites: tasks go on with what is there.
KORIMG_SESSION_API void DoTask(Job& job, const RunOptions& options, const RunTask& task);

}  // namespace korimg::session
