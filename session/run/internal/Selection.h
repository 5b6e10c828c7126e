// Which lights of a session a run is for.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "session/job/Job.h"
#include "session/run/Run.h"

namespace korimg::session {

/// True when a pattern, as of a shell, is that of a light: of its name, or of its path as it is given or as a
/// whole.
bool FitsPattern(const std::filesystem::path& light, const std::string& pattern);

/// Takes the lights that are not wanted out of the options, and answers them.
std::vector<RunFrame> TakeExcluded(Job& job, RunOptions& options);

/// Parts the lights by the object that they show, with names for folders: one nameless object when they show
/// one, or say nothing of it.
std::map<std::string, std::vector<std::filesystem::path>> ByObject(
    const std::vector<std::filesystem::path>& lights);

/// Answers the name of a filter or an object as it may stand in the name of a file.
std::string FileWord(const std::string& text);

}  // namespace korimg::session
