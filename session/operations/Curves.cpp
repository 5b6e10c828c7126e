#include "session/operations/internal/Curves.h"

#include <algorithm>

#include "korimg/levels/CImgToneCurve.h"
#include "korimg/levels/CSpline.h"

namespace korimg::session {
namespace {

constexpr int kShow = 1;

/// The curve through points from x = 0 to x = 1, in so many steps, limited to 0 to 1: splines may overshoot.
std::vector<float> Sample(const std::vector<CurvePoint>& given, bool lines, int entries) {
  CSpline::Points points;
  for (const auto& [x, y] : given) {
    points.Add({x, y, lines ? 0U : 1U});
  }
  CSpline::CalcSpline(&points);
  std::vector<float> table(entries);
  for (int i = 0; i + 1 < entries; ++i) {
    const double y = CSpline::GetValue(i / (entries - 1.0), &points, nullptr);
    table[i] = static_cast<float>(std::clamp(y, 0.0, 1.0));
  }
  table.back() = static_cast<float>(given.back().y);  // the last point itself is no part of the curve
  return table;
}

}  // namespace

void Curve(Call& call) {
  std::vector<std::vector<float>> tables;
  std::vector<float*> curves;
  for (const char* name : {"points", "red", "green", "blue"}) {
    if (!tables.empty() && call.Has(name) && !call.image->IsColor()) {
      throw UsageError(std::string("curve: the image has one plane; give points= in place of ") + name + "=");
    }
    tables.push_back(Sample(call.Points(name), call.Choice("kind") == 1, call.Integer("entries")));
    curves.push_back(tables.back().data());
  }
  auto target = call.NewTarget<CImgToneCurve>();
  target->Do(curves.data(), call.Integer("entries"), call.image.get(), call.rect, kShow, 0);
  call.image = std::move(target);
}

void HAlpha(Call& call) {
  auto target = call.NewTarget<CImgToneCurve>();
  target->DoHAlpha(call.Number("knee"), call.Number("gain"), call.image.get(), call.rect, kShow);
  call.image = std::move(target);
}

void HAlphaLevel(Call& call) {
  CImgToneCurve levels;
  levels.Swap(call.image.get());
  levels.DoHAlphaLevel(call.Number("factor"), &levels);
  levels.Swap(call.image.get());
  // The negation refuses NaN too.
  if (!(call.image->GetLevelMax(0) > call.image->GetLevelMin(0))) {
    throw UsageError("h-alpha-level: white would not be above black; give a larger factor, or use level");
  }
  call.image->SetOwnLevel(true);
}

}  // namespace korimg::session
