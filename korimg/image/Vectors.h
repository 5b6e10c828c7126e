// Loops in the longest vectors of the processor. Internal.
#pragma once

#include "korimg/platform/CKorSys.h"

/// Marks what such a loop calls: it has to become a part of the loop to be compiled for the same vectors.
#define KORIMG_IN_LOOP __attribute__((always_inline))

namespace korimg {

#if defined(__x86_64__)
template <class F>
__attribute__((target("avx2"), noinline)) void RunAvx2(F const& f) {
  f();
}
#endif

/// Runs f, a lambda that is marked KORIMG_IN_LOOP, compiled for eight lanes where the processor has them. The
/// operations are the same, and so are the results.
template <class F>
void RunInLongVectors(F const& f) {
#if defined(__x86_64__)
  constexpr unsigned kEightLanes = 32;
  if (CKorSys::SIMD() & kEightLanes) {
    RunAvx2(f);
    return;
  }
#endif
  f();
}

}  // namespace korimg
