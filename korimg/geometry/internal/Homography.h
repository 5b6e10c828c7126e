// Arithmetic of homographies, as rows of three by three numbers. Internal.
#pragma once

#include "korimg/geometry/CFrameMap.h"

namespace korimg {

/// Answers the map that does b first, then a.
inline CFrameMap::Matrix Product(const CFrameMap::Matrix& a, const CFrameMap::Matrix& b) {
  CFrameMap::Matrix product{};
  for (int i = 0; i < 9; ++i) {
    for (int k = 0; k < 3; ++k) {
      product[i] += a[i / 3 * 3 + k] * b[3 * k + i % 3];
    }
  }
  return product;
}

/// Answers the inverse, times the determinant.
inline CFrameMap::Matrix Adjugate(const CFrameMap::Matrix& m) {
  return {m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
          m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
          m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
}

inline double Determinant(const CFrameMap::Matrix& m, const CFrameMap::Matrix& adjugate) {
  return m[0] * adjugate[0] + m[1] * adjugate[3] + m[2] * adjugate[6];
}

}  // namespace korimg
