#include "korimg/platform/CParallel.h"

#include <algorithm>

#include <omp.h>

int CParallel::GetThreadNum() {
  return omp_get_thread_num();
}

int CParallel::GetMaxThreads() {
  return omp_get_max_threads();
}

void CParallel::SetMaxThreads(int threads) {
  omp_set_num_threads(std::max(threads, 1));
}
