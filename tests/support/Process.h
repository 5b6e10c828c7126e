// What the process of the tests is: the sanitizer it is built with, and limits of it.
#pragma once

#include <csignal>

#include <sys/resource.h>

namespace korimg::test {

#ifdef __has_feature
#define KORIMG_HAS_FEATURE(name) __has_feature(name)
#else
#define KORIMG_HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_THREAD__) || KORIMG_HAS_FEATURE(thread_sanitizer)
inline constexpr bool kThreadSanitized = true;
#else
inline constexpr bool kThreadSanitized = false;
#endif
#if defined(__SANITIZE_ADDRESS__) || KORIMG_HAS_FEATURE(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = kThreadSanitized;
#endif

/// Limits the length of files for a scope, beyond which writing is an error and no signal.
class WithFileLimit {
 public:
  explicit WithFileLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const struct rlimit limit { bytes, before_.rlim_max };
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~WithFileLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, signal_);
  }

 private:
  struct rlimit before_ {};
  void (*signal_)(int) = std::signal(SIGXFSZ, SIG_IGN);
};

}  // namespace korimg::test
