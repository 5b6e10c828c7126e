#include "session/operations/internal/Geometry.h"

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

#include "session/files/Geometry.h"

namespace korimg::session {
namespace {

using files::AffineMap;

constexpr int kShow = 1;

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

/// The image becomes what make(target) makes of it. make answers 0 when there is no room.
template <class Target, class F>
void Replace(Call& call, F&& make) {
  auto target = call.NewTarget<Target>();
  if (!make(*target)) throw velora::CVmMemoryAllocationError("no room for the result");
  call.image = std::move(target);
}

enum Place : int { kFirst, kMiddle, kLast };

/// Lays the image on a new canvas; columns and rows as CImgResize's anchors have them.
void LayOn(Call& call, int width, int height, Place column, Place row, std::vector<float> fill) {
  const auto shift = [](int size, int newSize, Place place) {
    return place == kFirst ? 0 : place == kMiddle ? (newSize - size) / 2 : newSize - size;
  };
  const auto before = SizeOf(call);
  Move(call, before, width, height,
       AffineMap::Shift(shift(before.width, width, column), shift(before.height, height, row)));
  Replace<CImgResize>(call, [&](CImgResize& target) {
    return target.Do(width, height, 3 * row + column, fill.data(), call.image.get(), kShow);
  });
}

/// Turns by 90 degrees, clockwise or not.
void QuarterTurn(Call& call, bool clockwise) {
  const auto before = SizeOf(call);
  Move(call, before, before.height, before.width,
       clockwise ? AffineMap{0, -1, 1, 0, before.height - 1.0, 0}
                 : AffineMap{0, 1, -1, 0, 0, before.width - 1.0});
  Replace<CImgRotate>(call,
                      [&](CImgRotate& target) { return target.Do90(clockwise, call.image.get(), kShow); });
}

void HalfTurn(Call& call) {
  Move(call, {-1, 0, 0, -1, call.image->GetWidth() - 1.0, call.image->GetHeight() - 1.0});
  Replace<CImgRotate>(call, [&](CImgRotate& target) {
    target.Do180(call.image.get(), kShow);
    return 1;
  });
}

void TurnBy(Call& call, double degrees, int grey, bool expand, int method) {
  const auto before = SizeOf(call);
  // Where a picture of odd size turns about depends on the store.
  const bool contiguous = call.image->GetAllocationPolicy() != CVmManager::Paged;
  const auto middle = [&](int size) { return contiguous ? size * 0.5 : size / 2; };
  const double centreX = middle(before.width), centreY = middle(before.height);
  const auto colour = static_cast<unsigned long>(grey) * 0x010101UL;
  Replace<CImgRotate>(call, [&](CImgRotate& target) {
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

}  // namespace

void Bin(Call& call) {
  const int binX = call.Integer("bin-x"), binY = call.Integer("bin-y"), roundUp = call.Integer("round-up");
  const auto before = SizeOf(call);
  if (binX > before.width || binY > before.height) {
    throw UsageError(fmt::format("bin: cells of {} x {} are larger than the image, {} x {}", binX, binY,
                                 before.width, before.height));
  }
  Replace<CImgSoftBinning>(call, [&](CImgSoftBinning& target) {
    return target.Do(binX, binY, roundUp, call.Integer("scale-levels"), call.image.get(), kShow);
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

void Canvas(Call& call) {
  // The names begin with the place that is wanted most; the library's places go by rows.
  constexpr int kAnchors[] = {4, 0, 1, 2, 3, 5, 6, 7, 8};
  const int anchor = kAnchors[call.Choice("anchor")];
  LayOn(call, call.Integer("width"), call.Integer("height"), Place(anchor % 3), Place(anchor / 3),
        call.PerPlane("fill"));
}

void Crop(Call& call) {
  const CRect rect = call.Rect("rect");
  const auto before = SizeOf(call);
  if (rect.left < 0 || rect.top < 0 || rect.right > before.width || rect.bottom > before.height) {
    throw UsageError(fmt::format("crop: {},{},{},{} is not inside the image, {} x {}", rect.left, rect.top,
                                 rect.right, rect.bottom, before.width, before.height));
  }
  for (const char* origin : {"XORGSUBF", "YORGSUBF"}) {
    if (!call.header.GetDouble(origin)) call.header.Set(origin, 0);
  }
  Move(call, before, rect.Width(), rect.Height(), AffineMap::Shift(-rect.left, -rect.top));
  Replace<CImgCrop>(call, [&](CImgCrop& target) { return target.Do(rect, call.image.get(), kShow); });
}

void Expand(Call& call) {
  const int width = call.Integer("width");
  const double centreX = call.Has("centre-x") ? call.Number("centre-x") : (call.image->GetWidth() - 1) * 0.5;
  const double centreY = call.Has("centre-y") ? call.Number("centre-y") : (call.image->GetHeight() - 1) * 0.5;
  if (!files::DropWorldCoordinates(call.header, SizeOf(call), "the image is a map of a planet")) {
    RefuseMosaic(call);
  }
  for (const char* size : {"XPIXSZ", "YPIXSZ", "PIXSIZE1", "PIXSIZE2", "SCALE", "PIXSCALE"}) {
    call.header.Remove(size);
  }
  Replace<CImgExpansion>(call, [&](CImgExpansion& target) {
    if (!target.ChangeSize(width, width / 2, nullptr)) return 0;
    target.Do(call.image.get(), centreX, centreY, call.Number("radius"), call.Number("tilt-y"),
              call.Number("tilt-x"), call.Number("oblateness"), call.Integer("grid"), nullptr, kShow);
    return 1;
  });
}

void Flip(Call& call) {
  const int axis = call.Choice("axis");
  const double right = call.image->GetWidth() - 1.0, bottom = call.image->GetHeight() - 1.0;
  Move(call, axis == 0 ? AffineMap{1, 0, 0, -1, 0, bottom} : AffineMap{-1, 0, 0, 1, right, 0});
  Replace<CImgFlip>(call, [&](CImgFlip& target) {
    target.Do(axis, call.image.get(), kShow);
    return 1;
  });
}

void Join(Call& call) {
  const auto second = call.File("file", false);
  const auto size = SizeOf(call);
  if (second->GetPlanes() != size.planes) {
    throw UsageError(
        fmt::format("mosaic: the file has {} planes and the image {}; change one by to-colour or to-gray",
                    second->GetPlanes(), size.planes));
  }
  if (!files::DropWorldCoordinates(call.header, size, "the image is a mosaic of two")) RefuseMosaic(call);
  second->SetDefaultCenter();
  const double x = call.Number("x"), y = call.Number("y"), angle = call.Number("angle");
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
  auto transparent = call.PerPlane("transparent"), fill = call.PerPlane("fill");
  const int matchLevels = call.Integer("match-levels");
  for (int p = 0; p < size.planes && !matchLevels; ++p) {
    fill[p] = call.image->ToRaw(fill[p], p);
  }
  Replace<CImgMosaic>(call, [&](CImgMosaic& target) {
    if (!target.ChangeSize(static_cast<int>(width), static_cast<int>(height), nullptr)) return 0;
    target.Do(call.image.get(), static_cast<int>(firstX), static_cast<int>(firstY), second.get(), firstX + x,
              firstY + y, angle, call.Choice("mode"), transparent.data(), fill.data(), matchLevels,
              call.Integer("average"), nullptr, kShow);
    return 1;
  });
}

void LiftUp(Call& call) {
  const int lines = call.Integer("lines");
  Move(call, AffineMap::Shift(0, -lines));
  call.image->LiftUp(lines);
}

void Rotate(Call& call) {
  double degrees = std::fmod(call.Number("degrees"), 360);
  if (degrees < 0) degrees += 360;
  const int grey = call.Integer("outside");
  const bool expand = call.Integer("expand") != 0;
  if (degrees == 180) return HalfTurn(call);
  if (degrees != 90 && degrees != 270) {
    if (degrees != 0) TurnBy(call, degrees, grey, expand, call.Choice("method"));
    return;
  }
  const auto before = SizeOf(call);
  QuarterTurn(call, degrees == 90);
  if (expand) return;
  std::vector<float> fill(before.planes);
  for (int p = 0; p < before.planes; ++p) {
    fill[p] = call.image->To256(call.image->ToRaw(static_cast<float>(grey), 0), p);
  }
  LayOn(call, before.width, before.height, kMiddle, kMiddle, fill);
}

void Scale(Call& call) {
  const auto before = SizeOf(call);
  const bool bySide = call.Has("width") || call.Has("height");
  if (bySide == call.Has("factor")) {
    throw UsageError("scale: give width, height or both of them, or a factor");
  }
  double factorX = 1, factorY = 1;
  if (!bySide) {
    factorX = factorY = call.Number("factor");
  } else {
    factorX = call.Has("width") ? call.Number("width") / before.width : call.Number("height") / before.height;
    factorY = call.Has("height") ? call.Number("height") / before.height : factorX;
  }
  const auto side = [](int size, double factor) { return std::max(std::round(size * factor), 1.0); };
  const double width = side(before.width, factorX), height = side(before.height, factorY);
  if (width > files::kMaxSide || height > files::kMaxSide) {
    throw UsageError(
        fmt::format("scale: {} x {} is too large; the most is {} on a side", width, height, files::kMaxSide));
  }
  const int newWidth = static_cast<int>(width), newHeight = static_cast<int>(height);
  Move(call, before, newWidth, newHeight, {width / before.width, 0, 0, height / before.height});
  Replace<CImgResolution>(call, [&](CImgResolution& target) {
    // On paged stores this one repeats the edge, where Bilinear would go on beyond it.
    return target.DoChange(call.image.get(), newWidth, newHeight, call.Choice("method"), kShow);
  });
}

void Scroll(Call& call) {
  const int x = call.Integer("x") % call.image->GetWidth(), y = call.Integer("y") % call.image->GetHeight();
  Move(call, AffineMap::Shift(x, y));
  for (const bool horizontal : {true, false}) {
    const int amount = horizontal ? x : y;
    if (amount == 0) continue;
    Replace<CImgScroll>(call, [&](CImgScroll& target) {
      target.Do(amount, horizontal, call.image.get(), kShow);
      return 1;
    });
  }
}

}  // namespace korimg::session
