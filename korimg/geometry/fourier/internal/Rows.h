// Loops over the rows of complex planes, and what both kinds of planes do to an element. Internal.
#pragma once

#include <cmath>

#include "korimg/geometry/fourier/ComplexPlanes.h"
#include "korimg/image/CVelImage.h"
#include "korimg/image/internal/Lines.h"

template <class F>
void ComplexPlanes::ForRows(F&& f) {
  korimg::ForLines(onTeam_ ? korimg::Team::All : korimg::Team::One, 0, height_, [&](int y) {
    f(y);
    if (progress_) progress_->ShowProgress(1);
  });
}

/// conj(a) b, brought to an absolute value of 1 where it has one. Squares of large spectra are no floats.
inline complex CrossPower(const complex& a, const complex& b) {
  const float re = a.re * b.re + a.im * b.im, im = a.re * b.im - a.im * b.re;
  const double wideRe = re, wideIm = im;
  const auto size = static_cast<float>(std::sqrt(wideRe * wideRe + wideIm * wideIm));
  const float divisor = size > 0 ? size : 1.0f;
  return {re / divisor, im / divisor};
}
