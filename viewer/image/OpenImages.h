// The images that pages look at: a few are held open.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "session/job/Job.h"
#include "viewer/image/Pyramid.h"
#include "viewer/server/Files.h"

namespace korimg::viewer {

struct OpenImage {
  int id = 0;
  bool isDeveloped = false;
  std::string stamp;    ///< of the file when it was opened
  std::string version;  ///< of this state of the file, for addresses
  std::unique_ptr<Pyramid> pyramid;

  /// True once nothing of it changes any more.
  bool IsExact() const { return pyramid->Progress() == 1; }
};

/// Opens images when they are asked for, and again when their files have changed. Of the job's memory each
/// has an equal share. Any thread may ask.
class OpenImages {
 public:
  OpenImages(session::Job& job, Files& files) : job_(job), files_(files) {}

  /// Offers what is no file, by a number that is answered. What `open` throws is what Get does.
  int Offer(std::function<std::shared_ptr<const Source>()> open);

  bool IsOffered(int id) const { return id >= kOffered; }

  /// @throws UsageError, FileError
  std::shared_ptr<const OpenImage> Get(int id, bool isDeveloped);

 private:
  static constexpr int kMost = 4;           ///< open at a time; chosen, since each holds a pyramid
  static constexpr int kOffered = 1 << 29;  ///< numbers from here on are those of no files

  session::Job& job_;
  Files& files_;
  std::mutex opening_, mutex_;                        ///< `mutex_` is of all below
  std::list<std::shared_ptr<const OpenImage>> open_;  ///< the last one used first
  std::vector<std::function<std::shared_ptr<const Source>()>> offered_;
  int versions_ = 0;
};

}  // namespace korimg::viewer
