// What the operation `gradient` is told, as the library takes it.
#pragma once

#include "korimg/calibration/CImgGradient.h"

#include "session/Export.h"
#include "session/operations/Operation.h"

namespace korimg::session {

/// Answers the options of a step of `gradient`, those that it is not given by their defaults.
KORIMG_SESSION_API CImgGradient::Options GradientOptionsOf(const Step& step);

}  // namespace korimg::session
