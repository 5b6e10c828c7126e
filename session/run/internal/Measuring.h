// Stage of a run: stars, sky and noise of each light.
#pragma once

#include <cstddef>
#include <vector>

#include "session/run/internal/RunContext.h"

namespace korimg::session {

/// Takes what earlier calls have measured of the frames with these numbers.
void TakeKeptFrames(RunContext& run, const std::vector<size_t>& numbers);

/// Measures what was not measured before, and keeps it. Answers how many frames these are.
size_t MeasureFrames(RunContext& run, const std::vector<size_t>& numbers);

/// Keeps what was found of a light: its measures, or that it could not be read.
void KeepFrame(RunContext& run, const RunLight& frame);

void TellBorders(RunContext& run);

/// Frames with the same pixels count once.
void LeaveOutCopies(RunContext& run);

}  // namespace korimg::session
