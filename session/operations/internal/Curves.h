// What the table's tone curves run. Internal to the table.
#pragma once

#include "session/operations/Operations.h"

namespace korimg::session {

void Curve(Call& call);
void HAlpha(Call& call);
void HAlphaLevel(Call& call);

}  // namespace korimg::session
