#include "session/run/Tasks.h"

#include <algorithm>

#include <fmt/format.h>

#include "session/job/internal/Edge.h"
#include "session/run/internal/ObjectRun.h"
#include "session/run/internal/Objects.h"

namespace korimg::session {

std::string RunTask::Text() const {
  std::string text = object.empty() ? "" : object + ": ";
  text += NameOf(kRunStages, stage);
  if (!stack.empty()) text += " " + stack;
  if (stage == Measure || stage == Stack) text += fmt::format(", part {} of {}", part, parts);
  return text;
}

std::vector<RunTask> PlanTasks(Job& job, const RunOptions& options, int parts) {
  if (parts < 1) throw UsageError("a run has one part at least");
  return AtEdge([&] {
    std::vector<RunTask> measure, others[3];
    ForObjects(job, options, [&](const std::string& object, const RunOptions& own, auto excluded) {
      ObjectRun run(job, own, std::move(excluded));
      run.Show();
      const auto lights = static_cast<int>(run.Lights());
      for (int part = 1; part <= std::min(parts, lights); ++part) {
        measure.push_back({RunTask::Measure, object, "", part, std::min(parts, lights)});
      }
      others[0].push_back({RunTask::Register, object});
      for (const std::string& stack : run.StacksInParts()) {
        for (int part = 1; part <= parts; ++part) {
          others[1].push_back({RunTask::Stack, object, stack, part, parts});
        }
      }
      others[2].push_back({RunTask::Finish, object});
    });
    std::vector<RunTask> tasks{{RunTask::Masters}};
    tasks.insert(tasks.end(), measure.begin(), measure.end());
    for (const auto& stage : others) {
      tasks.insert(tasks.end(), stage.begin(), stage.end());
    }
    // Each waits for those of the last stage before it that its object has.
    for (RunTask& task : tasks) {
      for (int i = 0; i < static_cast<int>(tasks.size()); ++i) {
        const RunTask& other = tasks[i];
        if (other.stage >= task.stage || (other.stage != RunTask::Masters && other.object != task.object))
          continue;
        if (!task.after.empty() && tasks[task.after.front()].stage < other.stage) task.after.clear();
        task.after.push_back(i);
      }
    }
    return tasks;
  });
}

void DoTask(Job& job, const RunOptions& options, const RunTask& task) {
  if (job.options.overwrite) {
    throw UsageError(fmt::format(
        "tasks go on with what is there: remove the folder {} to begin anew, and leave --overwrite out",
        options.calibrate.out.string()));
  }
  AtEdge([&] {
    bool isFound = false;
    ForObjects(job, options, [&](const std::string& object, RunOptions own, auto excluded) {
      if (task.stage != RunTask::Masters && object != task.object) return;
      isFound = true;
      // Maps of defects are written by tasks that have the folder to themselves.
      own.calibrate.maps &= task.stage == RunTask::Masters || task.stage == RunTask::Finish;
      ObjectRun run(job, own, std::move(excluded));
      switch (task.stage) {
        case RunTask::Masters:
          return run.MakeMasters();
        case RunTask::Measure:
          return run.MeasurePart(task.part, task.parts);
        case RunTask::Register:
          return run.Register();
        case RunTask::Stack:
          return run.StackPart(task.stack, task.part, task.parts);
        case RunTask::Finish:
          run.Show(), run.Do();
      }
    });
    if (!isFound)
      throw UsageError(fmt::format("{}: no light shows that object; plan the run anew", task.Text()));
  });
}

}  // namespace korimg::session
