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
  std::unique_lock lock(mutex_);
  if (!isFile && (isDeveloped || id - kOffered >= static_cast<int>(offered_.size()))) {
    throw session::UsageError("no image has this number");
  }
  const auto find = [&]() -> std::shared_ptr<const OpenImage> {
    const auto found = std::ranges::find_if(
        open_, [&](const auto& image) { return image->id == id && image->isDeveloped == isDeveloped; });
    if (found == open_.end()) return nullptr;
    if ((*found)->stamp != stamp) {
      open_.erase(found);
      return nullptr;
    }
    open_.splice(open_.begin(), open_, found);
    return open_.front();
  };
  if (auto image = find()) return image;
  // One file at a time is opened, which may take long; what is open already is answered meanwhile.
  lock.unlock();
  const std::lock_guard one(opening_);
  lock.lock();
  if (auto image = find()) return image;
  const auto offered = isFile ? nullptr : offered_[id - kOffered];
  auto image = std::make_shared<OpenImage>();
  image->id = id;
  image->isDeveloped = isDeveloped;
  image->stamp = stamp;
  image->version = std::to_string(++versions_);
  lock.unlock();
  const auto source = !isFile ? offered() : isDeveloped ? OpenDeveloped(job_, path) : OpenSource(path);
  image->pyramid = std::make_unique<Pyramid>(source, job_.Memory() / (2 * kMost));
  lock.lock();
  while (open_.size() >= kMost) {
    open_.pop_back();
  }
  return open_.emplace_front(std::move(image));
}

}  // namespace korimg::viewer
