#include "session/operations/Operations.h"

#include <cmath>

#include <fmt/format.h>

#include "korimg/calibration/CImgDark.h"
#include "korimg/image/CImgBright.h"
#include "korimg/image/CImgCalculation.h"
#include "korimg/image/CImgCutOff.h"
#include "korimg/image/CImgInvert.h"
#include "korimg/levels/CImgAutoLevel.h"

#include "session/files/ImageFile.h"
#include "session/operations/internal/Curves.h"
#include "session/operations/internal/Filters.h"
#include "session/operations/internal/Geometry.h"

namespace korimg::session {
namespace {

using Kind = ParameterKind;

constexpr int kShow = 1;

void Invert(Call& call) {
  auto target = call.NewTarget<CImgInvert>();
  target->Do(call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

void Bright(Call& call) {
  auto target = call.NewTarget<CImgBright>();
  target->Do(call.PerPlane("bright").data(), call.PerPlane("contrast").data(), call.Number("average"),
             call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

void Calculate(Call& call) {
  constexpr int kDivide = 3;
  const double value = call.Number("value");
  const int op = call.Choice("op");
  if (op == kDivide && value == 0) throw UsageError("calculate: division by 0; give another value");
  auto target = call.NewTarget<CImgCalculation>();
  target->Do(value, op, call.Integer("cut-minus"), call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

void CutOff(Call& call) {
  auto target = call.NewTarget<CImgCutOff>();
  const double low = call.Has("low") ? call.Number("low") : call.image->GetLevelMin(0);
  const double high = call.Has("high") ? call.Number("high") : call.image->GetLevelMax(0);
  target->Do(call.image.get(), static_cast<float>(low), static_cast<float>(high), call.rect, kShow);
  call.image = std::move(target);
}

void Threshold(Call& call) {
  constexpr void (CVelImage::*kConditions[])(int, float, float) = {
      &CVelImage::ThresholdEqual, &CVelImage::ThresholdNotEqual, &CVelImage::ThresholdGreaterThan,
      &CVelImage::ThresholdLessThan, &CVelImage::ThresholdLessThanEqual};
  (call.image.get()->*kConditions[call.Choice("condition")])(call.Integer("plane"),
                                                             static_cast<float>(call.Number("threshold")),
                                                             static_cast<float>(call.Number("value")));
}

void CutToLevels(Call& call) {
  call.image->CutOutOfLevel();
}

void RebaseToZero(Call& call) {
  call.image->CutOutOfZeroLevel();
}

void Paste(Call& call) {
  const auto other = call.File("file");
  if (other->GetPlanes() < call.image->GetPlanes()) {
    throw UsageError("paste: the file has fewer planes than the image; change it by to-colour first");
  }
  call.image->Paste(other.get(), call.rect);
}

void Blit(Call& call) {
  const auto other = call.File("file", false);
  if (other->GetPlanes() != call.image->GetPlanes()) {
    throw UsageError(
        fmt::format("blit: the file has {} planes and the image {}; change one by to-colour or to-gray",
                    other->GetPlanes(), call.image->GetPlanes()));
  }
  call.image->PixelBlt(call.Integer("x"), call.Integer("y"), call.Integer("width"), call.Integer("height"),
                       other.get(), call.Integer("from-x"), call.Integer("from-y"),
                       call.Integer("convert-level"));
}

/// The image becomes the result of a change between mono and colour.
void ChangeColour(Call& call, int (CVelImage::*change)(CVelImage*, int)) {
  auto target = call.NewTarget<CVelImage>();
  if (!(target.get()->*change)(call.image.get(), kShow)) {
    throw velora::CVmMemoryAllocationError("no room for the result");
  }
  call.image = std::move(target);
}

void ToGray(Call& call) {
  if (call.image->IsColor()) ChangeColour(call, &CVelImage::ToGray);
}

void ToColour(Call& call) {
  ChangeColour(call, &CVelImage::ToColor);
}

void Level(Call& call) {
  const auto low = call.PerPlane("min"), high = call.PerPlane("max");
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    if (!(high[p] > low[p])) throw UsageError("level: max must be above min");
    call.image->SetLevel(p, low[p], high[p]);
  }
  call.image->SetOwnLevel(true);
}

void AutoLevel(Call& call) {
  // What suits a sky with stars, by method.
  constexpr std::pair<double, double> kDefaults[] = {{0.001, 0.999}, {1, 4}, {1, 4}, {0.4, 2}};
  const int method = call.Choice("method"), separate = call.Integer("separate");
  const double low = call.Has("low") ? call.Number("low") : kDefaults[method].first,
               high = call.Has("high") ? call.Number("high") : kDefaults[method].second;
  constexpr int kHistogram = 3;
  if (method == kHistogram && low + high == 0) {
    throw UsageError("auto-level: low + high must not be 0 for the method histogram");
  }
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    const auto [min, max] = call.image->GetMinMax(p);
    if (!std::isfinite(min) || !std::isfinite(max)) {
      throw UsageError(
          "auto-level: the image has infinite pixels, or none that is a number: no levels fit it");
    }
    if (!(min < max)) {
      throw UsageError(fmt::format("auto-level: all pixels of plane {} are {:g}: no levels fit it", p, min));
    }
  }
  CImgAutoLevel levels;
  levels.Swap(call.image.get());
  levels.SetProgressHandle(call.Window());
  switch (method) {
    case 0:
      levels.DoByNormal(low, high, separate, call.rect);
      break;
    case 1:
      levels.DoByMean(low, high, separate, call.rect);
      break;
    case 2:
      levels.DoByMedian(low, high, separate, call.rect);
      break;
    default:
      levels.DoByHistogram(low, high, separate, call.Integer("mode"), call.rect);
  }
  levels.Swap(call.image.get());
  for (int p = 0; p < call.image->GetPlanes(); ++p) {
    const double black = call.image->GetLevelMin(p), white = call.image->GetLevelMax(p);
    if (!(black < white)) {
      throw UsageError(
          fmt::format("auto-level: black would be {:g} and white {:g}; take another method, "
                      "or other values of low and high",
                      black, white));
    }
  }
  call.image->SetOwnLevel(true);
}

void Dark(Call& call) {
  call.image->DarkClbrtn(call.File("file").get(), kShow);
}

void Flat(Call& call) {
  const auto flat = call.File("file");
  const bool curved = call.Number("gamma") > 0;
  if (!curved && call.Number("offset") != 0) {
    throw UsageError("flat: offset goes with a gamma; give gamma=1 for a flat as it is");
  }
  for (int p = 0; p < flat->GetPlanes(); ++p) {
    if (!std::isfinite(flat->GetAvrGrayRaw(p))) {
      throw UsageError("flat: the flat has blank pixels; dark-flat passes them over");
    }
    const auto [min, max] = flat->GetMinMax(p);
    if (curved && !(min < max)) {
      throw UsageError("flat: a plane of the flat is constant, and has no curve; take another flat");
    }
  }
  if (curved) {
    call.image->FlatClbrtn(flat.get(), static_cast<float>(call.Number("offset")), call.Number("gamma"),
                           kShow);
  } else {
    call.image->FlatClbrtn(flat.get(), static_cast<CRect*>(nullptr), kShow);
  }
}

void DarkFlat(Call& call) {
  if (!call.Has("dark") && !call.Has("flat")) throw UsageError("dark-flat: give a dark, a flat or both");
  const auto dark = call.Has("dark") ? call.File("dark") : nullptr;
  const auto flat = call.Has("flat") ? call.File("flat") : nullptr;
  float minima[3] = {}, maxima[3] = {}, averages[3] = {};
  for (int p = 0; flat && p < flat->GetPlanes(); ++p) {
    const auto [min, max, average] = flat->GetMinMaxAvr(p);
    minima[p] = static_cast<float>(min);
    maxima[p] = static_cast<float>(max);
    averages[p] = static_cast<float>(average);  // blank pixels passed over, lest one of them blanks the image
  }
  const int done =
      call.image->DarkFlat(call.image.get(), dark.get(), flat.get(), minima, maxima, averages,
                           static_cast<float>(call.Number("offset")), call.Number("gamma"), call.rect, kShow);
  if (done < 0) throw UsageError("dark-flat: a plane of the flat is constant; take another flat");
}

void SynthesizeDark(Call& call) {
  const auto second = call.File("file");
  if (second->GetPlanes() < call.image->GetPlanes()) {
    throw UsageError("synthesize-dark: the second dark has fewer planes than the first");
  }
  const auto n = [&](const char* name) { return call.Number(name); };
  const int method = call.Choice("method");
  if ((method < 2 && n("a1") == n("a2")) || (method == 0 && n("b1") == n("b2")) ||
      (method == 1 && n("step") == 0)) {
    throw UsageError("synthesize-dark: a1 and a2, and b1 and b2, must differ, and step must not be 0");
  }
  if (method == 2 && n("score1") == n("score2"))
    throw UsageError("synthesize-dark: score1 and score2 must differ");
  CImgDark dark;
  dark.Swap(call.image.get());
  dark.SetProgressHandle(call.Window());
  switch (method) {
    case 0:
      dark.DoInterpolateByProportion(second.get(), n("a1"), n("a2"), n("a"), n("b1"), n("b2"), n("b"), kShow);
      break;
    case 1:
      dark.DoInterpolateByPower(second.get(), n("a1"), n("a2"), n("a"), n("b1"), n("b2"), n("b"), n("step"),
                                kShow);
      break;
    default:
      dark.DoInterpolateByScore(second.get(), n("score"), n("score1"), n("score2"), kShow);
  }
  dark.Swap(call.image.get());
}

Parameter File(const std::string& name, const std::string& help) {
  return {name, Kind::File, "", "", 0, 0, {}, help};
}

Parameter Number(const std::string& name, const std::string& unit, const std::string& value,
                 const std::string& help, double low = -1e30, double high = 1e30) {
  return {name, Kind::Number, unit, value, low, high, {}, help};
}

Parameter PerPlane(const std::string& name, const std::string& unit, const std::string& value, double low,
                   double high, const std::string& help) {
  return {name, Kind::PerPlane, unit, value, low, high, {}, help};
}

Parameter Integer(const std::string& name, const std::string& unit, const std::string& value, double low,
                  double high, const std::string& help) {
  return {name, Kind::Integer, unit, value, low, high, {}, help};
}

Parameter Flag(const std::string& name, const std::string& value, const std::string& help) {
  return {name, Kind::Flag, "", value, 0, 1, {}, help};
}

Parameter Choice(const std::string& name, const std::vector<std::string>& choices, const std::string& help) {
  return {name, Kind::Choice, "", choices[0], 0, 0, choices, help};
}

Parameter Rect(const std::string& name, const std::string& help) {
  return {name, Kind::Rect, "pixels", "", 0, 0, {}, help};
}

Parameter Points(const std::string& name, const std::string& value, const std::string& help) {
  return {name, Kind::Points, "0-1", value, 0, 1, {}, help};
}

Parameter Kernel(const std::string& help) {
  return Choice("method", kKernels, "how pixels are read between their centres" + help);
}

Parameter Radius(const std::string& help) {
  return PerPlane("radius", "pixels", "1", 0, 1000, help);
}

Parameter Mode() {
  return Choice("mode", {"cross", "3x3", "5x5"},
                "the pixel and its 4 neighbours; 8 neighbours; 5 x 5 pixels without the corners");
}

/// A parameter that may be left out though it has no default.
Parameter Optional(Parameter parameter) {
  parameter.optional = true;
  return parameter;
}

/// The parameters of a filter that can be confined to a band of levels.
std::vector<Parameter> WithBand(std::vector<Parameter> parameters) {
  for (Parameter band :
       {PerPlane("dark", "0-255", "", -1e6, 1e6, "pixels below it stay as they are"),
        PerPlane("dark-range", "0-255", "", 0, 1e6, "over which the filter fades in below dark"),
        PerPlane("highlight", "0-255", "", -1e6, 1e6, "pixels above it stay as they are"),
        PerPlane("highlight-range", "0-255", "", 0, 1e6,
                 "over which the filter fades out above highlight")}) {
    parameters.push_back(Optional(std::move(band)));
  }
  return parameters;
}

}  // namespace

const std::vector<Operation>& Operations() {
  constexpr double kFar = 1e6;  // pixels
  constexpr int kLargestSide = files::kMaxSide;
  static const std::vector<Operation> table = {
      {"auto-level",
       "sets black and white by the image's own pixels; no pixel changes",
       {Choice("method", {"normal", "mean", "median", "histogram"},
               "shares of a histogram; mean or median with deviations; or the histogram's peak"),
        Optional(
            Number("low", "", "",
                   "normal: share of pixels below black, 0.001, in a histogram of 5000 bins from the darkest "
                   "to the brightest pixel, where each bin counts one pixel more: few pixels, or some far "
                   "from the others, move it; else deviations below the middle, 1, and 0.4 for histogram",
                   -1e6, 1e6)),
        Optional(Number("high", "", "",
                        "normal: share of pixels below white, 0.999, in that histogram; else deviations "
                        "above the middle, 4, "
                        "and 2 for histogram",
                        -1e6, 1e6)),
        Flag("separate", "0", "1: each plane by itself; 0: all planes move together by brightness"),
        Integer("mode", "", "0", 0, 2,
                "histogram: 0 shifts planes to one peak, 1 keeps one black, 2 shifts levels")},
       true,
       AutoLevel},
      {"bin",
       "adds the pixels of cells up to one pixel each",
       {Integer("bin-x", "pixels", "2", 1, 1000, "width of a cell"),
        Integer("bin-y", "pixels", "2", 1, 1000, "height of a cell"),
        Flag("round-up", "0", "1: cells that the edges cut become pixels too"),
        Flag("scale-levels", "1", "1: black and white are multiplied by the number of pixels in a cell")},
       false,
       Bin},
      {"blit",
       "copies a window of another image to a place in this one",
       {File("file", "the other image"),
        Integer("x", "pixels", "0", 0, kFar, "column that the window goes to"),
        Integer("y", "pixels", "0", 0, kFar, "row that the window goes to"),
        Integer("width", "pixels", "1000000", 0, kFar, "of the window, cut to both images"),
        Integer("height", "pixels", "1000000", 0, kFar, "of the window, cut to both images"),
        Integer("from-x", "pixels", "0", 0, kFar, "the window's first column in the other image"),
        Integer("from-y", "pixels", "0", 0, kFar, "the window's first row in the other image"),
        Flag("convert-level", "0", "1: carry values over from the other image's levels to this one's")},
       false,
       Blit},
      {"bright",
       "brightness and contrast on the 0-255 scale of the levels",
       {PerPlane("bright", "0-255", "0", -1e6, 1e6, "added to each pixel"),
        PerPlane("contrast", "1/256", "0", -1e6, 1e6, "256 doubles the distance from the average"),
        Number("average", "0-255", "127.5", "what contrast turns about", -1e6, 1e6)},
       true,
       Bright},
      {"calculate",
       "arithmetic with a number, on raw values",
       {Choice("op", {"add", "subtract", "multiply", "divide"}, "what to do with the value"),
        Number("value", "raw", "", "the number"),
        Flag("cut-minus", "0", "1: negative results of subtract become 0")},
       true,
       Calculate},
      {"canvas",
       "changes the size without scaling: cuts edges off, or adds some",
       {Integer("width", "pixels", "", 1, kLargestSide, "of the result"),
        Integer("height", "pixels", "", 1, kLargestSide, "of the result"),
        Choice("anchor",
               {"centre", "top-left", "top", "top-right", "left", "right", "bottom-left", "bottom",
                "bottom-right"},
               "the place in the result where the image lies"),
        PerPlane("fill", "0-255", "0", -1e6, 1e6, "of the pixels that are added")},
       false,
       Canvas},
      {"crop",
       "cuts a window out",
       {Rect("rect", "the pixels that stay; right and bottom are exclusive")},
       false,
       Crop},
      {"curve",
       "a tone curve on the range from black to white, sampled into a table",
       {Points("points", "0:0,1:1",
               "x:y,x:y...: x from 0 (black) to 1 (white), y limited to 0 to 1; for all planes"),
        Optional(Points("red", "", "the same for the first plane of a colour image, before `points`")),
        Optional(Points("green", "", "for the second")), Optional(Points("blue", "", "for the third")),
        Choice(
            "kind", {"spline", "line"},
            "between points: a natural cubic spline, limited to 0 to 1 where it overshoots; straight lines"),
        Integer("entries", "", "65536", 2, 1 << 20, "of the table: so many tones come out")},
       true,
       Curve,
       1e-3},  // a pixel at the edge of an entry may fall to either side
      {"cut-off",
       "replaces pixels at or beyond the levels",
       {Optional(Number("low", "raw", "", "for pixels at or below black; black when not given")),
        Optional(Number("high", "raw", "", "for pixels at or above white; white when not given"))},
       true,
       CutOff},
      {"cut-to-levels", "limits each pixel to black and white", {}, false, CutToLevels},
      {"dark", "subtracts a dark frame, limited at 0", {File("file", "the dark frame")}, false, Dark},
      {"dark-flat",
       "subtracts a dark, limited at 0, and divides by a flat",
       {Optional(File("dark", "the dark frame")), Optional(File("flat", "the flat frame")),
        Number("gamma", "", "0", "curve of the flat; 0 takes it as it is", 0, 100),
        Number("offset", "", "0", "share of the flat's mean that is added to the divisor", -1, 100)},
       true,
       DarkFlat},
      {"expansion",
       "unfolds the disc of a planet into a map of equal degrees, twice as wide as high",
       {Number("radius", "pixels", "", "of the disc at its equator", 1, kFar),
        Optional(
            Number("centre-x", "pixels", "", "of the disc; the image's middle when left out", -kFar, kFar)),
        Optional(
            Number("centre-y", "pixels", "", "of the disc; the image's middle when left out", -kFar, kFar)),
        Number("tilt-y", "degrees", "0", "by which the north pole is tipped towards the viewer", -360, 360),
        Number("tilt-x", "degrees", "0", "by which the north pole is then turned to the left", -360, 360),
        Number("oblateness", "", "1", "polar radius in equatorial ones", 0.01, 1),
        Integer("width", "pixels", "720", 2, kLargestSide, "of the map"),
        Flag("grid", "0", "1: meridians and parallels by 30 degrees")},
       false,
       Expand},
      {"flat",
       "divides by a flat frame and multiplies by its mean",
       {File("file", "the flat frame"),
        Number("gamma", "", "0", "curve of the flat; 0 takes it as it is", 0, 100),
        Number("offset", "", "0", "with a gamma: share of the flat's mean that is added to the divisor", -1,
               100)},
       false,
       Flat,
       std::nullopt},
      {"flip",
       "mirrors the image",
       {Choice("axis", {"top-bottom", "left-right"}, "what changes places")},
       false,
       Flip},
      {"gaussian", "blurs by a Gaussian",
       WithBand(
           {PerPlane("sigma", "pixels", "1", 0, 1000, "standard deviation; 0 leaves the plane as it is")}),
       true, Gaussian, std::nullopt},
      {"h-alpha",
       "a curve for the sun in H-alpha: lifts what is faint beside the disc",
       {Number("knee", "0-1", "0.2",
               "below this share of the range, tones run along a line from 0 to the gain", 0, 1),
        Number("gain", "0-1", "0.8", "where that line ends", 0, 1000)},
       true,
       HAlpha,
       std::nullopt},
      {"h-alpha-level",
       "sets black to the smallest pixel and white to a multiple of the largest; no pixel changes",
       {Number("factor", "", "1", "the multiple", 0, 1e6)},
       false,
       HAlphaLevel},
      {"invert", "turns the image over: black becomes white", {}, true, Invert},
      {"laplacian",
       "edges: the size of the Laplacian, above the first plane's black",
       {Choice("mode", {"cross", "3x3", "product"},
               "by 4 neighbours; by 8; second differences along both axes, one of the other")},
       true,
       Laplacian},
      {"level",
       "sets black and white; no pixel changes",
       {PerPlane("min", "raw", "", -1e30, 1e30, "shown as black"),
        PerPlane("max", "raw", "", -1e30, 1e30, "shown as white")},
       false,
       Level},
      {"lift-up",
       "moves the image up",
       {Integer("lines", "pixels", "", 0, kFar, "by so many rows")},
       false,
       LiftUp,
       std::nullopt},
      {"maximum",
       "the largest pixel in the disc about each pixel",
       {Radius("of the disc; contiguous stores round it up and take 10 at most")},
       true,
       Maximum},
      {"mean", "the mean of a square about each pixel; with a band of levels, of a disc",
       WithBand({Radius("of the disc, or half the square's side"),
                 PerPlane("weight", "", "1", 0, 1e6, "of each neighbour against the pixel's 1")}),
       true, Mean},
      {"mean-without-edge",
       "the mean of a square about each pixel where the image is flat, and the pixel itself at edges",
       WithBand({Radius("half the square's side"),
                 PerPlane("weight", "", "1", 0, 1e6, "of each neighbour against the pixel's 1")}),
       true, MeanWithoutEdge},
      {"median", "the median of the disc about each pixel", WithBand({Radius("of the disc")}), true, Median},
      {"minimum",
       "the smallest pixel in the disc about each pixel",
       {Radius("of the disc; contiguous stores round it up and take 10 at most")},
       true,
       Minimum},
      {"mosaic",
       "joins a second image to this one, on a canvas that holds both",
       {File("file", "the second image"),
        Number("x", "pixels", "0", "of the second image's top left corner, from this one's", -kFar, kFar),
        Number("y", "pixels", "0", "of the same corner", -kFar, kFar),
        Number("angle", "degrees", "0",
               "by which the second is turned about its middle, clockwise on the screen", -360, 360),
        Choice("mode", {"second", "transparent", "brighter", "darker"},
               "what shows where both lie: the second; this one where the second has the transparent value; "
               "the larger pixel; the smaller"),
        PerPlane("transparent", "raw", "0", -1e30, 1e30, "value of the second that lets this image through"),
        Flag("average", "0", "1: the mean shows everywhere, of the fill where one is missing"),
        Flag("match-levels", "0", "1: each image is read by its own black and white"),
        PerPlane("fill", "0-255", "0", -1e6, 1e6, "where neither lies")},
       false,
       Join},
      {"paste",
       "copies a window of another image of the same size",
       {File("file", "the other image")},
       true,
       Paste},
      {"rank",
       "the pixel of a given rank in the disc about each pixel",
       {Radius("of the disc; for the smallest and the largest as minimum and maximum have it"),
        PerPlane("rank", "", "", 0, 1e7,
                 "0: the smallest; the largest is the number of pixels in the disc less 1")},
       true,
       Rank},
      {"rebase-to-zero",
       "moves black to 0, cuts what is below, and gives all planes one range",
       {},
       false,
       RebaseToZero},
      {"rotate",
       "turns the image; quarter and half turns are exact",
       {Number("degrees", "degrees", "", "a positive angle turns the picture clockwise on the screen", -1e6,
               1e6),
        Kernel(""), Flag("expand", "1", "1: the canvas grows to hold the corners; 0: it keeps its size"),
        Integer("outside", "0-255", "0", 0, 255,
                "of the pixels that the image does not reach, by plane 0's levels")},
       false,
       Rotate,
       std::nullopt},
      {"scale",
       "changes the number of pixels; to make an image much smaller, bin it first",
       {Optional(
            Integer("width", "pixels", "", 1, kLargestSide, "of the result; in proportion when left out")),
        Optional(
            Integer("height", "pixels", "", 1, kLargestSide, "of the result; in proportion when left out")),
        Optional(Number("factor", "", "", "of both sides, in place of width and height", 0.001, 1000)),
        Kernel("; bicubic is softer on contiguous stores (slope -0.1) than on paged ones (-0.5)")},
       false,
       Scale},
      {"scroll",
       "shifts the image around its edges; world coordinates are those of the pixels that stay inside",
       {Integer("x", "pixels", "0", -1e6, 1e6, "to the right; a negative number to the left"),
        Integer("y", "pixels", "0", -1e6, 1e6, "down; a negative number up")},
       false,
       Scroll},
      {"small-median", "the median of a pixel and its nearest neighbours", {Mode()}, true, SmallMedian},
      {"small-rank",
       "the pixel of a given rank among a pixel and its nearest neighbours",
       {Integer("rank", "", "0", 0, 20, "0: the smallest; the largest is 4 for cross, 8 for 3x3, 20 for 5x5"),
        Mode()},
       true,
       SmallRank},
      {"small-unsharp",
       "sharpens by the difference from the mean of the nearest neighbours",
       {PerPlane("strength", "", "1", -1e6, 1e6, "what the difference is multiplied by"), Mode(),
        PerPlane("weight", "", "1", 0, 1e6, "of each neighbour against the pixel's 1"),
        PerPlane("threshold", "", "0", 0, 1e6, "share by which a pixel must differ from the plain mean")},
       true,
       SmallUnsharp},
      {"synthesize-dark",
       "makes a dark for other conditions out of this one and a second",
       {File("file", "the second dark"),
        Choice("method", {"proportion", "power", "score"},
               "linear in both quantities; powers of 2 in b; by a score"),
        Number("a1", "", "0", "first quantity (such as temperature) of this dark"),
        Number("a2", "", "1", "of the second"), Number("a", "", "0.5", "of the dark wanted"),
        Number("b1", "", "0", "second quantity (such as exposure) of this dark"),
        Number("b2", "", "1", "of the second"), Number("b", "", "0", "of the dark wanted"),
        Number("step", "", "1", "power: what doubles the signal"),
        Number("score1", "", "0", "score of this dark"), Number("score2", "", "1", "of the second"),
        Number("score", "", "0.5", "of the dark wanted")},
       false,
       SynthesizeDark},
      {"threshold",
       "replaces pixels by a condition",
       {Choice("condition", {"equal", "not-equal", "greater", "less", "less-or-equal"},
               "against the threshold"),
        Number("threshold", "raw", "", "what pixels are compared with"),
        Number("value", "raw", "0", "what they become"), Integer("plane", "", "-1", -1, 2, "-1: all planes")},
       false,
       Threshold},
      {"to-colour", "makes three planes of one", {}, false, ToColour},
      {"to-gray", "makes one plane of luminance", {}, false, ToGray},
  };
  return table;
}

}  // namespace korimg::session
