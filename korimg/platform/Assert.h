// Checks of what has to be true inside, for developers' builds; other builds have none of it. Internal.
#pragma once

#ifdef KORIMG_ASSERTIONS
#include <cstdio>
#include <cstdlib>

#define KORIMG_ASSERT(condition)                                                     \
  do {                                                                               \
    if (!(condition)) {                                                              \
      std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                  \
    }                                                                                \
  } while (false)
#else
#define KORIMG_ASSERT(condition) static_cast<void>(0)
#endif
