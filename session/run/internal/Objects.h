// The runs that a call is made of: one for each object.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "session/run/Run.h"

namespace korimg::session {

/// Calls work(name of the object's folder, options, excluded lights) for each object; the name is empty where
/// there is but one. Excluded lights are told of by the first.
void ForObjects(
    Job& job, const RunOptions& options,
    const std::function<void(const std::string&, const RunOptions&, std::vector<RunFrame>)>& work);

}  // namespace korimg::session
