// The tasks of a run, in a file.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "app/tool/Tool.h"
#include "session/run/Tasks.h"

namespace korimg::tool {

/// What a task needs to know of the call that the plan was made by.
struct RunPlan {
  std::filesystem::path folder;        ///< that relative paths count from
  std::vector<std::string> arguments;  ///< of korimg run
  std::vector<RunTask> tasks;
};

/// Writes a plan. Throws files::FileError.
void Write(const RunPlan& plan, const std::filesystem::path& file);
/// Throws files::FileError for what is no plan, or that of another version.
RunPlan ReadPlan(const std::filesystem::path& file);

/// The numbers of "0-3,7", which are less than `count`. Throws UsageError.
std::vector<int> ParseNumbers(const std::string& text, int count);

}  // namespace korimg::tool
