// The colour model of CColor for rows of colours, in vectors. Internal.
#pragma once

namespace korimg {

/// Colours that are converted at once while they lie in the first-level cache: a good length of rows.
constexpr int kColourChunk = 256;

/// Rows of `count` reds, greens and blues, white at 1, become L, a and b in place: what CColor::RgbToLab
/// computes, to 3e-8 (for colours of -1e12 to 1e12 times white). A colour with a NaN becomes all NaN.
void RgbToLab(double* red, double* green, double* blue, int count);
/// Does the same for L alone, in place of red; green and blue are used up.
void RgbToL(double* red, double* green, double* blue, int count);
/// Rows of L, a and b become red, green and blue, white at 1, in place: what CColor::LabToRgb computes, to
/// 1e-9 of the value or of 1.
void LabToRgb(double* l, double* a, double* b, int count);

}  // namespace korimg
