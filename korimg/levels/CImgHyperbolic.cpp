// The curve's parts are A expm1(E log1p(C d)) of the distance d to the symmetry point, or its limits
// A expm1(C d) and A log1p(C d), and so are those of its inverse. They are computed in floats whose errors
// stay relative, however small the distance.
#include "korimg/levels/CImgHyperbolic.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

using Parameters = CImgHyperbolic::Parameters;

enum class Form { Power, Exponential, Logarithm };

/// A part of a curve: factor x form(inner x distance).
struct Part {
  Form form;
  double inner, exponent, factor;

  double At(double distance) const {
    const double g = inner * distance;
    if (form == Form::Exponential) return factor * std::expm1(g);
    if (form == Form::Logarithm) return factor * std::log1p(g);
    return factor * std::expm1(exponent * std::log1p(g));
  }
  double Slope(double distance) const {
    const double g = inner * distance;
    if (form == Form::Exponential) return factor * inner * std::exp(g);
    if (form == Form::Logarithm) return factor * inner / (1 + g);
    return factor * inner * exponent * std::exp((exponent - 1) * std::log1p(g));
  }
  Part Inverse() const {
    if (form == Form::Exponential) return {Form::Logarithm, 1 / factor, 0, 1 / inner};
    if (form == Form::Logarithm) return {Form::Exponential, 1 / factor, 0, 1 / inner};
    return {Form::Power, 1 / factor, 1 / exponent, 1 / inner};
  }
  /// Where floats tell no more of it: the exponential of -40 is 0 to them, and 1 + g ends near 0.
  double Reach() const {
    constexpr double kNothing = -40, kPole = -1 + 0x1p-22;
    if (form == Form::Exponential) return inner < 0 ? kNothing / inner : kFar;
    if (inner < 0) return kPole / inner;
    return form == Form::Power && exponent < 0 ? std::expm1(std::min(kNothing / exponent, 600.0)) / inner
                                               : kFar;
  }

  static constexpr double kFar = 1e30;
};

/// T of the header.
Part PartOf(double amount, double b) {
  const double d = std::max(std::expm1(amount), 1e-9);  // below it the curve is a line
  if (b == 0) return {Form::Exponential, -d, 0, -1};
  if (b == -1) return {Form::Logarithm, d, 0, 1};
  if (b > 0) return {Form::Power, b * d, -1 / b, -1};
  return {Form::Power, -b * d, (b + 1) / b, -1 / (d * (b + 1))};
}

/// A number in two floats.
struct Two {
  float high, low;
  explicit Two(double v) : high(static_cast<float>(v)), low(static_cast<float>(v - high)) {}
  /// The upper one is short enough for exact products with small whole numbers.
  static Two Short(double v) {
    Two two(v);
    two.high = std::bit_cast<float>(std::bit_cast<std::uint32_t>(two.high) & 0xFFFFFF00u);
    two.low = static_cast<float>(v - two.high);
    return two;
  }
};

/// A curve or its inverse in raw values: a part about a centre, mirrored below it, and its tangents.
struct Curve {
  Part part;
  double centre, result, low, high, lowSlope, highSlope;
};

Curve CurveOf(const Parameters& parameters, double min, double range, bool inverse) {
  const auto& [amount, shape, symmetry, shadows, highlights] = parameters;
  Part part = PartOf(amount, shape);
  const double down = symmetry - shadows, up = highlights - symmetry;
  const double below = part.At(down) + part.Slope(down) * shadows;
  const double above = part.At(up) + part.Slope(up) * (1 - highlights);
  part.factor /= below + above;
  const double middle = below / (below + above);
  const auto raw = [=](double share) { return min + range * share; };
  // Infinity times a slope that is 0 in floats would be no number.
  constexpr double kFlat = 1e-30;
  Curve curve{part,
              raw(symmetry),
              raw(middle),
              raw(shadows),
              raw(highlights),
              std::max(part.Slope(down), kFlat),
              std::max(part.Slope(up), kFlat)};
  if (inverse) {
    curve = {part.Inverse(),
             curve.result,
             curve.centre,
             raw(middle - part.At(down)),
             raw(middle + part.At(up)),
             1 / curve.lowSlope,
             1 / curve.highSlope};
  }
  curve.part.inner /= range;
  curve.part.factor *= range;
  const double reach = curve.part.Reach(), last = std::max(curve.part.Slope(reach), kFlat);
  if (curve.low < curve.centre - reach) curve.low = curve.centre - reach, curve.lowSlope = last;
  if (curve.high > curve.centre + reach) curve.high = curve.centre + reach, curve.highSlope = last;
  return curve;
}

const Two kLn2 = Two::Short(std::numbers::ln2);

/// ln(1 + g) as k ln 2 + rest, the latter with a small relative error; g is above -1.
struct Log {
  float k, rest;
};

KORIMG_IN_LOOP inline Log Log1p(float g) {
  constexpr std::uint32_t kRootOfHalf = 0x3F3504F3, kOne = 0x3F800000;
  const auto bits = std::bit_cast<std::uint32_t>(1.0f + g);
  const std::int32_t k = static_cast<std::int32_t>(bits - kRootOfHalf) >> 23;
  const float scale = std::bit_cast<float>(kOne - (static_cast<std::uint32_t>(k) << 23));  // 2^-k
  // With s = r / (2 + r), ln(1 + r) is 2 s + s R(s^2), of which r is the larger part.
  const float r = g * scale + (scale - 1.0f);
  const float s = r / (2.0f + r), q = s * s, half = 0.5f * r * r;
  const float rest = q * (0.6666678190f + q * (0.3997664154f + q * 0.2989796698f));
  return {static_cast<float>(k), r - (half - s * (half + rest))};
}

/// e^(k a + h) - 1.
KORIMG_IN_LOOP inline float Expm1(float k, Two a, float h) {
  constexpr float kRound = 0x1.8p23f, kLog2E = 1.44269504f;
  const float rounded = (k * a.high + h) * kLog2E + kRound, n = rounded - kRound;
  const float z = ((k * a.high - n * kLn2.high) + h) + (k * a.low - n * kLn2.low);
  const float series =
      0.49999997f + z * (0.16666539f + z * (0.041667223f + z * (0.0083671808f + z * 0.0013882396f)));
  const float power = std::bit_cast<float>((std::bit_cast<std::uint32_t>(rounded) + 127) << 23);  // 2^n
  return (z + z * z * series) * power + (power - 1.0f);
}

template <Form form>
void Bend(const float* in, float* out, int columns, const Curve& curve) {
  const auto low = static_cast<float>(curve.low), high = static_cast<float>(curve.high);
  const auto lowSlope = static_cast<float>(curve.lowSlope), highSlope = static_cast<float>(curve.highSlope);
  const auto inner = static_cast<float>(curve.part.inner), exponent = static_cast<float>(curve.part.exponent);
  const auto factor = static_cast<float>(curve.part.factor);
  const Two centre(curve.centre), result(curve.result);
  const Two exponentLn2 = Two::Short(curve.part.exponent * std::numbers::ln2);
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    // In two loops of short chains each, which the processor overlaps.
    constexpr int kChunk = 256;
    float beyond[kChunk], distance[kChunk], whole[kChunk], rest[kChunk];
    for (int left = 0; left < columns; left += kChunk) {
      const int size = std::min(kChunk, columns - left);
      for (int x = 0; x < size; ++x) {
        const float v = in[left + x];
        float inside = v < low ? low : v;
        inside = inside > high ? high : inside;
        beyond[x] = v - inside;
        distance[x] = (inside - centre.high) - centre.low;
        const float g = std::abs(distance[x]) * inner;
        if constexpr (form == Form::Exponential) {
          rest[x] = g;
        } else {
          const auto [k, r] = Log1p(g);
          whole[x] = k;
          rest[x] = r;
        }
      }
      for (int x = 0; x < size; ++x) {
        float bent;
        if constexpr (form == Form::Logarithm) {
          bent = whole[x] * kLn2.high + (whole[x] * kLn2.low + rest[x]);
        } else if constexpr (form == Form::Exponential) {
          bent = Expm1(0.0f, exponentLn2, rest[x]);
        } else {
          bent = Expm1(whole[x], exponentLn2, exponent * rest[x]);
        }
        const float straight = beyond[x] * (beyond[x] < 0 ? lowSlope : highSlope);
        out[left + x] = (std::copysign(bent * factor, distance[x]) + (result.low + straight)) + result.high;
      }
    }
  });
}

}  // namespace

int CImgHyperbolic::Do(const Parameters* parameters, int inverse, CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return 0;
  for (int p = 0; p < GetPlanes(); ++p) {
    const auto& [amount, shape, symmetry, shadows, highlights] = parameters[p];
    const bool inRange = amount >= 0 && amount <= 15 && std::abs(shape) <= 15;
    const bool inOrder = 0 <= shadows && shadows <= symmetry && symmetry <= highlights && highlights <= 1;
    if (!inRange || !inOrder || !(GetLevelRange(p) > 0)) return 0;
  }
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6114, window.Lines(*this));
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    const Curve curve = CurveOf(parameters[p], GetLevelMin(p), GetLevelRange(p), inverse != 0);
    const auto bend = curve.part.form == Form::Power         ? Bend<Form::Power>
                      : curve.part.form == Form::Exponential ? Bend<Form::Exponential>
                                                             : Bend<Form::Logarithm>;
    bend(src->GetLine(window.left, y, p), GetWritableLine(window.left, y, p), window.Width(), curve);
  });
  return 1;
}
