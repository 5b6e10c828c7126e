#include "session/register/WorldMap.h"

#include <array>
#include <cmath>
#include <numbers>

#include <fmt/format.h>

#include "korimg/geometry/internal/Homography.h"
#include "korimg/platform/CArray.h"

namespace korimg::session {
namespace {

using Matrix = CFrameMap::Matrix;

constexpr double kDegree = std::numbers::pi / 180;

/// An image's gnomonic plane: from straight pixels to directions of the sky, up to their length.
struct TangentPlane {
  Matrix toSky;
  CLensDistortion lens;
};

std::optional<CLensDistortion> Distortion(const files::Header& header, const files::ImageSize& size,
                                          korimg::Point reference) {
  CLensDistortion::Numbers numbers{};
  const char* const axes[] = {"A", "B"};
  constexpr int kOrders[CLensDistortion::kTerms][2] = {{2, 0}, {1, 1}, {0, 2}, {3, 0},
                                                       {2, 1}, {1, 2}, {0, 3}};
  constexpr int kMostOrder = 9;
  for (int axis = 0; axis < 2; ++axis) {
    for (int p = 0; p <= kMostOrder; ++p) {
      for (int q = 0; p + q <= kMostOrder; ++q) {
        const double value = header.GetDouble(fmt::format("{}_{}_{}", axes[axis], p, q)).value_or(0);
        if (value == 0) continue;
        bool isKnown = false;
        for (int term = 0; term < CLensDistortion::kTerms; ++term) {
          if (kOrders[term][0] != p || kOrders[term][1] != q) continue;
          numbers[CLensDistortion::kRadial + axis * CLensDistortion::kTerms + term] = value;
          isKnown = true;
        }
        if (!isKnown) return std::nullopt;
      }
    }
  }
  // In units of the way to the farthest corner, so that only what lies outside goes on straight.
  const double scale = korimg::Length(std::max(reference.x, size.width - reference.x),
                                      std::max(reference.y, size.height - reference.y));
  for (int axis = 0; axis < 2; ++axis) {
    for (int term = 0; term < CLensDistortion::kTerms; ++term) {
      numbers[CLensDistortion::kRadial + axis * CLensDistortion::kTerms + term] *=
          std::pow(scale, kOrders[term][0] + kOrders[term][1] - 1);
    }
  }
  return CLensDistortion(reference, scale, numbers);
}

std::optional<TangentPlane> PlaneOf(const files::Header& header, const files::ImageSize& size) {
  const std::string first = header.GetString("CTYPE1").value_or(""),
                    second = header.GetString("CTYPE2").value_or("");
  const auto number = [&](const std::string& key, double missing) {
    return header.GetDouble(key).value_or(missing);
  };
  const auto isTan = [](const std::string& type, const char* axis) {
    return type == std::string(axis) + "-TAN" || type == std::string(axis) + "-TAN-SIP";
  };
  if (!isTan(first, "RA--") || !isTan(second, "DEC-")) return std::nullopt;
  if (header.GetDouble("PV2_1") || header.GetDouble("PV1_1"))
    return std::nullopt;  // distorted on the sky's side
  for (const char* key : {"CRPIX1", "CRPIX2", "CRVAL1", "CRVAL2"}) {
    if (!header.GetDouble(key)) return std::nullopt;
  }
  const korimg::Point reference{number("CRPIX1", 0) - 1, number("CRPIX2", 0) - 1};
  double cd[2][2];
  const bool hasCd = header.GetDouble("CD1_1") || header.GetDouble("CD1_2") || header.GetDouble("CD2_1");
  const double stepX = number("CDELT1", 1), stepY = number("CDELT2", 1), turn = number("CROTA2", 0) * kDegree;
  const bool hasPc = header.GetDouble("PC1_1") || header.GetDouble("PC1_2") || header.GetDouble("PC2_1");
  if (!hasCd && !header.GetDouble("CDELT1")) return std::nullopt;
  for (int i = 0; i < 2; ++i) {
    for (int k = 0; k < 2; ++k) {
      const std::string index = fmt::format("{}_{}", i + 1, k + 1);
      const double step = i == 0 ? stepX : stepY;
      const double crota[2][2] = {{stepX * std::cos(turn), -stepY * std::sin(turn)},
                                  {stepX * std::sin(turn), stepY * std::cos(turn)}};
      cd[i][k] = kDegree * (hasCd   ? number("CD" + index, 0)
                            : hasPc ? step * number("PC" + index, i == k ? 1 : 0)
                                    : crota[i][k]);
    }
  }
  // The standard's units, and where the pole lies on the native sphere, by default above the reference point.
  const auto unit = [&](const char* key) -> std::optional<double> {
    const std::string text = header.GetString(key).value_or("deg");
    if (text == "deg") return 1;
    if (text == "arcmin") return 1.0 / 60;
    if (text == "arcsec") return 1.0 / 3600;
    if (text == "rad") return 1 / kDegree;
    return std::nullopt;
  };
  const auto unitX = unit("CUNIT1"), unitY = unit("CUNIT2");
  if (!unitX || !unitY) return std::nullopt;
  const double latitude = *unitY * number("CRVAL2", 0);
  if (std::abs(latitude) > 90) return std::nullopt;
  const double spun = (180 - number("LONPOLE", latitude >= 90 ? 0 : 180)) * kDegree;
  for (int k = 0; k < 2; ++k) {
    const double x = *unitX * cd[0][k], y = *unitY * cd[1][k];
    cd[0][k] = std::cos(spun) * x - std::sin(spun) * y;
    cd[1][k] = std::sin(spun) * x + std::cos(spun) * y;
  }
  const double area = cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0];
  if (!(std::abs(area) > 0) || !std::isfinite(area)) return std::nullopt;  // all places would be one line
  const auto lens = first.ends_with("SIP") || header.GetDouble("A_ORDER")
                        ? Distortion(header, size, reference)
                        : std::optional(CLensDistortion());
  if (!lens) return std::nullopt;
  // (x, y) on the plane, toward east and north, is the direction x e + y n + d.
  const double a = *unitX * number("CRVAL1", 0) * kDegree, d = latitude * kDegree;
  const double ca = std::cos(a), sa = std::sin(a), cosine = std::cos(d), sine = std::sin(d);
  const Matrix plane{cd[0][0], cd[0][1], -cd[0][0] * reference.x - cd[0][1] * reference.y,
                     cd[1][0], cd[1][1], -cd[1][0] * reference.x - cd[1][1] * reference.y,
                     0,        0,        1};
  const Matrix sky{-sa, -sine * ca, cosine * ca, ca, -sine * sa, cosine * sa, 0, cosine, sine};
  return TangentPlane{Product(sky, plane), *lens};
}

}  // namespace

std::optional<CFrameMap> MapByWorld(const files::Header& image, const files::ImageSize& size,
                                    const files::Header& other, const files::ImageSize& otherSize) {
  const auto from = PlaneOf(image, size), to = PlaneOf(other, otherSize);
  if (!from || !to) return std::nullopt;
  const Matrix inverse = Adjugate(to->toSky);
  const double determinant = Determinant(to->toSky, inverse);
  Matrix matrix = Product(inverse, from->toSky);
  for (double& number : matrix) {
    number /= determinant;
  }
  // The image's reference point has to lie before the other plane.
  const korimg::Point p = from->lens.IsNone() ? korimg::Point{image.GetDouble("CRPIX1").value_or(1) - 1,
                                                              image.GetDouble("CRPIX2").value_or(1) - 1}
                                              : from->lens.Centre();
  if (!(matrix[6] * p.x + matrix[7] * p.y + matrix[8] > 0)) return std::nullopt;
  try {
    return CFrameMap(matrix, from->lens, to->lens);
  } catch (CInvalidArgException* error) {
    error->Delete();
    return std::nullopt;
  }
}

std::optional<SkyPlace> SkyAt(const files::Header& header, const files::ImageSize& size, double x, double y) {
  const auto plane = PlaneOf(header, size);
  if (!plane) return std::nullopt;
  const korimg::Point p = plane->lens.Straight({x, y});
  const Matrix& m = plane->toSky;
  const double first = m[0] * p.x + m[1] * p.y + m[2], second = m[3] * p.x + m[4] * p.y + m[5],
               third = m[6] * p.x + m[7] * p.y + m[8];
  const double ra = std::atan2(second, first) / kDegree;
  return SkyPlace{ra < 0 ? ra + 360 : ra, std::atan2(third, std::hypot(first, second)) / kDegree};
}

}  // namespace korimg::session
