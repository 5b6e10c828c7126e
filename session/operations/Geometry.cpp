// Operations that move pixels: each takes the header along.
#include "session/files/Geometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <fmt/format.h>

#include "korimg/geometry/CImgCrop.h"
#include "korimg/geometry/CImgExpansion.h"
#include "korimg/geometry/CImgFlip.h"
#include "korimg/geometry/CImgMosaic.h"
#include "korimg/geometry/CImgResize.h"
#include "korimg/geometry/CImgResolution.h"
#include "korimg/geometry/CImgRotate.h"
#include "korimg/geometry/CImgScroll.h"
#include "korimg/geometry/CImgSoftBinning.h"

#include "session/operations/Describe.h"
#include "session/operations/Kernels.h"

namespace korimg::session {
namespace {

using files::AffineMap;

files::ImageSize SizeOf(const Call& call) {
  return {call.image->GetWidth(), call.image->GetHeight(), call.image->GetPlanes()};
}

[[noreturn]] void RefuseMosaic(const Call& call) {
  throw UsageError(
      fmt::format("{}: the image is an undeveloped mosaic, whose colours this would mix up; develop it first",
                  call.Name()));
}

/// Takes the header along with pixels that go to an image of another size.
void Move(Call& call, const files::ImageSize& before, int width, int height, const AffineMap& map) {
  if (!files::MoveHeader(call.header, before, {width, height, before.planes}, map)) RefuseMosaic(call);
}

/// The same where the size stays.
void Move(Call& call, const AffineMap& map) {
  Move(call, SizeOf(call), call.image->GetWidth(), call.image->GetHeight(), map);
}

constexpr double kFar = 1e6;  // pixels
constexpr int kLargestSide = files::kMaxSide;

enum Place : int { kFirst, kMiddle, kLast };

/// Lays the image on a new canvas; columns and rows as CImgResize's anchors have them.
void LayOn(Call& call, int width, int height, Place column, Place row, std::vector<float> fill) {
  const auto shift = [](int size, int newSize, Place place) {
    return place == kFirst ? 0 : place == kMiddle ? (newSize - size) / 2 : newSize - size;
  };
  const auto before = SizeOf(call);
  Move(call, before, width, height,
       AffineMap::Shift(shift(before.width, width, column), shift(before.height, height, row)));
  call.Replace<CImgResize>([&](CImgResize& target) {
    return target.Do(width, height, 3 * row + column, fill.data(), call.image.get(), kShow);
  });
}

/// Turns by 90 degrees, clockwise or not.
void QuarterTurn(Call& call, bool clockwise) {
  const auto before = SizeOf(call);
  Move(call, before, before.height, before.width,
       clockwise ? AffineMap{0, -1, 1, 0, before.height - 1.0, 0}
                 : AffineMap{0, 1, -1, 0, 0, before.width - 1.0});
  call.Replace<CImgRotate>(
      [&](CImgRotate& target) { return target.Do90(clockwise, call.image.get(), kShow); });
}

void HalfTurn(Call& call) {
  Move(call, {-1, 0, 0, -1, call.image->GetWidth() - 1.0, call.image->GetHeight() - 1.0});
  call.Replace<CImgRotate>([&](CImgRotate& target) { target.Do180(call.image.get(), kShow); });
}

void TurnBy(Call& call, double degrees, int grey, bool expand, CInterp::Method method) {
  const auto before = SizeOf(call);
  // Where a picture of odd size turns about depends on the store.
  const bool contiguous = call.image->GetAllocationPolicy() != CVmManager::Paged;
  const auto middle = [&](int size) { return contiguous ? size * 0.5 : size / 2; };
  const double centreX = middle(before.width), centreY = middle(before.height);
  const auto colour = static_cast<unsigned long>(grey) * 0x010101UL;
  call.Replace<CImgRotate>([&](CImgRotate& target) {
    return target.Do(degrees, colour, call.image.get(), expand, method, kShow);
  });
  const auto after = SizeOf(call);
  const double sine = std::sin(degrees * std::numbers::pi / 180),
               cosine = std::cos(degrees * std::numbers::pi / 180);
  const AffineMap map = AffineMap::Shift(-centreX, -centreY)
                            .Then({cosine, -sine, sine, cosine})
                            .Then(AffineMap::Shift(centreX + (after.width - before.width) * 0.5,
                                                   centreY + (after.height - before.height) * 0.5));
  Move(call, before, after.width, after.height, map);
}

struct BinOptions {
  int binX = 2, binY = 2;
  bool roundUp = false, scaleLevels = true;
};

void Bin(Call& call, const BinOptions& options) {
  const int binX = options.binX, binY = options.binY;
  const auto before = SizeOf(call);
  if (binX > before.width || binY > before.height) {
    throw UsageError(fmt::format("bin: cells of {} x {} are larger than the image, {} x {}", binX, binY,
                                 before.width, before.height));
  }
  call.Replace<CImgSoftBinning>([&](CImgSoftBinning& target) {
    return target.Do(binX, binY, options.roundUp, options.scaleLevels, call.image.get(), kShow);
  });
  const auto centre = [](int bin) { return 0.5 / bin - 0.5; };
  Move(call, before, call.image->GetWidth(), call.image->GetHeight(),
       {1.0 / binX, 0, 0, 1.0 / binY, centre(binX), centre(binY)});
  for (const auto& [count, origin, bin] :
       {std::tuple("XBINNING", "XORGSUBF", binX), {"YBINNING", "YORGSUBF", binY}}) {
    call.header.Set(count, call.header.GetDouble(count).value_or(1) * bin);
    if (const auto first = call.header.GetDouble(origin)) call.header.Set(origin, std::floor(*first / bin));
  }
}

/// Where the image lies on a canvas: the library's places, by rows.
enum class Anchor : int { TopLeft, Top, TopRight, Left, Centre, Right, BottomLeft, Bottom, BottomRight };

struct CanvasOptions {
  int width = 0, height = 0;
  Anchor anchor = Anchor::Centre;
  PerPlane fill = 0;
};

void Canvas(Call& call, const CanvasOptions& options) {
  const int anchor = static_cast<int>(options.anchor);
  LayOn(call, options.width, options.height, Place(anchor % 3), Place(anchor / 3),
        options.fill.For<float>(call.image->GetPlanes()));
}

struct CropOptions {
  CRect rect;
};

void Crop(Call& call, const CropOptions& options) {
  const CRect rect = options.rect;
  const auto before = SizeOf(call);
  if (rect.left < 0 || rect.top < 0 || rect.right > before.width || rect.bottom > before.height) {
    throw UsageError(fmt::format("crop: {},{},{},{} is not inside the image, {} x {}", rect.left, rect.top,
                                 rect.right, rect.bottom, before.width, before.height));
  }
  for (const char* origin : {"XORGSUBF", "YORGSUBF"}) {
    if (!call.header.GetDouble(origin)) call.header.Set(origin, 0);
  }
  Move(call, before, rect.Width(), rect.Height(), AffineMap::Shift(-rect.left, -rect.top));
  call.Replace<CImgCrop>([&](CImgCrop& target) { return target.Do(rect, call.image.get(), kShow); });
}

struct ExpansionOptions {
  double radius = 0;
  std::optional<double> centreX, centreY;
  double tiltY = 0, tiltX = 0, oblateness = 1;
  int width = 720;
  bool grid = false;
};

void Expand(Call& call, const ExpansionOptions& options) {
  const double centreX = options.centreX.value_or((call.image->GetWidth() - 1) * 0.5);
  const double centreY = options.centreY.value_or((call.image->GetHeight() - 1) * 0.5);
  if (!files::DropWorldCoordinates(call.header, SizeOf(call), "the image is a map of a planet")) {
    RefuseMosaic(call);
  }
  for (const char* size : {"XPIXSZ", "YPIXSZ", "PIXSIZE1", "PIXSIZE2", "SCALE", "PIXSCALE"}) {
    call.header.Remove(size);
  }
  call.Replace<CImgExpansion>([&](CImgExpansion& target) {
    if (!target.ChangeSize(options.width, options.width / 2, nullptr)) return 0;
    target.Do(call.image.get(), centreX, centreY, options.radius, options.tiltY, options.tiltX,
              options.oblateness, options.grid, nullptr, kShow);
    return 1;
  });
}

/// What changes places, by the library's numbers.
enum class Axis : int { TopBottom, LeftRight };

struct FlipOptions {
  Axis axis = Axis::TopBottom;
};

void Flip(Call& call, const FlipOptions& options) {
  const double right = call.image->GetWidth() - 1.0, bottom = call.image->GetHeight() - 1.0;
  Move(call, options.axis == Axis::TopBottom ? AffineMap{1, 0, 0, -1, 0, bottom}
                                             : AffineMap{-1, 0, 0, 1, right, 0});
  call.Replace<CImgFlip>(
      [&](CImgFlip& target) { target.Do(static_cast<int>(options.axis), call.image.get(), kShow); });
}

/// What shows where both images lie, by the library's numbers.
enum class Shows : int { Second, Transparent, Brighter, Darker };

struct MosaicOptions {
  ImageValue file;
  double x = 0, y = 0, angle = 0;
  Shows mode = Shows::Second;
  PerPlane transparent = 0;
  bool average = false, matchLevels = false;
  PerPlane fill = 0;
};

void Join(Call& call, const MosaicOptions& options) {
  const auto second = call.LoadAnySize(options.file);
  const auto size = SizeOf(call);
  if (second->GetPlanes() != size.planes) {
    throw UsageError(
        fmt::format("mosaic: the file has {} planes and the image {}; change one by to-colour or to-gray",
                    second->GetPlanes(), size.planes));
  }
  if (!files::DropWorldCoordinates(call.header, size, "the image is a mosaic of two")) RefuseMosaic(call);
  second->SetDefaultCenter();
  const double x = options.x, y = options.y, angle = options.angle;
  const double sine = std::sin(angle * std::numbers::pi / 180),
               cosine = std::cos(angle * std::numbers::pi / 180);
  const CfPoint centre = second->GetStdCtr();
  double left = 0, top = 0, right = size.width, bottom = size.height;
  for (const double u : {-centre.fx, second->GetWidth() - centre.fx}) {
    for (const double v : {-centre.fy, second->GetHeight() - centre.fy}) {
      const double cornerX = x + centre.fx + cosine * u - sine * v,
                   cornerY = y + centre.fy + sine * u + cosine * v;
      left = std::min(left, cornerX), right = std::max(right, cornerX);
      top = std::min(top, cornerY), bottom = std::max(bottom, cornerY);
    }
  }
  const double firstX = -std::floor(left), firstY = -std::floor(top);
  const double width = firstX + std::ceil(right), height = firstY + std::ceil(bottom);
  if (width > files::kMaxSide || height > files::kMaxSide) {
    throw UsageError(fmt::format("mosaic: a canvas of {} x {} is too large; the most is {} on a side", width,
                                 height, files::kMaxSide));
  }
  auto transparent = options.transparent.For<float>(size.planes), fill = options.fill.For<float>(size.planes);
  for (int p = 0; p < size.planes && !options.matchLevels; ++p) {
    fill[p] = call.image->ToRaw(fill[p], p);
  }
  call.Replace<CImgMosaic>([&](CImgMosaic& target) {
    if (!target.ChangeSize(static_cast<int>(width), static_cast<int>(height), nullptr)) return 0;
    target.Do(call.image.get(), static_cast<int>(firstX), static_cast<int>(firstY), second.get(), firstX + x,
              firstY + y, angle, static_cast<int>(options.mode), transparent.data(), fill.data(),
              options.matchLevels, options.average, nullptr, kShow);
    return 1;
  });
}

struct LiftUpOptions {
  int lines = 0;
};

void LiftUp(Call& call, const LiftUpOptions& options) {
  Move(call, AffineMap::Shift(0, -options.lines));
  call.image->LiftUp(options.lines);
}

struct RotateOptions {
  double degrees = 0;
  CInterp::Method method = CInterp::MethodBilinear;
  bool expand = true;
  int outside = 0;
};

void Rotate(Call& call, const RotateOptions& options) {
  double degrees = std::fmod(options.degrees, 360);
  if (degrees < 0) degrees += 360;
  if (degrees == 180) return HalfTurn(call);
  if (degrees != 90 && degrees != 270) {
    if (degrees != 0) TurnBy(call, degrees, options.outside, options.expand, options.method);
    return;
  }
  const auto before = SizeOf(call);
  QuarterTurn(call, degrees == 90);
  if (options.expand) return;
  std::vector<float> fill(before.planes);
  for (int p = 0; p < before.planes; ++p) {
    fill[p] = call.image->To256(call.image->ToRaw(static_cast<float>(options.outside), 0), p);
  }
  LayOn(call, before.width, before.height, kMiddle, kMiddle, fill);
}

struct ScaleOptions {
  std::optional<int> width, height;
  std::optional<double> factor;
  CInterp::Method method = CInterp::MethodBilinear;
};

void Scale(Call& call, const ScaleOptions& options) {
  const auto before = SizeOf(call);
  const bool bySide = options.width || options.height;
  if (bySide == options.factor.has_value()) {
    throw UsageError("scale: give width, height or both of them, or a factor");
  }
  double factorX = 1, factorY = 1;
  if (!bySide) {
    factorX = factorY = *options.factor;
  } else {
    factorX = 1.0 * (options.width ? *options.width : *options.height) /
              (options.width ? before.width : before.height);
    factorY = options.height ? 1.0 * *options.height / before.height : factorX;
  }
  const auto side = [](int size, double factor) { return std::max(std::round(size * factor), 1.0); };
  const double width = side(before.width, factorX), height = side(before.height, factorY);
  if (width > files::kMaxSide || height > files::kMaxSide) {
    throw UsageError(
        fmt::format("scale: {} x {} is too large; the most is {} on a side", width, height, files::kMaxSide));
  }
  const int newWidth = static_cast<int>(width), newHeight = static_cast<int>(height);
  Move(call, before, newWidth, newHeight, {width / before.width, 0, 0, height / before.height});
  call.Replace<CImgResolution>([&](CImgResolution& target) {
    // On paged stores this one repeats the edge, where Bilinear would go on beyond it.
    return target.DoChange(call.image.get(), newWidth, newHeight, options.method, kShow);
  });
}

struct ScrollOptions {
  int x = 0, y = 0;
};

void Scroll(Call& call, const ScrollOptions& options) {
  const int x = options.x % call.image->GetWidth(), y = options.y % call.image->GetHeight();
  Move(call, AffineMap::Shift(x, y));
  for (const bool horizontal : {true, false}) {
    const int amount = horizontal ? x : y;
    if (amount == 0) continue;
    call.Replace<CImgScroll>(
        [&](CImgScroll& target) { target.Do(amount, horizontal, call.image.get(), kShow); });
  }
}

template <class O>
Describe<O>& TakesKernel(Describe<O>& description, const std::string& more = "") {
  return description.Chooses("method", &O::method, kKernels,
                             "how pixels are read between their centres" + more);
}

}  // namespace

std::vector<Operation> GeometryOperations() {
  Describe<RotateOptions> rotate("rotate", "turns the image; quarter and half turns are exact",
                                 "Brings north up, or a horizon level. Other angles read between the pixels, "
                                 "which smooths noise a little: "
                                 "turn once, by the whole angle. To align frames use register and stack.");
  rotate
      .Takes("degrees", &RotateOptions::degrees,
             {"a positive angle turns the picture clockwise on the screen", "degrees", -1e6, 1e6})
      .Required();
  Describe<ScaleOptions> scale("scale",
                               "changes the number of pixels; to make an image much smaller, bin it first",
                               "For pictures of a wanted size, and to bring cameras of different pixels "
                               "together. No detail is gained by "
                               "making an image larger.");
  scale
      .Takes("width", &ScaleOptions::width,
             {"of the result; in proportion when left out", "pixels", 1, kLargestSide})
      .Takes("height", &ScaleOptions::height,
             {"of the result; in proportion when left out", "pixels", 1, kLargestSide})
      .Takes("factor", &ScaleOptions::factor,
             {"of both sides, in place of width and height", "", 0.001, 1000});
  return {
      Describe<BinOptions>("bin", "adds the pixels of cells up to one pixel each",
                           "Trades resolution for signal where a night was blurred or the pixels are small: "
                           "noise falls, and files shrink. Values add up; the levels follow unless told "
                           "otherwise. A mosaic must be developed first.")
          .Takes("bin-x", &BinOptions::binX, {"width of a cell", "pixels", 1, 1000})
          .Takes("bin-y", &BinOptions::binY, {"height of a cell", "pixels", 1, 1000})
          .Takes("round-up", &BinOptions::roundUp, {"1: cells that the edges cut become pixels too"})
          .Takes("scale-levels", &BinOptions::scaleLevels,
                 {"1: black and white are multiplied by the number of pixels in a cell"})
          .Header(HeaderEffect::Moves)
          .Example("bin-x=2 bin-y=3")
          .KeepsSource()
          .Runs(Bin),
      Describe<CanvasOptions>("canvas", "changes the size without scaling: cuts edges off, or adds some",
                              "Gives pictures one size without touching a pixel that stays, or makes room "
                              "around an image for a mosaic.")
          .Takes("width", &CanvasOptions::width, {"of the result", "pixels", 1, kLargestSide})
          .Required()
          .Takes("height", &CanvasOptions::height, {"of the result", "pixels", 1, kLargestSide})
          .Required()
          .Chooses("anchor", &CanvasOptions::anchor,
                   {{"centre", Anchor::Centre},
                    {"top-left", Anchor::TopLeft},
                    {"top", Anchor::Top},
                    {"top-right", Anchor::TopRight},
                    {"left", Anchor::Left},
                    {"right", Anchor::Right},
                    {"bottom-left", Anchor::BottomLeft},
                    {"bottom", Anchor::Bottom},
                    {"bottom-right", Anchor::BottomRight}},
                   "the place in the result where the image lies")
          .Takes("fill", &CanvasOptions::fill, {"of the pixels that are added", "0-255", -1e6, 1e6})
          .Header(HeaderEffect::Moves)
          .Example("width=120 height=90 anchor=bottom-right fill=10")
          .Runs(Canvas),
      Describe<CropOptions>(
          "crop", "cuts a window out",
          "Takes off the edges that not all frames of a stack share, or what distracts. World "
          "coordinates stay right.")
          .Takes("rect", &CropOptions::rect,
                 {"the pixels that stay; right and bottom are exclusive", "pixels"})
          .Header(HeaderEffect::Moves)
          .Example("rect=11,7,80,66")
          .KeepsSource()
          .Runs(Crop),
      Describe<ExpansionOptions>(
          "expansion", "unfolds the disc of a planet into a map of equal degrees, twice as wide as high",
          "Makes maps of Jupiter or Mars whose features can be measured in longitude and latitude, and "
          "compared "
          "from night to night. Towards the limb there is little to unfold.")
          .Takes("radius", &ExpansionOptions::radius, {"of the disc at its equator", "pixels", 1, kFar})
          .Required()
          .Takes("centre-x", &ExpansionOptions::centreX,
                 {"of the disc; the image's middle when left out", "pixels", -kFar, kFar})
          .Takes("centre-y", &ExpansionOptions::centreY,
                 {"of the disc; the image's middle when left out", "pixels", -kFar, kFar})
          .Takes("tilt-y", &ExpansionOptions::tiltY,
                 {"by which the north pole is tipped towards the viewer", "degrees", -360, 360})
          .Takes("tilt-x", &ExpansionOptions::tiltX,
                 {"by which the north pole is then turned to the left", "degrees", -360, 360})
          .Takes("oblateness", &ExpansionOptions::oblateness,
                 {"polar radius in equatorial ones", "", 0.01, 1})
          .Takes("width", &ExpansionOptions::width, {"of the map", "pixels", 2, kLargestSide})
          .Takes("grid", &ExpansionOptions::grid, {"1: meridians and parallels by 30 degrees"})
          .Header(HeaderEffect::DropsPlaces)
          .Example("radius=30 tilt-y=3 tilt-x=-12 oblateness=0.935 width=90 grid=1")
          .KeepsSource()
          .Runs(Expand),
      Describe<FlipOptions>(
          "flip", "mirrors the image",
          "Undoes the mirror of a diagonal or of a program that counts rows from below. World "
          "coordinates stay right.")
          .Chooses("axis", &FlipOptions::axis,
                   {{"top-bottom", Axis::TopBottom}, {"left-right", Axis::LeftRight}}, "what changes places")
          .Header(HeaderEffect::Moves)
          .Example("axis=left-right")
          .KeepsSource()
          .Runs(Flip),
      Describe<LiftUpOptions>(
          "lift-up", "moves the image up",
          "Takes rows off the top without changing the size, as some sensors read lines that "
          "hold no image. What is set free below repeats the last row on contiguous stores, and "
          "keeps its old pixels on paged ones.")
          .Takes("lines", &LiftUpOptions::lines, {"by so many rows", "pixels", 0, kFar})
          .Required()
          .Header(HeaderEffect::Moves)
          .StoresAgree(std::nullopt)
          .Example("lines=7")
          .Runs(LiftUp),
      Describe<MosaicOptions>(
          "mosaic", "joins a second image to this one, on a canvas that holds both",
          "Puts panels of the moon or of a wide field together where their places are known. "
          "It matches levels, not gradients: take these off first.")
          .Takes("file", &MosaicOptions::file, {"the second image"})
          .Takes("x", &MosaicOptions::x,
                 {"of the second image's top left corner, from this one's", "pixels", -kFar, kFar})
          .Takes("y", &MosaicOptions::y, {"of the same corner", "pixels", -kFar, kFar})
          .Takes("angle", &MosaicOptions::angle,
                 {"by which the second is turned about its middle, clockwise on the screen", "degrees", -360,
                  360})
          .Chooses("mode", &MosaicOptions::mode,
                   {{"second", Shows::Second},
                    {"transparent", Shows::Transparent},
                    {"brighter", Shows::Brighter},
                    {"darker", Shows::Darker}},
                   "what shows where both lie: the second; this one where the second has the transparent "
                   "value; the larger pixel; the smaller")
          .Takes("transparent", &MosaicOptions::transparent,
                 {"value of the second that lets this image through", "raw", -1e30, 1e30})
          .Takes("average", &MosaicOptions::average,
                 {"1: the mean shows everywhere, of the fill where one is missing"})
          .Takes("match-levels", &MosaicOptions::matchLevels,
                 {"1: each image is read by its own black and white"})
          .Takes("fill", &MosaicOptions::fill, {"where neither lies", "0-255", -1e6, 1e6})
          .Header(HeaderEffect::DropsPlaces)
          .Example("file=other.fits x=60 y=-12 angle=3 mode=brighter match-levels=1")
          .Runs(Join),
      TakesKernel(rotate)
          .Takes("expand", &RotateOptions::expand,
                 {"1: the canvas grows to hold the corners; 0: it keeps its size"})
          .Takes("outside", &RotateOptions::outside,
                 {"of the pixels that the image does not reach, by plane 0's levels", "0-255", 0, 255})
          .Header(HeaderEffect::Moves)
          .StoresAgree(std::nullopt)
          .Example("degrees=12.5 method=bicubic")
          .Runs(Rotate),
      TakesKernel(scale, "; bicubic is softer on contiguous stores (slope -0.1) than on paged ones (-0.5)")
          .Header(HeaderEffect::Moves)
          .StoresAgree(std::nullopt)  // bicubic
          .Example("factor=1.5")
          .Runs(Scale),
      Describe<ScrollOptions>(
          "scroll",
          "shifts the image around its edges; world coordinates are those of the pixels that stay inside",
          "What leaves at one edge comes in at the other, as periodic images want it, such as spectra of a "
          "Fourier transform. To shift a picture of the sky use canvas or crop.")
          .Takes("x", &ScrollOptions::x, {"to the right; a negative number to the left", "pixels", -1e6, 1e6})
          .Takes("y", &ScrollOptions::y, {"down; a negative number up", "pixels", -1e6, 1e6})
          .Header(HeaderEffect::Moves)
          .Example("x=13 y=-8")
          .Runs(Scroll),
  };
}

}  // namespace korimg::session
