#include "session/sky/Sky.h"

#include "korimg/calibration/CImgSkySelect.h"
#include "korimg/image/Loan.h"
#include "korimg/measurement/CImgPixelInfo.h"

#include "session/calibrate/Frames.h"
#include "session/job/internal/Edge.h"

namespace korimg::session {
FoundSky FindSky(const Image& image) {
  return AtEdge([&] {
    FoundSky found;
    if (!Loan<CImgSkySelect>(image.Pixels()).borrower.AutoSelect(&found.square, 0)) {
      throw Error(
          ErrorKind::File,
          "no clean sky: every square of 16 pixels or more outside the border and the middle is noisier "
          "or brighter than usual, or the image is too small");
    }
    double min[3], max[3], mean[3], noise[3], background[3];
    Loan<CImgPixelInfo>(image.Pixels()).borrower.Calc(found.square, min, max, mean, noise, background);
    for (int p = 0; p < image.Planes(); ++p) {
      found.planes.push_back({background[p], noise[p]});
    }
    return found;
  });
}

void FindSky(Job& job, const SkyFilesOptions& options, const std::function<void(FileSky)>& take) {
  AtEdge([&] {
    const auto store = job.MakeStore();
    job.ForEachFile(ExpandFolders(job, options.files), [&](const std::filesystem::path& file) {
      take({FindSky(Image::Open(job, store, file, {.hdu = options.hdu, .lessBorder = true})), file});
    });
  });
}

}  // namespace korimg::session
