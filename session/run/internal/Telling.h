// Stage of a run: what became of the lights, for people, programs and later calls.
#pragma once

#include <vector>

#include "session/run/internal/RunContext.h"

namespace korimg::session {

/// Answers what has become of each light, those that were left out before any work among them.
std::vector<RunFrame> FramesOf(const RunContext& run);

void TellFrames(const RunContext& run, const std::vector<RunFrame>& frames);

/// Tells of lights that were left out before any work, for programs.
void TellFailed(const RunContext& run);

void WriteReport(RunContext& run);

/// A result that holds less than half of its lights is no success.
void CheckShares(const RunContext& run);

/// Keeps what Finished.h opens.
void KeepFinished(RunContext& run, const RunResult& result);

}  // namespace korimg::session
