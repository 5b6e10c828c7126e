// Numbers of frames and stacks as a run keeps them.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "korimg/composite/stacking/CImgStack.h"
#include "korimg/composite/stacking/FrameLevels.h"

#include "session/picture/Images.h"
#include "session/register/Register.h"
#include "session/register/internal/MapJson.h"
#include "session/run/Run.h"
#include "session/run/internal/Report.h"

// Found by the namespace of their types.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CStar, x, y, flux, peak, sky, noise, snr, fwhm, elongation, flags)
inline void to_json(nlohmann::json& json, const CImgStack::Counts& c) {
  json = {c.values, c.low, c.high};
}
inline void from_json(const nlohmann::json& json, CImgStack::Counts& c) {
  c = {json.at(0), json.at(1), json.at(2)};
}

namespace korimg {
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FrameLevels, level, spread, noise)
}  // namespace korimg

namespace korimg::session {

using KeptJson = nlohmann::json;

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Shape, width, height, planes)

/// Keeps bytes that are no text.
inline KeptJson Binary(const std::string& bytes) {
  return KeptJson::binary(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}
inline std::string BytesOf(const KeptJson& json) {
  const auto& bytes = json.get_binary();
  return {bytes.begin(), bytes.end()};
}

inline void to_json(KeptJson& json, const FrameMeasure& m) {
  json = {{"width", m.width},         {"height", m.height}, {"sky", m.sky},
          {"noise", m.noise},         {"fwhm", m.fwhm},     {"elongation", m.elongation},
          {"starCount", m.starCount}, {"stars", m.stars},   {"noData", m.noData},
          {"digest", m.digest}};
  if (m.guideError) json["guideError"] = *m.guideError;
}
inline void from_json(const KeptJson& json, FrameMeasure& m) {
  m = {json.at("width"),
       json.at("height"),
       json.at("sky"),
       json.at("noise"),
       json.at("fwhm"),
       json.at("elongation"),
       std::nullopt,
       json.at("starCount"),
       json.at("stars").get<std::vector<CStar>>(),
       json.at("noData").get<std::string>(),
       json.at("digest").get<std::uint64_t>()};
  if (json.contains("guideError")) m.guideError = json["guideError"].get<double>();
}

/// Leaves the file out: the light's own name says it.
inline void to_json(KeptJson& json, const Registration& r) {
  json = {{"dx", r.dx},
          {"dy", r.dy},
          {"degrees", r.degrees},
          {"stars", r.stars},
          {"residual", r.residual},
          {"fwhm", r.fwhm},
          {"method", r.method},
          {"status", r.status},
          {"note", r.note}};
  if (r.fluxRatio) json["fluxRatio"] = *r.fluxRatio;
  if (r.map) json["map"] = ToJson(*r.map);
}
inline void from_json(const KeptJson& json, Registration& r) {
  r = {.dx = json.at("dx"),
       .dy = json.at("dy"),
       .degrees = json.at("degrees"),
       .stars = json.at("stars"),
       .residual = json.at("residual"),
       .fwhm = json.at("fwhm"),
       .method = json.at("method").get<std::string>(),
       .status = json.at("status").get<std::string>(),
       .note = json.at("note").get<std::string>()};
  if (json.contains("fluxRatio")) r.fluxRatio = json["fluxRatio"].get<double>();
  if (json.contains("map")) r.map = MapFromJson(json["map"]);
}

inline void to_json(KeptJson& json, const RunStack& s) {
  json = {{"file", s.file.string()}, {"filter", s.filter},     {"frames", s.frames},
          {"lights", s.lights},      {"exposure", s.exposure}, {"stars", s.stars},
          {"fwhm", s.fwhm},          {"noise", s.noise},       {"gradient", s.gradient.string()}};
}
inline void from_json(const KeptJson& json, RunStack& s) {
  s = {json.at("file").get<std::string>(),
       json.at("filter").get<std::string>(),
       json.at("frames"),
       json.at("lights"),
       json.at("exposure"),
       json.at("stars"),
       json.at("fwhm"),
       json.at("noise"),
       json.at("gradient").get<std::string>()};
}

inline void to_json(KeptJson& json, const ReportStack& s) {
  json = {
      {"name", s.name}, {"picture", Binary(s.picture)}, {"facts", s.facts}, {"gradient", Binary(s.gradient)}};
}
inline void from_json(const KeptJson& json, ReportStack& s) {
  s = {json.at("name").get<std::string>(), BytesOf(json.at("picture")),
       json.at("facts").get<std::vector<std::pair<std::string, std::string>>>(),
       BytesOf(json.at("gradient"))};
}

}  // namespace korimg::session
