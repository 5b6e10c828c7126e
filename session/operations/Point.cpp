// Operations that see one pixel at a time.
#include <fmt/format.h>

#include "korimg/image/CImgBright.h"
#include "korimg/image/CImgCalculation.h"
#include "korimg/image/CImgCutOff.h"
#include "korimg/image/CImgInvert.h"

#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

constexpr double kFar = 1e6;  // pixels

struct NoOptions {};

void Invert(Call& call, const NoOptions&) {
  call.Replace<CImgInvert>([&](CImgInvert& target) { target.Do(call.image.get(), call.rect, kShow); });
}

struct BrightOptions {
  PerPlane bright = 0, contrast = 0;
  double average = 127.5;
};

void Bright(Call& call, const BrightOptions& options) {
  const int planes = call.image->GetPlanes();
  call.Replace<CImgBright>([&](CImgBright& target) {
    target.Do(options.bright.For<float>(planes).data(), options.contrast.For<float>(planes).data(),
              options.average, call.image.get(), call.rect, kShow);
  });
}

enum class Arithmetic : int { Add, Subtract, Multiply, Divide };  // the library's numbers

struct CalculateOptions {
  Arithmetic op = Arithmetic::Add;
  double value = 0;
  bool cutMinus = false;
};

void Calculate(Call& call, const CalculateOptions& options) {
  if (options.op == Arithmetic::Divide && options.value == 0) {
    throw UsageError("calculate: division by 0; give another value");
  }
  call.Replace<CImgCalculation>([&](CImgCalculation& target) {
    target.Do(options.value, static_cast<int>(options.op), options.cutMinus, call.image.get(), call.rect,
              kShow);
  });
}

struct CutOffOptions {
  std::optional<double> low, high;
};

void CutOff(Call& call, const CutOffOptions& options) {
  const double low = options.low.value_or(call.image->GetLevelMin(0));
  const double high = options.high.value_or(call.image->GetLevelMax(0));
  call.Replace<CImgCutOff>([&](CImgCutOff& target) {
    target.Do(call.image.get(), static_cast<float>(low), static_cast<float>(high), call.rect, kShow);
  });
}

using Condition = void (CVelImage::*)(int, float, float);

struct ThresholdOptions {
  Condition condition = &CVelImage::ThresholdEqual;
  double threshold = 0, value = 0;
  int plane = -1;
};

void Threshold(Call& call, const ThresholdOptions& options) {
  (call.image.get()->*options.condition)(options.plane, static_cast<float>(options.threshold),
                                         static_cast<float>(options.value));
}

void CutToLevels(Call& call, const NoOptions&) {
  call.image->CutOutOfLevel();
}

void RebaseToZero(Call& call, const NoOptions&) {
  call.image->CutOutOfZeroLevel();
}

struct PasteOptions {
  ImageValue file;
};

void Paste(Call& call, const PasteOptions& options) {
  const auto other = call.Load(options.file);
  if (other->GetPlanes() < call.image->GetPlanes()) {
    throw UsageError("paste: the file has fewer planes than the image; change it by to-colour first");
  }
  call.image->Paste(other.get(), call.rect);
}

struct BlitOptions {
  ImageValue file;
  int x = 0, y = 0, width = 1000000, height = 1000000, fromX = 0, fromY = 0;
  bool convertLevel = false;
};

void Blit(Call& call, const BlitOptions& options) {
  const auto other = call.LoadAnySize(options.file);
  if (other->GetPlanes() != call.image->GetPlanes()) {
    throw UsageError(
        fmt::format("blit: the file has {} planes and the image {}; change one by to-colour or to-gray",
                    other->GetPlanes(), call.image->GetPlanes()));
  }
  call.image->PixelBlt(options.x, options.y, options.width, options.height, other.get(), options.fromX,
                       options.fromY, options.convertLevel);
}

}  // namespace

std::vector<Operation> PointOperations() {
  return {
      Describe<BlitOptions>("blit", "copies a window of another image to a place in this one",
                            "Puts a part of one picture into another, such as a planet from a short "
                            "exposure into the field of a long one. Nothing is blended at the seam; use a "
                            "mask for that.")
          .Takes("file", &BlitOptions::file, {"the other image"})
          .Takes("x", &BlitOptions::x, {"column that the window goes to", "pixels", 0, kFar})
          .Takes("y", &BlitOptions::y, {"row that the window goes to", "pixels", 0, kFar})
          .Takes("width", &BlitOptions::width, {"of the window, cut to both images", "pixels", 0, kFar})
          .Takes("height", &BlitOptions::height, {"of the window, cut to both images", "pixels", 0, kFar})
          .Takes("from-x", &BlitOptions::fromX,
                 {"the window's first column in the other image", "pixels", 0, kFar})
          .Takes("from-y", &BlitOptions::fromY,
                 {"the window's first row in the other image", "pixels", 0, kFar})
          .Takes("convert-level", &BlitOptions::convertLevel,
                 {"1: carry values over from the other image's levels to this one's"})
          .Example("file=other.fits x=20 y=10 width=30 height=25 from-x=5")
          .Runs(Blit),
      Describe<BrightOptions>("bright", "brightness and contrast on the 0-255 scale of the levels",
                              "Shifts and stretches tones evenly, plane by plane, as a first balance of "
                              "colours. Faint detail in a linear stack wants a curve instead, which lifts "
                              "the sky without cutting the stars.")
          .Takes("bright", &BrightOptions::bright, {"added to each pixel", "0-255", -1e6, 1e6})
          .Takes("contrast", &BrightOptions::contrast,
                 {"256 doubles the distance from the average", "1/256", -1e6, 1e6})
          .Takes("average", &BrightOptions::average, {"what contrast turns about", "0-255", -1e6, 1e6})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("bright=4,0,-3 contrast=24 average=90")
          .KeepsSource()
          .Runs(Bright),
      Describe<CalculateOptions>("calculate", "arithmetic with a number, on raw values",
                                 "Takes a known pedestal off, or brings an image to another scale. For "
                                 "calibration use dark and flat, which go pixel by pixel.")
          .Chooses("op", &CalculateOptions::op,
                   {{"add", Arithmetic::Add},
                    {"subtract", Arithmetic::Subtract},
                    {"multiply", Arithmetic::Multiply},
                    {"divide", Arithmetic::Divide}},
                   "what to do with the value")
          .Takes("value", &CalculateOptions::value, {"the number", "raw"})
          .Required()
          .Takes("cut-minus", &CalculateOptions::cutMinus, {"1: negative results of subtract become 0"})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("op=multiply value=1.5")
          .KeepsSource()
          .Runs(Calculate),
      Describe<CutOffOptions>(
          "cut-off", "replaces pixels at or beyond the levels",
          "Pixels at or below black become `low` and those at or above white `high`, so that "
          "saturated stars or empty edges take a value of their own. What is replaced is "
          "lost; the levels alone hide it without loss.")
          .Takes("low", &CutOffOptions::low, {"for pixels at or below black; black when not given", "raw"})
          .Takes("high", &CutOffOptions::high, {"for pixels at or above white; white when not given", "raw"})
          .OnRect()
          .Example("low=300 high=2500")
          .KeepsSource()
          .Runs(CutOff),
      Describe<NoOptions>(
          "cut-to-levels", "limits each pixel to black and white",
          "Keeps what a picture shows and no more, before a change that would bring back what "
          "lies beyond the levels. What is cut is lost.")
          .Example("")
          .Runs(CutToLevels),
      Describe<NoOptions>("invert", "turns the image over: black becomes white",
                          "Shows faint nebulae and arms of galaxies as dark on white, as on a plate: the eye "
                          "finds them better there.")
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("")
          .KeepsSource()
          .Runs(Invert),
      Describe<PasteOptions>(
          "paste", "copies a window of another image of the same size",
          "With a rectangle it brings a part of another version of the same picture into "
          "this one; without one, all of it. Nothing is blended at the seam; use a mask for "
          "that.")
          .Takes("file", &PasteOptions::file, {"the other image"})
          .OnRect()
          .Example("file=other.fits")
          .Runs(Paste),
      Describe<NoOptions>(
          "rebase-to-zero", "moves black to 0, cuts what is below, and gives all planes one range",
          "Prepares an image for programs that know no levels. The noise below black is lost, "
          "so it comes after stacking, not before.")
          .Header(HeaderEffect::DropsCounts)
          .Example("")
          .Runs(RebaseToZero),
      Describe<ThresholdOptions>(
          "threshold", "replaces pixels by a condition",
          "Marks or removes pixels by their value: saturated ones, those of no data, or "
          "all but the stars, for a mask.")
          .Chooses("condition", &ThresholdOptions::condition,
                   {{"equal", &CVelImage::ThresholdEqual},
                    {"not-equal", &CVelImage::ThresholdNotEqual},
                    {"greater", &CVelImage::ThresholdGreaterThan},
                    {"less", &CVelImage::ThresholdLessThan},
                    {"less-or-equal", &CVelImage::ThresholdLessThanEqual}},
                   "against the threshold")
          .Takes("threshold", &ThresholdOptions::threshold, {"what pixels are compared with", "raw"})
          .Required()
          .Takes("value", &ThresholdOptions::value, {"what they become", "raw"})
          .Takes("plane", &ThresholdOptions::plane, {"-1: all planes", "", -1, 2})
          .Example("condition=greater threshold=700 value=700")
          .Runs(Threshold),
  };
}

}  // namespace korimg::session
