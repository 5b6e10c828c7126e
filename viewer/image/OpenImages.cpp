#include "viewer/image/OpenImages.h"

#include <algorithm>

#include "session/files/Formats.h"

namespace korimg::viewer {

int OpenImages::Offer(std::function<std::shared_ptr<const Source>()> open) {
  const std::lock_guard lock(mutex_);
  offered_.push_back(std::move(open));
  return kOffered + static_cast<int>(offered_.size()) - 1;
}

std::shared_ptr<const OpenImage> OpenImages::Get(int id, bool isDeveloped) {
  const bool isFile = id < kOffered;
  const std::filesystem::path path = isFile ? files_.Find(id) : "";
  const std::string stamp = isFile ? files::StampOf(path) : "";
  const std::lock_guard lock(mutex_);
  if (!isFile && (isDeveloped || id - kOffered >= static_cast<int>(offered_.size()))) {
    throw session::UsageError("no image has this number");
  }
  const auto found = std::find_if(open_.begin(), open_.end(), [&](const auto& image) {
    return image->id == id && image->isDeveloped == isDeveloped;
  });
  if (found != open_.end() && (*found)->stamp == stamp) {
    open_.splice(open_.begin(), open_, found);
    return open_.front();
  }
  if (found != open_.end()) open_.erase(found);
  auto image = std::make_shared<OpenImage>();
  image->id = id;
  image->isDeveloped = isDeveloped;
  image->stamp = stamp;
  image->version = std::to_string(++versions_);
  const auto source = !isFile       ? offered_[id - kOffered]()
                      : isDeveloped ? OpenDeveloped(job_, path)
                                    : OpenSource(path);
  image->pyramid = std::make_unique<Pyramid>(source, job_.Memory() / (2 * kMost));
  while (open_.size() >= kMost) {
    open_.pop_back();
  }
  return open_.emplace_front(std::move(image));
}

}  // namespace korimg::viewer
