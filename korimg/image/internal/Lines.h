// Loops over lines, on one thread or on the worker team. Internal.
#pragma once

#include <exception>
#include <mutex>
#include <vector>

namespace korimg {

/// Carries the first exception of a team of workers to the thread that waits for them.
class ExceptionCarrier {
 public:
  template <class F>
  void Run(F&& f) noexcept {
    try {
      f();
    } catch (...) {
      const std::lock_guard lock(mutex_);
      if (!first_) first_ = std::current_exception();
    }
  }
  void Rethrow() {
    if (first_) std::rethrow_exception(first_);
  }

 private:
  std::mutex mutex_;
  std::exception_ptr first_;
};

enum class Team { One, All };

/// Calls line(y) for y from top to bottom - 1: in order on this thread, or split among the workers in
/// contiguous ranges. What a worker throws reaches the caller once all have finished.
template <class F>
void ForLines(Team team, int top, int bottom, F&& line) {
  if (team == Team::One) {
    for (int y = top; y < bottom; ++y) {
      line(y);
    }
    return;
  }
  ExceptionCarrier carrier;
#pragma omp parallel for schedule(static)
  for (int y = top; y < bottom; ++y) {
    carrier.Run([&] { line(y); });
  }
  carrier.Rethrow();
}

/// Answers the results of line(y) for each line, from the whole team. Adding them up in order gives the same
/// sum for any number of workers.
template <class F>
auto MapLines(int top, int bottom, F&& line) {
  std::vector<decltype(line(top))> results(bottom > top ? bottom - top : 0);
  ForLines(Team::All, top, bottom, [&](int y) { results[y - top] = line(y); });
  return results;
}

}  // namespace korimg
