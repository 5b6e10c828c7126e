// Lets a whole test program run in one form of the pipelines: KORIMG_FORM=sse41 or avx.
#include <cstdlib>

#include "korimg/pipelines/runtime/Runtime.h"

namespace {
const bool g_limited = [] {
  if (const char* form = std::getenv("KORIMG_FORM")) korimg::LimitForms(form);
  return true;
}();
}  // namespace
