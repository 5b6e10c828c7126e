// A picture of any size at halves of its size, by strips of rows, within a budget of memory.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "korimg/image/View.h"
#include "korimg/platform/CRect.h"

#include "session/picture/AutoPicture.h"
#include "viewer/image/Source.h"

namespace korimg::viewer {

/// Holds the levels of a picture: level 0 is the picture, and each pixel of the next one the mean of those of
/// four that are no NaN; at odd sizes the last column and row are means of what there is. The coarsest level
/// is one strip.
///
/// A thread of its own goes through the picture once. Until it is done, levels that would take long are drawn
/// of rows at steps: rough, at once. What the budget has room for is kept, from the coarsest level on; the
/// rest is made again of the file's rows when it is asked for. Any thread may ask.
class Pyramid {
 public:
  static constexpr int kTile = 256;  ///< rows of a strip, and pixels of a tile's side; chosen

  /// Some rows of a level.
  struct Strip {
    std::vector<float> pixels;
    Band<const float> rows;
    bool isRough = false;
  };
  using StripPtr = std::shared_ptr<const Strip>;

  /// Begins with a budget in bytes. Reads the rows that the sky is measured by. Throws what the source
  /// throws.
  Pyramid(std::shared_ptr<const Source> source, long long budget);
  ~Pyramid();

  const Source& Of() const { return *source_; }
  int Levels() const { return static_cast<int>(shapes_.size()); }
  session::Shape At(int level) const { return shapes_[level]; }
  int Strips(int level) const { return (shapes_[level].height + kTile - 1) / kTile; }

  /// Answers strip number `index` of a level.
  /// @throws Cancelled once isGone() says so, and what the source throws
  StripPtr Get(
      int level, int index, const std::function<bool()>& isGone = [] { return false; });
  /// Fills `to`, whose rows begin at 0, with a window of a level. Throws as Get.
  void Fill(int level, const CRect& window, const Band<float>& to, const std::function<bool()>& isGone);
  /// Reads rows of the picture itself.
  void Read(const Band<float>& to);

  /// Tells how far the pass is: 0 to 1. At 1 nothing is rough any more.
  double Progress() const { return progress_; }
  /// Tells what went wrong with the pass, if anything: it ends there.
  std::string Failure() const;
  /// Answers what the picture is shown by unless told: that of `korimg render`, once the pass is done; before
  /// by the extremes of the rows that were seen.
  session::Levels Shown(bool linked) const;
  /// Gives an image of its planes the levels that the file's image has when it is opened.
  void GiveLevels(CVelImage& image) const;

 private:
  using Key = std::pair<int, int>;
  using Extremes = std::vector<std::pair<double, double>>;

  void MeasureSky();
  void Pass();
  StripPtr Make(int level, int index, const std::function<bool()>& isGone);
  StripPtr MakeRough(int level, int index);
  void Reduce(Band<const float> rows, const Band<float>& to, int level) const;
  std::shared_ptr<Strip> NewStrip(int level, int index) const;
  void Widen(const Band<const float>& rows);
  StripPtr Kept(const Key& key);
  void Keep(const Key& key, const StripPtr& strip);

  std::shared_ptr<const Source> source_;
  std::vector<session::Shape> shapes_;
  int firstKept_ = 0;        ///< the finest level that is kept as a whole
  long long roomForOthers_;  ///< bytes
  FrameLevels sky_;

  std::mutex reading_, making_;
  std::atomic<int> asking_ = 0;  ///< threads that want something: the pass lets them go first
  mutable std::mutex mutex_;     ///< of all below
  std::map<Key, StripPtr> kept_;
  std::list<std::pair<Key, StripPtr>> others_;  ///< the last one used first
  Extremes extremes_;
  std::string failure_;

  std::atomic<double> progress_ = 0;
  std::atomic<bool> ends_ = false;
  std::thread pass_;
};

/// Halves a band: each pixel of `to` is the mean of those of `from` that are no NaN, of up to four.
void Halve(const Band<const float>& from, const Band<float>& to);

}  // namespace korimg::viewer
