#include "session/run/internal/Gradient.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/image/Exceptions.h"
#include "korimg/image/internal/Lines.h"

namespace korimg::session {

std::string TakenGradient::Text() const {
  std::string text;
  for (int p = 0; p < planes; ++p) {
    text += fmt::format("{}{:.4g} to {:+.4g} about {:.5g}", p == 0 ? "" : ", ",
                        findings.low[p] - findings.middle[p], findings.high[p] - findings.middle[p],
                        findings.middle[p]);
  }
  return fmt::format("{}; {} of {} boxes are sky", text, CImgGradient::CountSky(findings.boxes),
                     findings.boxes.size());
}

nlohmann::ordered_json TakenGradient::Description() const {
  nlohmann::ordered_json json{{"boxes", findings.boxes.size()},
                              {"sky_boxes", CImgGradient::CountSky(findings.boxes)}};
  for (int p = 0; p < planes; ++p) {
    json["low"].push_back(findings.low[p]);
    json["high"].push_back(findings.high[p]);
    json["kept"].push_back(findings.middle[p]);
  }
  return json;
}

std::optional<TakenGradient> TakeGradientOff(CVelImage& image) {
  TakenGradient taken{std::make_unique<CImgGradient>(), {}, image.GetPlanes()};
  CImgGradient& surface = *taken.surface;
  if (!surface.Create(image, nullptr, nullptr)) {
    throw velora::CVmMemoryAllocationError("no room for the gradient");
  }
  CImgGradient::Options options;
  options.result = CImgGradient::Model;
  if (!surface.Do(options, &image, 0, &taken.findings)) return std::nullopt;
  for (int p = 0; p < taken.planes; ++p) {
    const auto middle = static_cast<float>(taken.findings.middle[p]);
    surface.SetLevel(p, taken.findings.low[p],
                     std::max(taken.findings.high[p], taken.findings.low[p] + 1e-6));
    ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
      const float* model = surface.GetLine(0, y, p);
      float* line = image.GetWritableLine(0, y, p);
      for (int x = 0; x < image.GetWidth(); ++x) {
        line[x] = line[x] - model[x] + middle;
      }
    });
  }
  return taken;
}

}  // namespace korimg::session
