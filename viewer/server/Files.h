// What the viewer may see: files that were named, and images below folders that were named.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korimg::viewer {

/// True when a path is that of a folder, or of something in it.
bool IsBelow(const std::filesystem::path& path, const std::filesystem::path& folder);

/// Answers where something new is written in a folder. Throws UsageError for what is no plain name, or
/// hidden, and FileError for a link: it would lead elsewhere.
std::filesystem::path NewIn(const std::filesystem::path& folder, const std::string& name);

/// Answers where the results of a run are written in a folder. Throws as NewIn, and FileError for a file.
std::filesystem::path ResultsIn(const std::filesystem::path& folder, const std::string& name);

/// Keeps a list of images that pages speak of by numbers, never by paths. Links are followed only as far as
/// they stay below a named folder; this is looked at again whenever a file is opened. Any thread may call it.
class Files {
 public:
  struct Entry {
    int id = 0;
    std::string name;  ///< from the named folder on; of a named file its own, with its folder where others
                       ///< are called so
  };

  /// @throws FileError for a path that is not there.
  explicit Files(const std::vector<std::filesystem::path>& named);

  /// Answers what there is now, in the order of names; an image keeps its number.
  std::vector<Entry> List();
  /// Answers the real path of an image. Throws UsageError for a number that nothing has, and FileError for
  /// what has gone, or has come to lie elsewhere.
  std::filesystem::path Find(int id);
  /// Answers where a new image of this name may be written: beside an image that is seen. Throws UsageError
  /// for what is no plain name of a FITS, TIFF or PNG file.
  std::filesystem::path Beside(int id, const std::string& name);
  /// Has a file that was written so in the list, and answers its number.
  int Add(const std::filesystem::path& path);
  /// Answers the number of an image that may be seen, by its path; none for others.
  std::optional<int> NumberOf(const std::filesystem::path& path);
  /// Answers the named folders, real paths.
  const std::vector<std::filesystem::path>& Folders() const { return folders_; }

 private:
  int IdOf(const std::filesystem::path& path);
  bool IsVisible(const std::filesystem::path& real) const;

  std::vector<std::filesystem::path> files_, folders_;  ///< real paths
  std::mutex mutex_;
  std::map<std::filesystem::path, int> ids_;
  std::vector<std::filesystem::path> paths_;  ///< by number
};

}  // namespace korimg::viewer
