// Work on many frames, a few at once.
#pragma once

#include <algorithm>
#include <deque>
#include <future>
#include <string>
#include <type_traits>

#include "korimg/platform/CParallel.h"

#include "session/job/Job.h"

namespace korimg::session {

/// Answers the number of frames that are worked on at a time, each by its share of this thread's team: each
/// holds an image, or a band of one, so that they are few. Chosen.
inline int FramesAtOnce() {
  constexpr int kMost = 4;
  return std::min(CParallel::GetMaxThreads(), kMost);
}

/// Calls work(i) for 0 to count - 1, a few at once, as long as they fit half of the memory with `bytes` for
/// each, each with its share of the threads; and take(i, result) for their results in order on this thread,
/// where result() gives what work gave, or throws what it threw. The progress counts frames.
template <class Work, class Take>
void SideBySide(Job& job, const std::string& title, size_t count, long long bytes, Work&& work, Take&& take) {
  const long long fit = job.Memory() / 2 / std::max(bytes, 1LL);
  const int threads = CParallel::GetMaxThreads(),
            atOnce = static_cast<int>(std::clamp<long long>(fit, 1, FramesAtOnce()));
  const auto policy = atOnce > 1 ? std::launch::async : std::launch::deferred;
  std::deque<std::future<std::invoke_result_t<Work&, size_t>>> running;
  size_t next = 0;
  for (size_t done = 0; done < count; ++done) {
    for (; next < count && next < done + atOnce; ++next) {
      running.push_back(std::async(policy, [&work, next, threads, atOnce] {
        CParallel::SetMaxThreads(threads / atOnce);
        return work(next);
      }));
    }
    job.JobProgress(title, static_cast<long long>(done) + 1, static_cast<long long>(count));
    auto result = std::move(running.front());
    running.pop_front();
    take(done, [&result] { return result.get(); });
  }
  job.JobProgress("", 0, 0);
}

}  // namespace korimg::session
