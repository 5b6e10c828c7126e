// The weighted mean of frames that come one after the other, with outliers left out.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/image/CVmManager.h"

#include "session/picture/Images.h"

namespace korimg::session {

/// Keeps for each pixel of each plane the sum of weights, the weighted mean, and the weighted variance about
/// it, which each frame brings up to date (West 1979, Communications of the ACM 22, 532).
///
/// A value counts unless it lies further than kappa deviations from the mean of those before it, where the
/// deviation is that of these values or the frame's own noise, whichever is larger: the noise that is told of
/// it, times what the first three frames scatter about each other more than is told of them. One that does
/// not count still widens the variance, as if it lay at that limit: where values scatter more than the first
/// ones did, as in the cores of stars when the seeing changes, the limit follows them instead of shutting all
/// out.
///
/// The first three frames have nothing to be judged by. They are kept until the third is there, and then
/// judged by each other: by their median and 1.4826 times the median distance from it, or their noise.
/// Until then what they show counts, whatever it is. Where two of them reach, the higher one goes if they lie
/// too far apart, and a value that stands alone gives way to one far below it: outliers are bright. There,
/// far is what has three times the light above the sky too, since nothing tells yet what the seeing does to
/// stars.
class RunningMean {
 public:
  using PlaneValues = std::array<double, 3>;

  /// Keeps its images in a contiguous store, for frames of such levels of the sky.
  RunningMean(std::shared_ptr<CVmManager> store, const Shape& shape, double kappa, const PlaneValues& sky);

  /// Adds a frame of the same shape, in the same store: its weights, which are positive, and the standard
  /// deviations of its noise by planes. Pixels that are no finite numbers do not count.
  /// Answers the shares of the pixels that were rejected of the frames that could be judged by this: of the
  /// last ones that were added, in their order.
  std::vector<double> Add(std::unique_ptr<CVelImage> frame, const PlaneValues& weights,
                          const PlaneValues& noise);

  /// Makes a new image of the mean, in the same store; NaN where nothing counts.
  std::unique_ptr<CVelImage> Mean() const;
  /// True while nothing was added.
  bool IsEmpty() const { return isEmpty_; }

 private:
  struct Frame {
    std::unique_ptr<CVelImage> pixels;
    PlaneValues weights, noise;
  };

  long long Take(const Frame& frame, double kappa);
  void MeasureScatter();
  std::vector<long long> JudgeFirst();
  void Clear();

  std::shared_ptr<CVmManager> store_;  // ends after its images
  Shape shape_;
  double kappa_;
  PlaneValues sky_;
  std::unique_ptr<CVelImage> weights_, means_, variances_;
  std::vector<Frame> first_;         ///< until they are judged
  PlaneValues scatter_ = {1, 1, 1};  ///< of frames about each other, to the noise that is told of them
  bool isEmpty_ = true, isJudged_ = false;
};

}  // namespace korimg::session
