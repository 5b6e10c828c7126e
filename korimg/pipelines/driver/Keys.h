// Integers that sort as floats do, so that ranks and extremes have one place for NaN.
#pragma once

#include <Halide.h>

/// Answers an integer in the order of the floats, that of all NaN after the numbers.
inline Halide::Expr key(Halide::Expr value) {
  using namespace Halide;
  Expr bits = reinterpret<int>(value);
  return select(value == value, bits ^ ((bits >> 31) & 0x7fffffff), Int(32).max());
}

/// Answers the float of a key; the last key is a NaN.
inline Halide::Expr from_key(Halide::Expr number) {
  using namespace Halide;
  return reinterpret<float>(number ^ ((number >> 31) & 0x7fffffff));
}
