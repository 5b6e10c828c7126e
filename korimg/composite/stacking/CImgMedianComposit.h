#pragma once

#include <array>
#include <memory>
#include <span>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CArray.h"

namespace korimg {
class FrameScatter;
}

/// Holds one frame's band of a stack: values, and flags that are 1 where the frame reaches and 0 elsewhere.
/// Row r, plane p, column x lie at (r * planes + p) * width + x.
class KORIMG_API CLineData {
 public:
  /// Where a frame fades towards its edges, its flags hold above these bits how much of a whole pixel counts.
  static constexpr int kShareBits = 2, kWhole = 1 << 16;

  /// Makes both arrays, uncleared. Throws std::bad_alloc.
  explicit CLineData(long long n) : values_(new float[n]), valid_(new int[n]), size_(n) {}
  virtual ~CLineData() = default;

  float* Values() { return values_.get(); }
  int* Valid() { return valid_.get(); }
  const float* Values() const { return values_.get(); }
  const int* Valid() const { return valid_.get(); }
  long long Size() const { return size_; }

 private:
  std::unique_ptr<float[]> values_;
  std::unique_ptr<int[]> valid_;
  long long size_;
};

/// Tells where a frame's planes are centred, and their spread.
struct SNormalizeItem {
  double a[3];
  double b[3];
};

/// Stacks registered frames by a statistic over the frames of each pixel, in bands: for each band, the rows
/// of every frame are stored, and one calculation writes the band of the target. What a frame does not reach
/// is missing from the statistic; a pixel that no frame reaches is 0. The result does not depend on the
/// bands' height, nor on the number of threads.
///
/// The store takes frames x (rows + 1) x width x planes x 8 bytes, and serves every band of a run. Rows are
/// counted in the target's grid, y1 included, and clipped to the target and to the store.
class KORIMG_API CImgMedianComposit : public CVelImage {
 public:
  /// `kind` chooses the text of the progress: 1 sigma clipping, 2 maximum, 3 minimum, any other median.
  CImgMedianComposit(CVelImage* target, int kind);

  /// Makes room for bands of `rows` rows of the model's width and planes, in so many slots; slots that are
  /// there stay as they are. 0 when memory ran out.
  int AllocateStoreBuffer(CVelImage* model, int frames, int rows);
  void DeallocateStoreBuffer();
  /// Fills a slot with rows yStart to yEnd of the target's grid from a frame that is shifted and turned as
  /// CImgComposit does it, by radians; `method` is one of CInterp. A frame with fewer planes gives its first.
  /// Contiguous frames shifted by parts of a pixel are read by the bicubic kernel whatever the method. With
  /// addOffset, offsets[i mod planes] is added to value i of the band. 0 when the slot is not there, and for
  /// an unknown method where one is needed: the band is empty then. Slots may be filled side by side, each by
  /// one thread.
  int Store(int slot, CVelImage* frame, int yStart, int yEnd, double dx, double dy, double radians,
            int useImageCentre, int addOffset, float* const offsets, int method);
  /// Adds an item for SigmaCalc, one for each slot in their order.
  void AddNormalizeParam(double* a, double* b);
  void SetRefNormalizeParam(double* a, double* b);

  /// Writes the median; of an even number the mean of the middle two. NaN counts as the largest value.
  /// MedianCalc runs on all threads when the target is contiguous, and so does SigmaCalc.
  void Calc(int y0, int y1);
  void MedianCalc(int y0, int y1);
  /// Writes the mean of the values within k standard deviations of the median, once; those beyond count as
  /// the median (mode 0) or not at all. Of two values the mean, or 0 for k below 1.
  void Calc(double k, int y0, int y1, int mode);
  /// Does the same with mode 0, of values brought to the reference: (v - a) x (reference b / b) + reference
  /// a. A negative b, or one of 0, leaves the frame alone; a reference b of 0 makes all values reference a.
  /// Throws CInvalidArgException* when a slot has no item.
  void SigmaCalc(double k, int y0, int y1);
  /// CalcMax writes the largest value, at least the smallest positive float, and CalcMin the smallest.
  void CalcMax(int y0, int y1);
  void CalcMin(int y0, int y1);

 protected:
  /// Tells where columns of a band lie on the target.
  struct Part {
    int x, y, plane;
  };
  template <class F>
  void ForColumns(int y0, int y1, bool threaded, bool normalised, bool finiteOnly,
                  std::span<const std::array<double, 3>> weights, F&& reduce,
                  const korimg::FrameScatter* scatter = nullptr, bool fades = false);
  CVelImage& Target() const { return *target_; }
  int Slots() const { return static_cast<int>(store_.size()); }
  CLineData& Band(int slot) { return *store_[slot]; }
  /// Answers one past the last of the rows y0 to y1 that target and store have, for a band that begins at y0.
  int EndOfBand(int y0, int y1) const;
  int NormalizeItems() const { return static_cast<int>(items_.GetSize()); }
  /// Answers what normalising multiplies a slot's plane by.
  double NormalizeFactor(int slot, int plane) const;
  /// Shows that the rows up to y1 are done.
  void ShowBand(int y1);

 private:
  void StoreLines(CLineData& band, CVelImage& frame, int yStart, int rows, double dx, double dy,
                  double radians, int useImageCentre, int method) const;
  void StorePipelines(CLineData& band, CVelImage& frame, int yStart, int rows, double dx, double dy,
                      double radians, int useImageCentre, int method) const;
  template <class F>
  void Reduce(int y0, int y1, bool threaded, bool normalised, F&& reduce);
  template <class F>
  void Extreme(int y0, int y1, float start, F&& better);

  CVelImage* target_;
  std::vector<std::unique_ptr<CLineData>> store_;
  int progressId_;
  CArray<SNormalizeItem> items_;
  double referenceA_[3] = {};
  double referenceB_[3] = {};
};
