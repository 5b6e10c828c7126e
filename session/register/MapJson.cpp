#include "session/register/internal/MapJson.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "korimg/platform/CArray.h"

namespace korimg::session {

using nlohmann::json;
using Json = nlohmann::ordered_json;

namespace {

template <size_t N>
std::array<double, N> Numbers(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_array() || found->size() != N) {
    throw std::runtime_error(std::string(key) + " is no list of " + std::to_string(N) + " numbers");
  }
  std::array<double, N> numbers;
  for (size_t i = 0; i < N; ++i) {
    const json& number = (*found)[i];
    if (!number.is_number() || !std::isfinite(number.get<double>())) {
      throw std::runtime_error(std::string(key) + " holds what is no number");
    }
    numbers[i] = number;
  }
  return numbers;
}

}  // namespace

Json ToJson(const CLensDistortion& lens) {
  const auto& values = lens.Values();
  const auto* const terms = values.data() + CLensDistortion::kRadial;
  return {{"centre", {lens.Centre().x, lens.Centre().y}},
          {"scale", lens.Scale()},
          {"radial", std::vector<double>(values.data(), terms)},
          {"terms", std::vector<double>(terms, values.data() + values.size())}};
}

Json ToJson(const CFrameMap& map) {
  Json made{{"matrix", map.GetMatrix()}};
  if (!map.FrameDistortion().IsNone()) made["frame_lens"] = ToJson(map.FrameDistortion());
  if (!map.ReferenceDistortion().IsNone()) made["reference_lens"] = ToJson(map.ReferenceDistortion());
  return made;
}

CLensDistortion LensFromJson(const json& object) {
  if (!object.is_object()) throw std::runtime_error("a lens is no object");
  const auto [x, y] = Numbers<2>(object, "centre");
  if (!object.contains("scale") || !object["scale"].is_number() || !(object["scale"].get<double>() > 0))
    throw std::runtime_error("the scale of a lens is not above 0");
  const auto radial = Numbers<CLensDistortion::kRadial>(object, "radial");
  const auto terms = Numbers<2 * CLensDistortion::kTerms>(object, "terms");
  CLensDistortion::Numbers numbers;
  std::copy(terms.begin(), terms.end(), std::copy(radial.begin(), radial.end(), numbers.begin()));
  return {{x, y}, object["scale"].get<double>(), numbers};
}

CFrameMap MapFromJson(const json& object) {
  if (!object.is_object()) throw std::runtime_error("map is no object");
  const auto lens = [&](const char* key) {
    return object.contains(key) ? LensFromJson(object[key]) : CLensDistortion();
  };
  const auto matrix = Numbers<9>(object, "matrix");
  try {
    return CFrameMap(matrix, lens("frame_lens"), lens("reference_lens"));
  } catch (CInvalidArgException* error) {
    error->Delete();
    throw std::runtime_error("matrix turns the frame over, or is none");
  }
}

}  // namespace korimg::session
