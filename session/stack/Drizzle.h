// Registered frames to one image on a finer grid, in bands of rows.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "korimg/composite/stacking/CImgDrizzle.h"

#include "session/Export.h"
#include "session/job/Json.h"
#include "session/job/Named.h"
#include "session/stack/Stack.h"

namespace korimg::session {

class RejectedPixels;

inline const std::vector<Named<CImgDrizzle::Kernel>> kDrizzleKernels = {
    {"square", CImgDrizzle::Square}, {"point", CImgDrizzle::Point}, {"gaussian", CImgDrizzle::Gaussian}};

/// Tells what of a frame is drizzled where that is not what is stacked: the sites of its mosaic.
struct MosaicSites {
  CImgDrizzle::SitePlanes planes;
  std::function<void(const Band<float>& to)> read;  ///< as StackInput::read, of one plane
};

/// Answers the planes of a mosaic's colours, by its CFA number.
KORIMG_SESSION_API CImgDrizzle::SitePlanes PlanesOfSites(int cfa);

/// Tells how the work is cut into bands.
struct KORIMG_SESSION_API DrizzlePlan {
  int rows = 0, bands = 0;
  long long totalBytes = 0;  ///< of the grid's sums and the frames' rows

  std::string Text() const;
};

/// Holds what is drizzled.
struct DrizzleFrames {
  const std::vector<StackInput>& inputs;
  int reference = 0;  ///< its number
  Normalisation normalisation = Normalisation::Level;
  std::vector<MosaicSites> mosaics = {};     ///< for each frame; empty: the inputs themselves
  const RejectedPixels* rejected = nullptr;  ///< what is left out of them, if anything
};

/// Makes the grid on the reference.
KORIMG_SESSION_API CImgDrizzle GridOf(const StackInput& reference, const CImgDrizzle::Options& options);

/// @throws std::runtime_error when not even bands of one row fit into so many bytes.
KORIMG_SESSION_API DrizzlePlan PlanDrizzle(const DrizzleFrames& frames, const CImgDrizzle::Options& options,
                                           long long memory);

/// Marks what a stack on the reference's grid rejects, in the rows that are not known yet.
/// @throws as Stack.
void FindRejected(Job& job, const std::vector<StackInput>& inputs, int reference, StackOptions options,
                  RejectedPixels& rejected);

/// Drizzles the frames on the grid, from its row `y0` on. A pixel weighs as much as its frame does in a
/// stack, and nothing where the pixel of the reference's grid that its middle lies on was rejected for its
/// frame. Calls sink for the bands in order, with means, weights, and the counts of each
/// frame's values. The result does not depend on bands or threads.
/// @throws Cancelled, and what reading and the sink throw.
KORIMG_SESSION_API void Drizzle(Job& job, const DrizzleFrames& frames, const CImgDrizzle::Options& options,
                                long long memory, int y0, const std::function<void(const StackBand&)>& sink);

/// Tells by how much more the noise of large areas is than that of single pixels tells, since drops fall on
/// several of them (Casertano et al., 2000, AJ 120, 2747, for many positions of square drops).
KORIMG_SESSION_API double NoiseCorrelation(const CImgDrizzle::Options& options);

/// Brings the header of a stack on the reference's grid to the fine one, and notes what becomes of the noise.
KORIMG_SESSION_API void ToGrid(files::Header& header, const Shape& reference,
                               const CImgDrizzle::Options& options);

/// Tells of the noise, and warns where weights are uneven: their spread is above 0.2. The same for programs
/// is added to `json`.
KORIMG_SESSION_API void TellDrizzle(Job& job, const CImgDrizzle::Options& options,
                                    std::optional<double> spread, nlohmann::ordered_json& json);

/// Measures how even the weights are where all frames reach, by rows of the grid in order.
class KORIMG_SESSION_API WeightSpread {
 public:
  WeightSpread(const std::vector<StackInput>& inputs, int reference, const CImgDrizzle::Options& options);
  void Add(const Band<const float>& weights);
  /// Answers their standard deviation over their median, the largest of all planes; none where frames have
  /// nothing in common.
  std::optional<double> Get();

 private:
  static constexpr int kCells = 64;  ///< of the grid, across and down; chosen

  int CellOf(int at, int size) const { return static_cast<int>(1LL * at * kCells / size); }

  int width_, height_, step_;
  std::vector<char> isCommon_;
  std::vector<std::vector<float>> weights_;  ///< by planes
};

}  // namespace korimg::session
