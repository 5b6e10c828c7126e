#pragma once

#include <array>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "korimg/composite/stacking/CImgMedianComposit.h"
#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/composite/stacking/Rejection.h"
#include "korimg/geometry/CFrameMap.h"

/// Stacks registered frames in bands as CImgMedianComposit does, with weights, outliers rejected and counted,
/// and pixels that are no finite numbers left out. Every statistic runs on all threads, on any
/// store.
///
/// Frames are normalised, as SigmaCalc describes it, when there is an AddNormalizeParam for each slot; equal
/// spreads of frame and reference shift the level alone.
class KORIMG_API CImgStack : public CImgMedianComposit {
 public:
  enum Method : int { Median, Mean, Maximum, Minimum };

  /// Counts what became of a frame's pixels. Those that are missing or no finite numbers don't count.
  struct Counts {
    long long values = 0, low = 0, high = 0;  ///< all, and of them those rejected as too low and too high

    Counts& operator+=(const Counts& other) {
      values += other.values;
      low += other.low;
      high += other.high;
      return *this;
    }
  };

  explicit CImgStack(CVelImage* target);
  ~CImgStack() override;

  /// Weights of a frame by planes; further planes have that of the last.
  using PlaneWeights = std::array<double, 3>;

  /// Sets the weights of each slot in means, positive; 1 unless set. Throws CInvalidArgException* for others.
  void SetWeights(std::span<const PlaneWeights> weights);
  /// Lets frames fade into each other: in means a pixel counts the less the nearer to its frame's edge it is
  /// read, by its distance over so many pixels, up to 1. 0, as at first: all count alike. Goes before Store.
  void SetFeather(double pixels) { feather_ = pixels; }
  /// Sets what a pixel becomes that no frame reaches: 0 unless set.
  void SetOutside(float value) { outside_ = value; }
  /// Takes images of the target's shape, for the number of values rejected in each pixel. Either may be null.
  void SetRejectionMaps(CVelImage* low, CVelImage* high);

  /// Is told of each value that Stack rejects: its slot, and its place on the target. A line is told of by
  /// one thread, and several at a time.
  using Rejected = std::function<void(int slot, int x, int y, int plane)>;
  void SetRejected(Rejected rejected) { rejected_ = std::move(rejected); }

  /// Stores as CImgMedianComposit does, turned about the middle of the frame, and with the kernel of `method`
  /// also for shifts by parts of a pixel.
  ///
  /// Bicubic and Lanczos kernels undershoot beside what is much brighter, and leave dark rings around stars.
  /// With the frame's `levels`, what falls more than five deviations of its noise below its level, and as
  /// much below the lowest of the four pixels around, becomes this one.
  int Store(int slot, CVelImage* frame, int yStart, int yEnd, double dx, double dy, double radians,
            int method, const korimg::FrameLevels* levels = nullptr);
  /// Stores a frame that a map lays on the target's grid.
  int Store(int slot, CVelImage* frame, int yStart, int yEnd, const CFrameMap& map, int method,
            const korimg::FrameLevels* levels = nullptr);

  /// Bits of what became of a pixel: nothing was left of it, something it is made of is marked, a third or
  /// more of its values were rejected.
  enum Flag : int { NoValue = 1, Marked = 2, ManyLow = 32, ManyHigh = 64 };
  /// Takes images of the target's shape, for the variance of each pixel of means and medians and for sums of
  /// Flag. Either may be null. Comes after AllocateStoreBuffer.
  ///
  /// A mean's variance is that of its values with the squares of their weights; a median's that of the same
  /// number of normal values of their mean variance.
  void SetQualityMaps(CVelImage* variance, CVelImage* flags);
  /// A pixel of a frame, and the target's plane that it belongs to.
  struct Mark {
    int x, y, plane;
  };
  /// Stores, after Store and with its rows and map, of a frame of width x height the variances of its pixels,
  /// a contiguous image of the frame's shape or null, and what of them is marked. The variance of what is
  /// read between pixels is theirs with the squares of the kernel's weights.
  int StoreQuality(int slot, CVelImage* variance, std::span<const Mark> marks, int yStart, int yEnd,
                   const CFrameMap& map, int method, int width, int height);

  /// Answers the rows of the target by which the frames' own scatter is measured: how noisy each is, and
  /// where its sky lies above that of the others, as that of a moving moon does. Each of them, once every
  /// slot holds it as the first of its band, goes to Sample; then SettleSamples is called, before the first
  /// Stack. Outliers are told in units of each frame's own noise from then on, on one sky, and what is left
  /// of a pixel's values keeps the mean sky of all; see Rejection.
  std::vector<int> RowsToSample();
  void Sample(int number);
  void SettleSamples();
  /// Answers the standard deviation of a slot's pixels, normalised; 0 where it was not measured.
  double NoiseOf(int slot, int plane) const;

  /// Answers the bytes that each thread of Stack takes beside the store, about.
  static long long BytesOfThread(size_t frames, bool fades = false);
  /// Writes the rows y0 to y1 of the target, and of the maps. The median is that of CImgMedianComposit, and
  /// has no weights; means are weighted, and of what is not rejected. The result does not depend on bands or
  /// threads.
  void Stack(Method method, const Rejection& rejection, int y0, int y1);
  /// Tells what became of each slot's pixels in the calls since this was asked last.
  std::vector<Counts> TakeCounts() { return std::exchange(counts_, {}); }

 private:
  template <class F>
  void Fade(int slot, const CVelImage& frame, int yStart, int yEnd, F&& placeOf);
  template <class F>
  void RaiseUndershoot(int slot, CVelImage& frame, int yStart, int yEnd, F&& placeOf,
                       const korimg::FrameLevels& levels);

  std::vector<PlaneWeights> weights_;
  std::unique_ptr<korimg::FrameScatter> scatter_;
  std::vector<std::unique_ptr<CLineData>> variances_;
  CVelImage* varianceMap_ = nullptr;
  CVelImage* flagMap_ = nullptr;
  float outside_ = 0;
  double feather_ = 0;
  CVelImage* lowMap_ = nullptr;
  CVelImage* highMap_ = nullptr;
  Rejected rejected_;
  std::vector<Counts> counts_;
};
