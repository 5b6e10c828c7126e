#include "session/calibrate/internal/NoiseModel.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"

namespace korimg::session {

void NoiseModel::Fill(const Band<const float>& raw, const Band<const float>& offset,
                      const Band<const float>& flat, const float* averages, const QualityRows& to) const {
  constexpr float kFinite = std::numeric_limits<float>::max(),
                  kNone = std::numeric_limits<float>::quiet_NaN();
  const bool hasOffset = offset.Planes() > 0, hasFlat = flat.Planes() > 0;
  const int width = raw.Width();
  const auto ofPlane = [](const Band<const float>& band, int p) { return std::min(p, band.Planes() - 1); };
  const auto dark = static_cast<float>(floor), start = static_cast<float>(zero),
             perLight = static_cast<float>(1 / gain), darkOfMaster = static_cast<float>(offsetFloor),
             perDark = static_cast<float>(offsetSlope), ofFlat = static_cast<float>(flatShare),
             darkOfFlat = static_cast<float>(flatFloor), end = static_cast<float>(saturation);
  for (int p = 0; p < raw.Planes(); ++p) {
    ForLines(Team::All, 0, raw.Rows(), [&](int y) {
      const float* v = raw.Plane(p)[y].data();
      const float* off = hasOffset ? offset.Plane(ofPlane(offset, p))[y].data() : nullptr;
      const float* divisor = hasFlat ? flat.Plane(ofPlane(flat, p))[y].data() : nullptr;
      const float average = hasFlat ? averages[ofPlane(flat, p)] : 1;
      if (to.variance.Planes() > 0) {
        float* variance = to.variance.Plane(p)[y].data();
        RunInLongVectors([=]() KORIMG_IN_LOOP {
          for (int x = 0; x < width; ++x) {
            const float light = std::max(v[x] - start, 0.0f);
            variance[x] = std::abs(v[x]) <= kFinite ? dark + light * perLight : kNone;
          }
        });
        if (off) {
          RunInLongVectors([=]() KORIMG_IN_LOOP {
            for (int x = 0; x < width; ++x) {
              variance[x] += darkOfMaster + std::max(off[x] - start, 0.0f) * perDark;
            }
          });
        }
        if (divisor) {
          RunInLongVectors([=]() KORIMG_IN_LOOP {
            for (int x = 0; x < width; ++x) {
              const float f = divisor[x], light = v[x] - (off ? off[x] : 0.0f);
              const float relative = ofFlat * (darkOfFlat + f * perLight) / (f * f);
              const float all = (variance[x] + light * light * relative) * (average / f) * (average / f);
              // What is not above 0 divides nothing.
              variance[x] = f > 0 ? all : f <= 0 ? variance[x] : kNone;
            }
          });
        }
      }
      if (to.mask.Planes() > 0) {
        constexpr float kBlank = int{MaskBit::NoData}, kFull = int{MaskBit::Saturated};
        float* bits = to.mask.Plane(p)[y].data();
        RunInLongVectors([=]() KORIMG_IN_LOOP {
          for (int x = 0; x < width; ++x) {
            const float of = v[x] >= end ? kFull : 0.0f;
            bits[x] = std::abs(v[x]) <= kFinite ? of : kBlank;
          }
          for (int x = 0; divisor && x < width; ++x) {
            bits[x] = std::abs(divisor[x]) <= kFinite ? bits[x] : kBlank;
          }
        });
      }
    });
  }
}

}  // namespace korimg::session
