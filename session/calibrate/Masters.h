// Masters: what a group of calibration frames is made into.
#pragma once

#include <memory>

#include "korimg/image/CVelImage.h"

#include "session/Export.h"
#include "session/calibrate/Frames.h"
#include "session/job/Job.h"

namespace korimg::session {

/// Holds extremes and means of an image's planes. Pixels that are no finite numbers are passed over.
struct KORIMG_SESSION_API Measures {
  float minima[3] = {}, maxima[3] = {}, averages[3] = {};
  double min = 0, max = 0, mean = 0;  ///< of all planes
  bool hasBlank = false;              ///< there are pixels that are no finite numbers

  Measures() = default;
  explicit Measures(CVelImage& image);
};

struct KORIMG_SESSION_API Master {
  const Group* group = nullptr;
  const Master* offset = nullptr;  ///< of flats: the bias or dark that came off each frame
  std::unique_ptr<CVelImage> image;
  Measures measures;
  bool equalised = false;  ///< a mosaic's flat: its colours have one mean
  double saturated = 0;    ///< share of its frames' pixels that are at the end of their scale
  bool isKept = false;     ///< it was made before, and lies where it belongs
  double gain = 0;         ///< electrons of a raw value, by the noise of two raw flats; 0: not known

  /// Tells where it comes from, for people and headers.
  std::string Text() const;
};

/// Answers the variance of a pixel between the frames of a group, by its first two.
double NoiseVariance(const Group& group);

/// Answers the largest value that a file's pixels can have. Floats are taken for those of a 16-bit camera.
float ScaleEnd(const files::ImageInfo& info, bool lessBlack);

/// Answers the share of an image's pixels that are less than a value.
double ShareBelow(CVelImage& image, float value);

/// Makes the master of a group in bounded memory: a single frame as it is, else the median of all. Flats have
/// `offset`, which may be null, taken off and are brought to one mean before; the colours of a mosaic, which
/// they name or are told by its CFA number, are brought to one mean after.
KORIMG_SESSION_API Master MakeMaster(Job& job, const std::shared_ptr<CVmManager>& store, const Group& group,
                                     const Master* offset, int cfa = 0);

/// Takes an offset off an image, values below `least` being limited to it, and divides by a flat, which is
/// free of its own offset, times its mean; either may be null. What the flat has no data for becomes NaN.
/// Answers how many pixels were limited.
KORIMG_SESSION_API long long ApplyMasters(CVelImage& image, CVelImage* offset, float least, CVelImage* flat,
                                          const Measures& ofFlat);

/// Writes a master with the first frame's header and its history.
void SaveMaster(Job& job, Master& master, const std::filesystem::path& path);

}  // namespace korimg::session
