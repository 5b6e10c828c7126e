// Maps of frames as JSON: {"matrix": nine numbers, "frame_lens": ..., "reference_lens": ...}, lenses that
// distort as {"centre": x and y, "scale": pixels, "radial": three numbers, "terms": fourteen}.
#pragma once

#include <nlohmann/json.hpp>

#include "korimg/geometry/CFrameMap.h"

namespace korimg::session {

nlohmann::ordered_json ToJson(const CLensDistortion& lens);
nlohmann::ordered_json ToJson(const CFrameMap& map);

/// Throw std::runtime_error that tells what is wrong with it.
CLensDistortion LensFromJson(const nlohmann::json& json);
CFrameMap MapFromJson(const nlohmann::json& json);

}  // namespace korimg::session
