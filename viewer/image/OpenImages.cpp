#include "viewer/image/OpenImages.h"

#include <algorithm>

#include "session/files/Formats.h"

namespace korimg::viewer {

std::shared_ptr<const OpenImage> OpenImages::Get(int id, bool isDeveloped) {
  const std::filesystem::path path = files_.Find(id);
  const std::string stamp = files::StampOf(path);
  const std::lock_guard lock(mutex_);
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
  const auto source = isDeveloped ? OpenDeveloped(job_, path) : OpenSource(path);
  image->pyramid = std::make_unique<Pyramid>(source, job_.Memory() / (2 * kMost));
  while (open_.size() >= kMost) {
    open_.pop_back();
  }
  return open_.emplace_front(std::move(image));
}

}  // namespace korimg::viewer
