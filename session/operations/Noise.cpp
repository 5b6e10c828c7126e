// Repairs: noise, hot pixels, fringes, trails; and the user's own kernels.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/filters/CImgCosmicRays.h"
#include "korimg/filters/CImgFilterMisc.h"

#include "session/files/Mosaic.h"
#include "session/operations/internal/Colours.h"
#include "session/operations/internal/Counts.h"
#include "session/operations/internal/FilterOptions.h"

namespace korimg::session {
namespace {

enum class Outliers { Both, Hot, Cool };

struct HotCoolOptions {
  double radius = 1;
  Outliers pixels = Outliers::Both;
  std::optional<double> hot, cool;
};

void HotCool(Call& call, const HotCoolOptions& o) {
  constexpr double kShare = 0.5;  // chosen
  CheckRadius(call, o.radius);
  if ((o.pixels == Outliers::Hot && o.cool) || (o.pixels == Outliers::Cool && o.hot)) {
    throw UsageError(
        "hot-cool: pixels= names one kind, and there is a share for the other; leave out one of both");
  }
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.NoiseCut(o.radius, o.pixels != Outliers::Hot, o.cool.value_or(kShare), o.pixels != Outliers::Cool,
                    o.hot.value_or(kShare), call.image.get(), call.rect, kShow);
  });
}

struct SmoothFaintOptions {
  double threshold = 32, radius = 1, weight = 1;
};

void SmoothFaint(Call& call, const SmoothFaintOptions& o) {
  CheckRadius(call, o.radius);
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.NoiseCutWithBrightness(o.threshold, o.radius, o.weight, 0, call.image.get(), call.rect, kShow);
  });
}

struct ColourNoiseOptions {
  double level = 48, strength = 0.7;
};

void ColourNoise(Call& call, const ColourNoiseOptions& o) {
  CheckColours(call);
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.ColorNoiseCut(o.level, 0, o.strength, call.image.get(), call.rect, kShow);
  });
}

/// The array of an image whose header says it, or one by the library's numbers.
enum class Pattern : int {
  Header = 0,
  Rggb,
  Grbg,
  Bggr,
  Gbrg,
  Honeycomb1 = 11,
  Honeycomb2,
  Honeycomb3,
  Honeycomb4
};

/// By the library's numbers.
enum class Strength : int { Pixels = 2, PixelsGently = 1, PairsGently = 3, Pairs = 4 };

struct CfaNoiseOptions {
  Strength mode = Strength::Pixels;
  double threshold = 2, ratio = 0.5;
  int rings = 1;
  Pattern pattern = Pattern::Header;
};

/// The number of the array of the rows as they are stored.
int ArrayOf(const Call& call, Pattern pattern) {
  files::ImageInfo info;
  info.height = call.image->GetHeight();
  info.planes = call.image->GetPlanes();
  info.header = call.header;
  files::MosaicOptions told;
  if (pattern != Pattern::Header) told.cfa = files::CfaName(static_cast<int>(pattern));
  return files::FindMosaic(info, told).cfa;
}

void CfaNoise(Call& call, const CfaNoiseOptions& o) {
  if (call.image->GetPlanes() != 1) {
    throw UsageError("cfa-noise: the image is developed, and no mosaic; use hot-cool");
  }
  const int array = ArrayOf(call, o.pattern);
  if (array == 0) {
    throw UsageError(
        "cfa-noise: the header says of no mosaic that is supported; give pattern= for a mosaic, and use "
        "hot-cool for a mono image");
  }
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.CFANoiseCut(static_cast<int>(o.mode), array, o.threshold, o.rings, o.ratio, call.image.get(),
                       call.rect, kShow);
  });
}

struct CosmicRaysOptions {
  CImgCosmicRays::Result result = CImgCosmicRays::Cleaned;
  double sigClip = 4.5, sigFrac = 0.3, objLim = 5;
  std::optional<double> gain, readNoise;
  int iterations = 4;
};

void CosmicRays(Call& call, const CosmicRaysOptions& o) {
  if (ArrayOf(call, Pattern::Header) > 0) {
    throw UsageError(
        "cosmic-rays: the image is an undeveloped mosaic, whose colours look like hits; use cfa-noise, or "
        "develop it first");
  }
  const Counts counts = CountsOf(call, o.gain, o.readNoise);
  call.Replace<CImgCosmicRays>([&](CImgCosmicRays& target) {
    const long long hits =
        target.Do({o.sigClip, o.sigFrac, o.objLim, counts.gain, counts.readNoise, o.iterations, o.result},
                  call.image.get(), call.rect, kShow);
    call.job.Explain(fmt::format("cosmic-rays: {} pixels are hit", hits));
  });
}

struct FringeOptions {
  PerPlane colour = std::vector<double>{100, 100, 200};
  double tolerance = 0.3, strength = 1;
};

void Fringe(Call& call, const FringeOptions& o) {
  CheckColours(call);
  int colour[3];
  for (int p = 0; p < 3; ++p) {
    colour[p] = static_cast<int>(std::lround(o.colour[p]));
  }
  if (colour[0] < 1)
    throw UsageError("fringe: the colour needs some red, which green and blue are compared with");
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.FalseColorCut(colour[0], colour[1], colour[2], o.tolerance, o.strength, call.image.get(),
                         call.rect, kShow);
  });
}

struct GuideErrorOptions {
  double length = 2, angle = 0, centre = 1, strength = 0.1;
};

void GuideError(Call& call, const GuideErrorOptions& o) {
  CheckRadius(call, o.length);
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.GuideErrorCanceller(o.length, o.angle, o.centre, o.strength, call.image.get(), call.rect, kShow);
  });
}

struct SmoothSkyOptions {
  PerPlane level = 48, width = 16, sigma = 2;
};

void SmoothSky(Call& call, const SmoothSkyOptions& o) {
  constexpr int kGaussian = 0;
  const int planes = call.image->GetPlanes();
  auto level = o.level.For(planes), width = o.width.For(planes), sigma = Sigmas(call, o.sigma);
  for (int p = 0; p < planes; ++p) {
    level[p] = call.image->ToRaw(level[p], p);
  }
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.BkgSmooth(level.data(), width.data(), kGaussian, sigma.data(), 0, call.image.get(), call.rect,
                     kShow);
  });
}

struct ContoursOptions {
  int levels = 8;
  bool wrap = false;
};

void Contours(Call& call, const ContoursOptions& o) {
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.ContourFilter(o.levels, o.wrap, call.image.get(), call.rect, kShow);
  });
}

struct KernelOptions {
  Matrix matrix;
  std::optional<Matrix> green, blue;
  std::optional<PerPlane> dark, highlight, brighter;
};

/// The radius of a kernel.
int RadiusOf(const Call& call, const Matrix& matrix) {
  if (matrix.rows != matrix.columns || matrix.rows % 2 == 0) {
    throw UsageError(fmt::format("{}: a kernel has as many rows as columns, and a middle one, not {} x {}",
                                 call.Name(), matrix.columns, matrix.rows));
  }
  CheckRadius(call, matrix.rows / 2);
  return matrix.rows / 2;
}

void Kernel(Call& call, const KernelOptions& o) {
  const int planes = call.image->GetPlanes();
  if (planes < 3 && (o.green || o.blue)) {
    throw UsageError("kernel: the image has one plane; give matrix alone");
  }
  std::vector<Matrix> matrices{o.matrix, o.green.value_or(o.matrix), o.blue.value_or(o.matrix)};
  std::vector<int> radii;
  std::vector<double*> kernels;
  for (Matrix& matrix : matrices) {
    radii.push_back(RadiusOf(call, matrix));
    kernels.push_back(matrix.values.data());
  }
  OptionalValues dark(o.dark, planes), highlight(o.highlight, planes), brighter(o.brighter, planes);
  call.Replace<CImgFilterMisc>([&](CImgFilterMisc& target) {
    target.Custom(radii.data(), kernels.data(), dark.given.data(), dark.values.data(), highlight.given.data(),
                  highlight.values.data(), brighter.given.data(), brighter.values.data(), call.image.get(),
                  call.rect, kShow);
  });
}

template <class O>
Describe<O>& TakesStrength(Describe<O>& description) {
  return description.Takes("strength", &O::strength,
                           {"0 leaves the image as it is, 1 is the whole effect", "", 0, 1});
}

}  // namespace

std::vector<Operation> NoiseOperations() {
  Describe<ColourNoiseOptions> colourNoise(
      "colour-noise", "draws the colours of dark pixels towards grey",
      "Takes the coloured speckle off the sky of a stretched colour image; brightness stays. Faint nebulae "
      "lose colour too: keep the level below them, and leave it to the background alone.");
  colourNoise.Takes("level", &ColourNoiseOptions::level,
                    {"pixels with a channel below it are drawn", "0-255", -1e6, 1e6});
  Describe<CosmicRaysOptions> cosmicRays(
      "cosmic-rays", "removes the hits of cosmic rays from a single frame",
      "Finds what has sharper edges than the optics draw, by L.A.Cosmic (van Dokkum 2001), and replaces it "
      "by "
      "the median about it. For single calibrated frames, and few of a filter: a stack of several rejects "
      "hits by itself. Stars of a FWHM below 2 pixels need a higher objlim. Look at result=mask first.");
  cosmicRays
      .Chooses("result", &CosmicRaysOptions::result,
               {{"cleaned", CImgCosmicRays::Cleaned}, {"mask", CImgCosmicRays::Mask}},
               "the image without hits, or where they are: 1, and 0 everywhere else")
      .Takes("sigclip", &CosmicRaysOptions::sigClip,
             {"by how many deviations of the noise an edge stands out", "", 0.1, 1e6})
      .Takes("sigfrac", &CosmicRaysOptions::sigFrac, {"share of that which suffices beside a hit", "", 0, 1})
      .Takes("objlim", &CosmicRaysOptions::objLim,
             {"how much more than the fine structure of stars it is; less finds more hits, and takes stars "
              "for such",
              "", 0, 1e6});
  Describe<FringeOptions> fringe(
      "fringe", "removes fringes of a colour about bright stars",
      "Takes off the blue or violet halo that a refractor leaves about bright stars. Everything else of that "
      "colour fades as well, reflection nebulae and hot stars among them: confine it to a rectangle, or "
      "blend "
      "it by a mask of the stars.");
  fringe
      .Takes("colour", &FringeOptions::colour,
             {"red, green and blue of the fringe; only their ratios count", "", 0, 65535})
      .Takes("tolerance", &FringeOptions::tolerance,
             {"share by which a pixel's ratios of green and blue to red may differ", "", 0, 100});
  Describe<GuideErrorOptions> guideError(
      "guide-error", "draws trails of bad guiding together",
      "Rounds stars that are short straight trails, all at one angle. It sharpens noise along the trail and "
      "digs dark ends into bright stars; frames that trail much are better left out of the stack.");
  guideError
      .Takes("length", &GuideErrorOptions::length,
             {"of the trail to either side of a star's middle", "pixels", 0.1, 100})
      .Takes("angle", &GuideErrorOptions::angle, {"of the trail from the vertical", "degrees", -360, 360})
      .Takes("centre", &GuideErrorOptions::centre,
             {"what the middle of the kernel is multiplied by; above 1 works more gently", "", 0.01, 1000});
  return {
      Describe<CfaNoiseOptions>(
          "cfa-noise", "removes hot and cold pixels of an undeveloped mosaic",
          "Compares each pixel of a raw frame with the nearest of its colour before development smears it "
          "over "
          "its neighbours. A pixel that its surroundings of all colours follow is a star, and stays. With "
          "several dithered frames let calibration and stacking do this; single frames, and those without "
          "darks, need it.")
          .Chooses(
              "mode", &CfaNoiseOptions::mode,
              {{"pixels", Strength::Pixels},
               {"pixels-gently", Strength::PixelsGently},
               {"pairs-gently", Strength::PairsGently},
               {"pairs", Strength::Pairs}},
              "lone pixels, or pairs of a colour too; they become the mean of their neighbours, or, gently, "
              "the nearest of them in value")
          .Takes("threshold", &CfaNoiseOptions::threshold,
                 {"by which a pixel must stand out; some five times the noise", "0-255", 0, 1e6})
          .Takes("ratio", &CfaNoiseOptions::ratio,
                 {"share of a star's neighbours that may be dark; lower ones remove more", "", 0, 1})
          .Takes("rings", &CfaNoiseOptions::rings,
                 {"1: the 8 pixels about one tell a star; 2: those about them too, for a FWHM above 3 pixels",
                  "", 1, 2})
          .Chooses(
              "pattern", &CfaNoiseOptions::pattern,
              {{"header", Pattern::Header},
               {"rggb", Pattern::Rggb},
               {"grbg", Pattern::Grbg},
               {"bggr", Pattern::Bggr},
               {"gbrg", Pattern::Gbrg},
               {"honeycomb1", Pattern::Honeycomb1},
               {"honeycomb2", Pattern::Honeycomb2},
               {"honeycomb3", Pattern::Honeycomb3},
               {"honeycomb4", Pattern::Honeycomb4}},
              "as the header says; of the upright picture's top left corner; honeycombs by where red begins: "
              "column and row 0,0, 2,0, 1,1 or 3,1")
          .OnRect()
          .Example("mode=pairs threshold=20 pattern=rggb")
          .KeepsSource()
          .Runs(CfaNoise),
      TakesStrength(colourNoise).OnRect().Example("level=100 strength=0.5").KeepsSource().Runs(ColourNoise),
      Describe<ContoursOptions>(
          "contours", "draws the borders between steps of brightness",
          "Shows the shape of a comet's coma, of gradients and of faint outer parts as lines on "
          "a map. Smooth the image first, or noise draws most of them. The result is no picture.")
          .Takes("levels", &ContoursOptions::levels, {"steps from black to white", "", 2, 65536})
          .Takes("wrap", &ContoursOptions::wrap, {"go on with steps beyond black and white"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("levels=5 wrap=1")
          .KeepsSource()
          .Runs(Contours),
      TakesCounts(std::move(cosmicRays))
          .Takes("iterations", &CosmicRaysOptions::iterations, {"at most", "", 1, 100})
          .OnRect()
          .Example("objlim=4 read-noise=8")
          .KeepsSource()
          .Runs(CosmicRays),
      TakesStrength(fringe).OnRect().Example("colour=100,110,180 tolerance=0.6").KeepsSource().Runs(Fringe),
      TakesStrength(guideError)
          .OnRect()
          .Example("length=3 angle=20 strength=0.5")
          .KeepsSource()
          .Runs(GuideError),
      Describe<HotCoolOptions>(
          "hot-cool", "replaces hot and cool pixels by the median about them",
          "Repairs what dark frames left, on mono images and developed ones; for a mosaic use cfa-noise. A "
          "pixel has to differ from the median by a share, so take the offset of the camera off first. Small "
          "shares cut the peaks of undersampled stars.")
          .Takes("radius", &HotCoolOptions::radius,
                 {"of the disc that the median is taken over", "pixels", 0, 1000})
          .Chooses("pixels", &HotCoolOptions::pixels,
                   {{"both", Outliers::Both}, {"hot", Outliers::Hot}, {"cool", Outliers::Cool}},
                   "which are replaced")
          .Takes("hot", &HotCoolOptions::hot,
                 {"share by which the median must be less than a hot pixel; 0.5 when it is left out", "", 0,
                  1e6})
          .Takes(
              "cool", &HotCoolOptions::cool,
              {"share of a cool pixel by which the median must be more; 0.5 when it is left out", "", 0, 1e6})
          .OnRect()
          .StoresAgree(std::nullopt)
          .Example("radius=2 hot=0.3 cool=0.8")
          .KeepsSource()
          .Runs(HotCool),
      Describe<KernelOptions>(
          "kernel", "applies a kernel of your own",
          "For what no other operation does: emboss, a directed blur, a correction that was worked out "
          "elsewhere. The numbers are taken as they are; those that add up to 1 keep the brightness.")
          .Takes("matrix", &KernelOptions::matrix,
                 {"as many rows as columns, an odd number; for all planes", "", -1e6, 1e6})
          .Required()
          .Takes("green", &KernelOptions::green, {"another one for the second plane", "", -1e6, 1e6})
          .Takes("blue", &KernelOptions::blue, {"another one for the third plane", "", -1e6, 1e6})
          .Takes("dark", &KernelOptions::dark, {"pixels below it stay as they are", "0-255", -1e6, 1e6})
          .Takes("highlight", &KernelOptions::highlight,
                 {"pixels above it stay as they are", "0-255", -1e6, 1e6})
          .Takes("brighter", &KernelOptions::brighter,
                 {"share of what was darkened that comes back", "percent", 0, 100})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("matrix=0,-1,0;-1,5,-1;0,-1,0 highlight=200 brighter=50")
          .KeepsSource()
          .Runs(Kernel),
      Describe<SmoothFaintOptions>("smooth-faint",
                                   "smooths faint, flat parts and leaves bright structure alone",
                                   "Calms the noise of the sky and of faint outskirts of a stretched image. "
                                   "The blur fades out from the "
                                   "threshold to white. Faint stars below the threshold are blurred too.")
          .Takes("threshold", &SmoothFaintOptions::threshold,
                 {"up to it the blur is whole", "0-255", -1e6, 1e6})
          .Takes("radius", &SmoothFaintOptions::radius,
                 {"of the blur, whose fraction is dropped; neighbours whose squared distance is at most it "
                  "tell edges",
                  "pixels", 0, 1000})
          .Takes("weight", &SmoothFaintOptions::weight,
                 {"of each neighbour against the pixel's 1", "", 0, 1e6})
          .OnRect()
          .StoresAgree(std::nullopt)
          .Example("threshold=80 radius=2")
          .KeepsSource()
          .Runs(SmoothFaint),
      Describe<SmoothSkyOptions>("smooth-sky", "smooths the sky and leaves what is above a level as it is",
                                 "Calms the background of a stretched image by a Gaussian that never lifts "
                                 "the sky above the level, so that "
                                 "stars keep clean edges. Set the level just above the sky; faint nebulae "
                                 "below it lose their detail.")
          .Takes("level", &SmoothSkyOptions::level, {"pixels above it stay as they are", "0-255", -1e6, 1e6})
          .Takes("width", &SmoothSkyOptions::width,
                 {"over which the smoothing fades out below the level", "0-255", 0, 1e6})
          .Takes("sigma", &SmoothSkyOptions::sigma,
                 {"of the Gaussian; 0 leaves the plane as it is", "pixels", 0, 1000})
          .OnRect()
          .Example("level=120 width=40 sigma=1.5")
          .KeepsSource()
          .Runs(SmoothSky),
  };
}

}  // namespace korimg::session
