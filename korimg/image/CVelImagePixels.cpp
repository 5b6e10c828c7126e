// Reading pixels: on the image's scales, between positions, and through a shift, rotation and scaling.
#include <algorithm>

#include "korimg/image/CVelImage.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"

namespace {

/// Where a coordinate falls between pixel `index` and the next one; `position` may be beyond index + 1.
struct Axis {
  int index;
  int next;
  double fraction;
  bool exact;  ///< the position is that of the pixel itself

  Axis(double position, int size) {
    const bool inside = position < size - 1;
    if (!inside) position = size - 1;  // NaN too
    index = std::max(inside ? korimg::TruncateToInt(position) : size - 2, 0);
    next = std::min(index + 1, size - 1);
    fraction = position - index;
    exact = fraction == 0;
  }
};

/// Bilinear: p01 is the pixel below p00, p10 the one beside it.
float Blend(double a, double b, double p00, double p10, double p01, double p11) {
  const double ab = a * b;
  return static_cast<float>((1 - b) * (1 - a) * p00 + (b - ab) * p01 + (a - ab) * p10 + ab * p11);
}

/// read(plane), or the brightness of the three planes for -1; a mono image has plane 0 only.
template <class F>
float OfPlane(const CVelImage& image, int plane, F&& read) {
  if (plane == -1 && korimg::HasColours(image)) return CVelImage::CalcBright(read(0), read(1), read(2));
  return read(image.IsColor() ? std::max(plane, 0) : 0);
}

}  // namespace

unsigned char CVelImage::Gray256(float raw, int plane) const {
  const double r = raw;
  if (r <= GetLevelMin(plane) || r != r) return 0;
  if (r >= GetLevelMax(plane)) return 255;
  return static_cast<unsigned char>(To256(r, plane));
}

float CVelImage::GetPixelBright256f(int x, int y) {
  if (!korimg::HasColours(*this)) return GetPixelGray256f(x, y, 0);
  return CalcBright(GetPixelGray256f(x, y, 0), GetPixelGray256f(x, y, 1), GetPixelGray256f(x, y, 2));
}

float CVelImage::GetPixelBright256f(const float* r, const float* g, const float* b) const {
  if (!korimg::HasColours(*this)) return To256(*r, 0);
  return CalcBright(To256(*r, 0), To256(*g, 1), To256(*b, 2));
}

float CVelImage::GetPixelGrayRaw(double x, double y, int plane) {
  const Axis across(x, GetWidth()), down(y, GetHeight());
  if (across.exact && down.exact) return GetPixelGrayRaw(across.index, down.index, plane);
  const auto pixel = [&](int px, int py) { return GetPixelGrayRaw(px, py, plane); };
  return Blend(across.fraction, down.fraction, pixel(across.index, down.index),
               pixel(across.next, down.index), pixel(across.index, down.next), pixel(across.next, down.next));
}

float CVelImage::GetPixelGray256f(double x, double y, int plane) {
  return To256(GetPixelGrayRaw(x, y, plane), plane);
}

float CVelImage::GetPixelGray(double x, double y, int plane) {
  return static_cast<float>(static_cast<double>(GetPixelGrayRaw(x, y, plane)) - GetLevelMin(plane));
}

float CVelImage::GetPixelGrayRawBuf(double x, double y, int plane) {
  const Axis across(x, GetWidth()), down(y, GetHeight());
  const float* upper = Buffered(buffered_[0], down.index, plane);
  if (across.exact && down.exact) return upper[across.index];
  const float* lower = Buffered(buffered_[1], down.next, plane);
  return Blend(across.fraction, down.fraction, upper[across.index], upper[across.next], lower[across.index],
               lower[across.next]);
}

const float* CVelImage::Buffered(BufferedLine& buffer, int y, int plane) {
  if (buffer.number != y || buffer.store != GetVmImage()->GetVmHandle()) {
    ReleaseBuffered(buffer);
    buffer.line = GetImageAdr(0, y, plane, static_cast<Mode>(ReadOnly | Locked), &buffer.lock);
    buffer.store = GetVmImage()->GetVmHandle();
    buffer.number = y;
  }
  return buffer.line;
}

void CVelImage::ReleaseBuffered(BufferedLine& buffer) {
  // After a change of size the old store took its locks along.
  if (buffer.line && !IsEmpty() && buffer.store == GetVmImage()->GetVmHandle()) Unlock(buffer.lock);
  buffer = BufferedLine();
}

void CVelImage::GetPixelGrayRawBufInit() {
  ReleaseBuffered(buffered_[0]);
  ReleaseBuffered(buffered_[1]);
}

float CVelImage::GetPixelDirectRaw(int x, int y, int plane) const {
  if (x > GetWidth() || y > GetHeight() || x < 0 || y < 0 || directImage_[plane].empty()) return 0.0f;
  return directImage_[plane][static_cast<size_t>(y) * GetWidth() + x];
}

float CVelImage::GetPixelDirectRaw(double x, double y, int plane) const {
  const Axis across(x, GetWidth()), down(y, GetHeight());
  const auto pixel = [&](int px, int py) { return GetPixelDirectRaw(px, py, plane); };
  if (x < 0 || y < 0) return 0.0f;
  if (across.exact && down.exact) return pixel(across.index, down.index);
  return Blend(across.fraction, down.fraction, pixel(across.index, down.index),
               pixel(across.next, down.index), pixel(across.index, down.next), pixel(across.next, down.next));
}

/// Source position of a target's pixel.
struct CVelImage::Mapping {
  double sx, sy;

  Mapping(int x, int y, double dx, double dy, double sin, double cos, double scale, double cx, double cy) {
    if (cos != 1 || sin != 0) {
      const double u = x - cx - dx, v = cy - y + dy;
      sx = (u * cos - v * sin) * scale + cx;
      sy = cy - (u * sin + v * cos) * scale;
    } else if (scale == 1) {
      sx = x - dx;
      sy = y - dy;
    } else {
      sx = (x - cx - dx) * scale + cx;
      sy = (y - cy - dy) * scale + cy;
    }
  }

  bool IsInside(const CVelImage& image) const {
    return sx >= 0 && sx < image.GetWidth() && sy >= 0 && sy < image.GetHeight();
  }

  /// Writes the position out, and whether it lies outside.
  bool Tell(bool inside, int* outside, double* px, double* py) const {
    if (outside) *outside = inside ? 0 : 1;
    if (px) *px = sx;
    if (py) *py = sy;
    return inside;
  }
};

float CVelImage::GetPixelGrayRaw(int x, int y, double dx, double dy, double sin, double cos, double scale,
                                 int plane, double fill, int nearest, int* outside, double* sx, double* sy) {
  const Mapping at(x, y, dx, dy, sin, cos, scale, stdCtr_.fx, stdCtr_.fy);
  const int ix = korimg::TruncateToInt(at.sx + 0.5), iy = korimg::TruncateToInt(at.sy + 0.5);
  const bool inside =
      nearest ? ix >= 0 && ix < GetWidth() && iy >= 0 && iy < GetHeight() : at.IsInside(*this);
  if (!at.Tell(inside, outside, sx, sy)) return static_cast<float>(fill);
  const auto read = [&](int p) {
    return nearest ? GetPixelGrayRaw(ix, iy, p) : GetPixelGrayRaw(at.sx, at.sy, p);
  };
  return OfPlane(*this, plane, read);
}

float CVelImage::GetPixelGray256f(int x, int y, double dx, double dy, double sin, double cos, double scale,
                                  int plane, double fill, int nearest, int* outside, double* sx, double* sy) {
  const Mapping at(x, y, dx, dy, sin, cos, scale, stdCtr_.fx, stdCtr_.fy);
  if (!at.Tell(at.IsInside(*this), outside, sx, sy)) return static_cast<float>(fill);
  // Rounding just under the far edge would leave the image.
  const int ix = std::min(korimg::TruncateToInt(at.sx + 0.5), GetWidth() - 1);
  const int iy = std::min(korimg::TruncateToInt(at.sy + 0.5), GetHeight() - 1);
  const auto read = [&](int p) {
    return nearest ? GetPixelGray256f(ix, iy, p) : GetPixelGray256f(at.sx, at.sy, p);
  };
  return OfPlane(*this, plane, read);
}

float CVelImage::GetPixelGray256f(int x, int y, int dx, int dy, double sin, double cos, double scale,
                                  int plane, double fill, int nearest, int* outside, double* sx, double* sy) {
  return GetPixelGray256f(x, y, static_cast<double>(dx), static_cast<double>(dy), sin, cos, scale, plane,
                          fill, nearest, outside, sx, sy);
}

void CVelImage::GetPixelRgbRaw(int x, int y, double dx, double dy, double sin, double cos, int useStdCtr,
                               double scale, double* r, double* g, double* b, double fill, int* outside,
                               double* sx, double* sy) {
  const double cx = useStdCtr ? stdCtr_.fx : GetWidth() * 0.5,
               cy = useStdCtr ? stdCtr_.fy : GetHeight() * 0.5;
  const Mapping at(x, y, dx, dy, sin, cos, scale, cx, cy);
  double* const channels[] = {r, g, b};
  const bool inside = at.Tell(at.IsInside(*this), outside, sx, sy);
  for (int p = 0; p < 3; ++p) {
    *channels[p] = inside ? GetPixelGrayRaw(at.sx, at.sy, std::min(p, GetPlanes() - 1)) : fill;
  }
}

void CVelImage::GetPixelRgb256f(int x, int y, double dx, double dy, double sin, double cos, int useStdCtr,
                                double scale, double* r, double* g, double* b, double fill, int* outside,
                                double* sx, double* sy) {
  int isOutside = 0;
  GetPixelRgbRaw(x, y, dx, dy, sin, cos, useStdCtr, scale, r, g, b, fill, &isOutside, sx, sy);
  if (outside) *outside = isOutside;
  if (isOutside) return;
  double* const channels[] = {r, g, b};
  for (int p = 0; p < 3; ++p) {
    *channels[p] = To256(static_cast<float>(*channels[p]), std::min(p, GetPlanes() - 1));
  }
}

void CVelImage::GetPixelRgb256f(int x, int y, int dx, int dy, double sin, double cos, int useStdCtr,
                                double scale, double* r, double* g, double* b, double fill, int* outside,
                                double* sx, double* sy) {
  GetPixelRgb256f(x, y, static_cast<double>(dx), static_cast<double>(dy), sin, cos, useStdCtr, scale, r, g, b,
                  fill, outside, sx, sy);
}

void CVelImage::GetPixelRgbRaw(int x, int y, int dx, int dy, double sin, double cos, int useStdCtr,
                               double scale, double* r, double* g, double* b, double fill, int* outside,
                               double* sx, double* sy) {
  GetPixelRgbRaw(x, y, static_cast<double>(dx), static_cast<double>(dy), sin, cos, useStdCtr, scale, r, g, b,
                 fill, outside, sx, sy);
}

float CVelImage::GetPixelL(int x, int y, double dx, double dy, double sin, double cos, double scale,
                           double fill) {
  const Mapping at(x, y, dx, dy, sin, cos, scale, stdCtr_.fx, stdCtr_.fy);
  return at.IsInside(*this) ? GetPixelGrayRaw(at.sx, at.sy, 0) : static_cast<float>(fill);
}

void CVelImage::GetPixelAb(int x, int y, double dx, double dy, double sin, double cos, double scale,
                           double* a, double* b, double fill) {
  const Mapping at(x, y, dx, dy, sin, cos, scale, stdCtr_.fx, stdCtr_.fy);
  const bool inside = at.IsInside(*this);
  *a = inside ? GetPixelGrayRaw(at.sx, at.sy, 0) : fill;
  *b = inside ? GetPixelGrayRaw(at.sx, at.sy, 1) : fill;
}
