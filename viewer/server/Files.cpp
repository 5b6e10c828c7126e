#include "viewer/server/Files.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "session/files/ImageFile.h"

namespace korimg::viewer {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMost = 20000;  // images of a folder; chosen

bool IsImageName(const fs::path& path) {
  static const std::set<std::string> known = {".fits", ".fit", ".fts", ".fz", ".gz", ".tif", ".tiff", ".png"};
  return known.contains(files::LowerExtension(path)) || files::HasRawExtension(path);
}

}  // namespace

bool IsBelow(const fs::path& path, const fs::path& folder) {
  return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

Files::Files(const std::vector<fs::path>& named) {
  for (const fs::path& path : named) {
    std::error_code error;
    const fs::path real = fs::canonical(path, error);
    if (error) throw files::FileError(path, error.message());
    (fs::is_directory(real) ? folders_ : files_).push_back(real);
  }
  for (const fs::path& file : files_) {
    IdOf(file);
  }
}

int Files::IdOf(const fs::path& path) {
  const auto [place, isNew] = ids_.emplace(path, static_cast<int>(paths_.size()));
  if (isNew) paths_.push_back(path);
  return place->second;
}

bool Files::IsVisible(const fs::path& real) const {
  return std::find(files_.begin(), files_.end(), real) != files_.end() ||
         std::any_of(folders_.begin(), folders_.end(), [&](const fs::path& f) { return IsBelow(real, f); });
}

std::vector<Files::Entry> Files::List() {
  const std::lock_guard lock(mutex_);
  std::vector<Entry> entries;
  for (const fs::path& file : files_) {
    // Those of one name are told apart by their folders.
    const bool isOnly = std::count_if(files_.begin(), files_.end(), [&](const fs::path& other) {
                          return other.filename() == file.filename();
                        }) == 1;
    const fs::path name = isOnly ? file.filename() : file.parent_path().filename() / file.filename();
    entries.push_back({IdOf(file), name.string()});
  }
  for (const fs::path& folder : folders_) {
    std::vector<fs::path> found;
    std::error_code error;
    // Folders that are links are not gone into, which leaves no way round in circles.
    for (fs::recursive_directory_iterator at(folder, fs::directory_options::skip_permission_denied, error),
         end;
         !error && at != end && found.size() < kMost; at.increment(error)) {
      const fs::path& path = at->path();
      if (path.filename().string().starts_with('.')) {
        at.disable_recursion_pending();
        continue;
      }
      std::error_code gone;
      if (!IsImageName(path) || !at->is_regular_file(gone)) continue;
      const fs::path real = fs::canonical(path, gone);
      if (!gone && IsVisible(real)) found.push_back(path);
    }
    std::sort(found.begin(), found.end());
    for (const fs::path& path : found) {
      entries.push_back({IdOf(path), path.lexically_relative(folder).string()});
    }
  }
  return entries;
}

std::optional<int> Files::NumberOf(const fs::path& path) {
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  if (error || !IsVisible(real) || !IsImageName(path)) return std::nullopt;
  const std::lock_guard lock(mutex_);
  return IdOf(path);
}

fs::path Files::Find(int id) {
  fs::path path;
  {
    const std::lock_guard lock(mutex_);
    if (id < 0 || id >= static_cast<int>(paths_.size())) {
      throw session::UsageError(fmt::format("no image has the number {}", id));
    }
    path = paths_[id];
  }
  std::error_code error;
  fs::path real = fs::canonical(path, error);
  if (error) throw files::FileError(path, error.message());
  if (!IsVisible(real)) throw files::FileError(path, "is a link to a place that was not named");
  return real;
}

fs::path NewIn(const fs::path& folder, const std::string& name) {
  const fs::path plain(name);
  constexpr std::size_t kLongest = 200;  // file systems take 255, and temporary names add to it
  const bool isPlain = std::ranges::none_of(name, [](unsigned char c) { return c < ' ' || c == 0x7f; });
  if (plain.empty() || plain.filename() != plain || name.starts_with('.') || !isPlain ||
      name.size() > kLongest) {
    throw session::UsageError("write a plain name, without folders, of up to 200 characters");
  }
  const fs::path path = folder / plain;
  if (fs::is_symlink(fs::symlink_status(path))) {
    throw files::FileError(path, "is a link; take another name");
  }
  return path;
}

fs::path ResultsIn(const fs::path& folder, const std::string& name) {
  const fs::path path = NewIn(folder, name);
  if (fs::exists(path) && !fs::is_directory(path))
    throw files::FileError(path, "is no folder; take another name");
  return path;
}

fs::path Files::Beside(int id, const std::string& name) {
  const std::string extension = files::LowerExtension(name);
  const bool isImage = extension == ".fits" || extension == ".fit" || extension == ".tif" ||
                       extension == ".tiff" || extension == ".png";
  if (!isImage) throw session::UsageError("write the name of a new file that ends in .fits, .tif or .png");
  return NewIn(Find(id).parent_path(), name);
}

int Files::Add(const fs::path& path) {
  const std::lock_guard lock(mutex_);
  if (!IsVisible(path)) files_.push_back(path);
  return IdOf(path);
}

}  // namespace korimg::viewer
