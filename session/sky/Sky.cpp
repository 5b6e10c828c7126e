#include "session/sky/Sky.h"

#include "korimg/calibration/CImgSkySelect.h"
#include "korimg/measurement/CImgPixelInfo.h"

#include "session/calibrate/Frames.h"
#include "session/job/internal/Edge.h"

namespace korimg::session {
namespace {

/// Calls work(object) on an object of a class of the library that holds the image's pixels meanwhile.
template <class Worker, class F>
void OnPixels(CVelImage& image, F&& work) {
  struct Loan {
    CVelImage& owner;
    Worker worker;
    explicit Loan(CVelImage& image) : owner(image) { worker.Swap(&owner); }
    ~Loan() { worker.Swap(&owner); }
  } loan(image);
  work(loan.worker);
}

}  // namespace

FoundSky FindSky(const Image& image) {
  return AtEdge([&] {
    FoundSky found;
    int isFound = 0;
    OnPixels<CImgSkySelect>(image.Pixels(),
                            [&](CImgSkySelect& sky) { isFound = sky.AutoSelect(&found.square, 0); });
    if (!isFound) {
      throw Error(
          ErrorKind::File,
          "no clean sky: every square of 16 pixels or more outside the border and the middle is noisier "
          "or brighter than usual, or the image is too small");
    }
    double min[3], max[3], mean[3], noise[3], background[3];
    OnPixels<CImgPixelInfo>(image.Pixels(), [&](CImgPixelInfo& info) {
      info.Calc(found.square, min, max, mean, noise, background);
      for (int p = 0; p < info.GetPlanes(); ++p) {
        found.planes.push_back({background[p], noise[p]});
      }
    });
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
