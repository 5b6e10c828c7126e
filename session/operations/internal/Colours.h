// Images that operations on colours refuse.
#pragma once

#include <fmt/format.h>

#include "session/operations/Describe.h"

namespace korimg::session {

/// Refuses images without three planes.
inline void CheckColours(const Call& call) {
  const int planes = call.image->GetPlanes();
  if (planes >= 3) return;
  throw UsageError(fmt::format("{}: the image has {}, and no colours", call.Name(),
                               planes == 1 ? "one plane" : "two planes"));
}

}  // namespace korimg::session
