// Stage of a run: where the frames lie, and which of them are good enough.
#pragma once

#include "session/run/internal/RunContext.h"

namespace korimg::session {

/// Throws FileError for a reference that is none of the lights and cannot be read, before any work.
void CheckReference(const RunContext& run);

/// Registers the frames that are used; false when they were registered before.
bool RegisterFrames(RunContext& run);

/// Takes what an earlier call has found of the same frames; false when there is no such thing.
bool TakeRegistrations(RunContext& run);

/// Leaves out what cannot be stacked, and what is much worse than the others. A few stars tell nothing of
/// that.
void LeaveOutBad(RunContext& run, const RunTarget& target);

}  // namespace korimg::session
