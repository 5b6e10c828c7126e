// Requests that take much memory, one at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "session/job/Errors.h"

namespace korimg::viewer {

/// Has requests wait for each other. Any thread may ask.
class Turns {
 public:
  /// Holds a turn, until it ends.
  class Turn {
   public:
    explicit Turn(Turns& turns) : turns_(turns) {}
    ~Turn() {
      {
        const std::lock_guard lock(turns_.mutex_);
        turns_.isTaken_ = false;
      }
      turns_.changed_.notify_one();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    Turns& turns_;
  };

  /// Waits for a turn. Throws Cancelled once nobody waits for the answer.
  Turn Take(const std::function<bool()>& isGone) {
    constexpr std::chrono::milliseconds kLook(100);  // chosen
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, kLook, [this] { return !isTaken_; })) {
      if (isGone()) throw session::Cancelled();
    }
    if (isGone()) throw session::Cancelled();
    isTaken_ = true;
    return Turn(*this);
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool isTaken_ = false;
};

}  // namespace korimg::viewer
