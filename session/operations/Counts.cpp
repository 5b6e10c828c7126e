#include "session/operations/internal/Counts.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/composite/stacking/FrameLevels.h"

#include "session/files/Gain.h"

namespace korimg::session {

Counts CountsOf(const Call& call, std::optional<double> gain, std::optional<double> readNoise) {
  const FrameLevels levels = MeasureLevels(*call.image);
  const double sky = levels.level[0], noise = levels.noise[0];
  Counts counts{gain.value_or(0), readNoise.value_or(0)};
  if (!gain) {
    const files::Gain found = files::FindGain(call.header, noise);
    counts.gain = found.electrons;
    if (!(counts.gain > 0)) {
      // As if the noise of the sky were that of its light, of which there is some.
      constexpr double kLeastLight = 10;  // times the noise; chosen
      counts.gain = noise > 0 ? std::max(sky, kLeastLight * noise) / (noise * noise) : 1;
    }
    call.job.Explain(fmt::format("{}: gain {:g} ({})", call.Name(), counts.gain,
                                 found.electrons > 0 ? found.source : found.source + "; by the sky's noise"));
  }
  if (!readNoise) {
    const double all = noise * counts.gain;
    counts.readNoise = std::sqrt(std::max(all * all - std::max(sky, 0.0) * counts.gain, 0.0));
    call.job.Explain(
        fmt::format("{}: read noise {:g} electrons, by the sky's noise", call.Name(), counts.readNoise));
  }
  return counts;
}

}  // namespace korimg::session
