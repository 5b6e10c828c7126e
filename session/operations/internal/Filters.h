// What the table's filters run. Internal to the table.
#pragma once

#include "session/operations/Operations.h"

namespace korimg::session {

void Gaussian(Call& call);
void Mean(Call& call);
void MeanWithoutEdge(Call& call);
void Median(Call& call);
void Minimum(Call& call);
void Maximum(Call& call);
void Rank(Call& call);
void SmallMedian(Call& call);
void SmallRank(Call& call);
void SmallUnsharp(Call& call);
void Laplacian(Call& call);

}  // namespace korimg::session
