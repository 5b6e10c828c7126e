// A session of frames with known truth, for tests.
#pragma once

#include "session/simulate/Simulate.h"

namespace korimg::test {

inline void Simulated(const std::filesystem::path& folder, const session::SimulateOptions& options) {
  session::Job job({.overwrite = true});
  session::Simulate(job, folder, options);
}

}  // namespace korimg::test
