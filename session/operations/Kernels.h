// The kernels that images are read by between their pixels, by name.
#pragma once

#include <vector>

#include "korimg/geometry/CInterp.h"

#include "session/job/Named.h"

namespace korimg::session {

inline const std::vector<Named<CInterp::Method>> kKernels = {{"bilinear", CInterp::MethodBilinear},
                                                             {"bicubic", CInterp::MethodBicubic},
                                                             {"lanczos2", CInterp::MethodLanczos2},
                                                             {"lanczos3", CInterp::MethodLanczos3},
                                                             {"nearest", CInterp::MethodNearest}};

}  // namespace korimg::session
