// What the table's tone curves run. Internal to the table.
#pragma once

#include "app/operations/Operations.h"

namespace korimg::tool {

void Curve(Call& call);
void HAlpha(Call& call);
void HAlphaLevel(Call& call);

}  // namespace korimg::tool
