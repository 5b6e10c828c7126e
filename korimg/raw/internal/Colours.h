// The planes of a colour image. Internal.
#pragma once

namespace korimg {

inline constexpr int kRed = 0, kGreen = 1, kBlue = 2;

}  // namespace korimg
