// The registry of operations: what `korimg apply` can do. The tool, the documentation and the tests all read
// it.
#pragma once

#include <string>
#include <vector>

#include "session/Export.h"
#include "session/operations/Operation.h"

namespace korimg::session {

/// Answers all operations, by name.
KORIMG_SESSION_API const std::vector<Operation>& Operations();

/// Answers the operation of that name. Throws UsageError with the nearest name.
KORIMG_SESSION_API const Operation& FindOperation(const std::string& name);
KORIMG_SESSION_API bool IsOperation(const std::string& name);

/// Answers the names of the families that have operations, in the order of the documentation.
KORIMG_SESSION_API const std::vector<std::string>& Families();

}  // namespace korimg::session
