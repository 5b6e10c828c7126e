// What the table's geometric operations run: each takes the header along. Internal to the table.
#pragma once

#include "session/operations/Operations.h"

namespace korimg::session {

void Bin(Call& call);
void Canvas(Call& call);
void Crop(Call& call);
void Expand(Call& call);
void Flip(Call& call);
void Join(Call& call);
void LiftUp(Call& call);
void Rotate(Call& call);
void Scale(Call& call);
void Scroll(Call& call);

}  // namespace korimg::session
