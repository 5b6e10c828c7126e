#pragma once

#ifdef KORIMG_BUILDING
#define KORIMG_API __attribute__((visibility("default")))
#else
#define KORIMG_API
#endif
