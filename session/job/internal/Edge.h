// The edge of the library: what leaves a step is one of the family of errors.
#pragma once

#include <utility>

#include "session/job/Errors.h"

namespace korimg::session {

/// Gives what step() gives, and throws what it throws as ThrowOfFamily makes it.
template <class Step>
decltype(auto) AtEdge(Step&& step) {
  try {
    return std::forward<Step>(step)();
  } catch (...) {
    ThrowOfFamily();
  }
}

}  // namespace korimg::session
