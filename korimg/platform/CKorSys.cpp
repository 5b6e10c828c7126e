#include "korimg/platform/CKorSys.h"

#include <atomic>

namespace {

constexpr long long kNoOverride = -1;
std::atomic<long long> g_override{kNoOverride};

unsigned Detect() {
  unsigned features = 0;
#if defined(__x86_64__)
  if (__builtin_cpu_supports("sse")) features |= 1;
  if (__builtin_cpu_supports("sse2")) features |= 2;
  if (__builtin_cpu_supports("sse3")) features |= 4;
  if (__builtin_cpu_supports("sse4.1")) features |= 8;
  if (__builtin_cpu_supports("avx")) features |= 16;
  if (__builtin_cpu_supports("avx2")) features |= 32;
#endif
  return features;
}

}  // namespace

unsigned CKorSys::SIMD() {
  static const unsigned detected = Detect();
  const long long value = g_override.load(std::memory_order_relaxed);
  return value == kNoOverride ? detected : static_cast<unsigned>(value);
}

void CKorSys::OverrideSIMD(std::optional<unsigned> features) {
  g_override.store(features ? static_cast<long long>(*features) : kNoOverride, std::memory_order_relaxed);
}
