// The options of a run as JSON, to call it again by.
#pragma once

#include <nlohmann/json.hpp>

#include "session/run/Run.h"

namespace korimg::session {

/// Writes all but the lens, which lies beside the masters. Paths are made absolute.
nlohmann::json ToJson(const RunOptions& options);
/// Reads them again. Throws what JSON throws for another object, and UsageError for names that nothing has.
RunOptions RunOptionsFrom(const nlohmann::json& json);

}  // namespace korimg::session
