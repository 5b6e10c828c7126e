// Ends with another one.
#pragma once

#include <memory>
#include <utility>

#include "session/job/Job.h"

namespace korimg::viewer {

/// Cancels a part of a job's work: it is used up when the job's own is, too.
class ChildToken : public session::CancelToken {
 public:
  explicit ChildToken(std::shared_ptr<session::CancelToken> parent) : parent_(std::move(parent)) {}
  bool IsCancelled() override { return CancelToken::IsCancelled() || (parent_ && parent_->IsCancelled()); }

 private:
  std::shared_ptr<session::CancelToken> parent_;
};

}  // namespace korimg::viewer
