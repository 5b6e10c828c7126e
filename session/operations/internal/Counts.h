// What raw values are in electrons, for operations that know the noise of light.
#pragma once

#include <optional>

#include "session/operations/Describe.h"

namespace korimg::session {

struct Counts {
  double gain = 1;       ///< electrons of a raw value
  double readNoise = 0;  ///< electrons
};

/// Answers what is told; else the gain of the header, or one by which the noise of the sky would be that of
/// its light, and the read noise that the light of the sky leaves of its noise. The job is told where it is
/// from.
Counts CountsOf(const Call& call, std::optional<double> gain, std::optional<double> readNoise);

/// Adds the parameters of both.
template <class O>
Describe<O>& TakesCounts(Describe<O>&& description) {
  return description
      .Takes("gain", &O::gain,
             {"left out, that of the header, else by the noise of the sky", "electrons of a raw value", 1e-30,
              1e30})
      .Takes("read-noise", &O::readNoise,
             {"left out, what the light of the sky leaves of its noise", "electrons", 0, 1e9});
}

}  // namespace korimg::session
