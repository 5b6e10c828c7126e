// Registered frames to one image, in bands of rows: memory is bounded, however many frames there are.
#pragma once

#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "korimg/composite/stacking/CImgStack.h"
#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/geometry/CInterp.h"
#include "korimg/image/View.h"

#include "session/Export.h"
#include "session/picture/Images.h"

namespace korimg::session {

/// A frame to be stacked, wherever its pixels come from.
struct StackInput {
  std::string name;  ///< for people
  Shape shape;       ///< planes as the reference has them
  /// As CImgComposit takes them: the frame is turned about its middle (width / 2, height / 2), clockwise on
  /// the screen, and then shifted to the right and down.
  double dx = 0, dy = 0, degrees = 0;
  std::optional<CFrameMap> map = {};            ///< what lays the frame instead, where shift and turn do not
  CImgStack::PlaneWeights weights = {1, 1, 1};  ///< in means; positive
  FrameLevels levels;                           ///< for normalising, and to tell undershoot from noise
  /// Fills a band of its rows. NaN and infinities are left out of the stack. Called for any rows in any
  /// order, each row once for a band of the result, and from one thread at a time; other frames are read
  /// beside it.
  std::function<void(const Band<float>& to)> read;
  /// The same with the quality of these rows, as far as it is asked for; needed where StackOptions want it.
  std::function<void(const Band<float>& to, const QualityRows& quality)> readQuality = {};
  Correlation correlation = kUncorrelated;  ///< of its noise

  /// Answers the map, whichever it is.
  CFrameMap Map() const {
    return map ? *map : CFrameMap::FromPose(dx, dy, degrees, shape.width, shape.height);
  }
  /// Answers the weights of the planes that it has, and their mean.
  std::vector<double> Weights() const { return {weights.begin(), weights.begin() + shape.planes}; }
  double Weight() const {
    return std::accumulate(weights.begin(), weights.begin() + shape.planes, 0.0) / shape.planes;
  }
};

enum class Normalisation { None, Level, LevelAndScale };

struct StackOptions {
  CImgStack::Method method = CImgStack::Mean;
  Rejection rejection = {.test = Rejection::Auto};  ///< of outliers, from means
  Normalisation normalisation = Normalisation::Level;
  int kernel = CInterp::MethodBicubic;
  bool clampUndershoot = true;  ///< of kernels beside bright stars, where it falls below the sky
  bool rejectionMaps = false;
  std::optional<Shape> shape = {};  ///< of the grid that the frames lie on, unless it is the reference's
  double feather = 0;  ///< pixels over which frames fade towards their edges; see CImgStack::SetFeather
  bool uncertainty = false, mask = false;  ///< of the result, by those of the frames
  CImgStack::Rejected rejected = {};       ///< is told of each value that is rejected
  long long memory = 0;  ///< bytes for all that a stack holds, as DefaultStackMemory answers them
};

/// Holds rows of the result, NaN where no frame reaches. The maps hold the number of values that were
/// rejected as too low and too high; they have no planes without StackOptions::rejectionMaps. What the mask
/// tells of is no data, a saturated value among those that are left, and a third or more of them rejected.
struct StackBand {
  Band<const float> result, low = {}, high = {};
  std::vector<CImgStack::Counts> counts = {};  ///< of each frame, in this band
  Band<const float> variance = {}, mask = {};  ///< as QualityRows hold them, where they are wanted
  Band<const float> weights = {};              ///< of the result, where it is drizzled
};

/// Names rows of a stack: from one to the one before another; all of them unless told otherwise.
struct StackRows {
  int first = 0, end = std::numeric_limits<int>::max();

  /// Answers part `number` of `parts`, from 1 on, of so many rows. Parts are as even as they can be; some are
  /// empty where there are fewer rows.
  static StackRows Part(int number, int parts, int height) {
    const auto edge = [&](int n) { return static_cast<int>(1LL * height * n / parts); };
    return {edge(number - 1), edge(number)};
  }
};

/// Tells how a stack is cut into bands.
struct KORIMG_SESSION_API StackPlan {
  int rows = 0, bands = 0;
  long long storeBytes = 0;  ///< values and flags of all frames for a band
  long long totalBytes = 0;  ///< with the rows that are read, the result's and the work space

  std::string Text() const;
};

/// Answers the bytes that a stack takes unless told otherwise: bands larger than that are no faster.
KORIMG_SESSION_API long long DefaultStackMemory(const Job& job);

/// Plans the bands by the memory rule: frames x (rows + 1) x width x planes x 8 bytes, and what is held
/// beside them.
/// @throws std::runtime_error when not even bands of one row fit.
KORIMG_SESSION_API StackPlan PlanStack(const std::vector<StackInput>& inputs, const Shape& shape,
                                       const StackOptions& options);

/// Stacks the frames on the grid of the one numbered `reference`, which normalising goes by too, or on that
/// of StackOptions::shape, but only `rows` of it. Calls sink for the bands in order; frames are read a few at
/// a time, and where outliers are rejected some rows of each first, to measure their noise by. The result
/// does not depend on bands or threads. It is made in the rows of `whole` where there is one, an image of the
/// reference's shape in a contiguous store; else a band is gone after the sink.
/// @throws Cancelled, and what reading and the sink throw.
KORIMG_SESSION_API void Stack(Job& job, const std::vector<StackInput>& inputs, int reference,
                              const StackOptions& options, const StackRows& rows,
                              const std::function<void(const StackBand&)>& sink, CVelImage* whole = nullptr);

/// Lays the pixels of one frame on the grid of an image, normalised by the levels of the reference: what
/// Stack makes means of. NaN where it does not reach. `read` is not called.
void LayInput(const StackInput& input, CVelImage& frame, const FrameLevels& reference,
              const StackOptions& options, CVelImage& target);

/// Answers some rows of a frame, spread evenly over it: enough to measure it by.
KORIMG_SESSION_API std::unique_ptr<CVelImage> SampleInput(Job& job, const StackInput& input);

/// Measures a frame for normalising and weights, by such rows.
KORIMG_SESSION_API FrameLevels MeasureInput(Job& job, const StackInput& input);

/// Answers what normalising multiplies a plane of a frame by.
double ScaleOf(const FrameLevels& frame, const FrameLevels& reference, Normalisation normalisation,
               int plane = 0);

/// Refuses frames whose numbers cannot be on the reference's scale: floats from 0 to 1 beside those of a
/// camera. A camera's own frames, of whatever exposure, do not differ so much in their noise.
/// @throws FileError that names the frame and the noise of both.
KORIMG_SESSION_API void CheckScales(const std::vector<StackInput>& inputs, int reference);

/// Answers weights by the noise of each plane, as normalising leaves it: one over its square. The best frame
/// has 1 in each.
KORIMG_SESSION_API std::vector<CImgStack::PlaneWeights> NoiseWeights(const std::vector<StackInput>& inputs,
                                                                     int reference,
                                                                     Normalisation normalisation);

}  // namespace korimg::session
