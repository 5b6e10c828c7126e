#pragma once

#include <optional>

#include "korimg/platform/Export.h"

/// Offers services of the system that the library runs on.
class KORIMG_API CKorSys {
 public:
  /// Answers the processor's features, as bits. Bit value 2 (four-lane float vectors, SSE2) chooses the
  /// threaded line loops.
  static unsigned SIMD();

  /// Replaces the answer of SIMD, so that every form of a loop can be run anywhere; nullopt restores the
  /// truth.
  static void OverrideSIMD(std::optional<unsigned> features);
};
