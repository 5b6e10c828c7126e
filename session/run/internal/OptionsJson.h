// The options of a run as JSON, to call it again by.
#pragma once

#include <nlohmann/json.hpp>

#include "session/run/Run.h"

namespace korimg::session {

/// All but the lens, which lies beside the masters. Paths are made absolute.
nlohmann::json ToJson(const RunOptions& options);
/// Throws what JSON throws for what is none, and UsageError for names that nothing has.
RunOptions RunOptionsFrom(const nlohmann::json& json);

}  // namespace korimg::session
