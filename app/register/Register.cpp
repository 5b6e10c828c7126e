#include "app/register/Register.h"

#include <algorithm>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/files/ImageFile.h"

namespace korimg::tool {
namespace {

using Json = nlohmann::ordered_json;

Registration FromMatch(const CStarMatch& match, const char* method) {
  const char* const names[] = {"ok", "no stars", "no match", "mirrored", "residual too large"};
  return {{}, match.dx, match.dy, match.degrees, match.stars, match.residual, method, names[match.status]};
}

}  // namespace

FrameMeasure MeasureFrame(CVelImage& image, double sigmas) {
  CStarFinder finder(&image);
  finder.SetThreshold(sigmas);
  const int count = finder.Find();
  return {image.GetWidth(), image.GetHeight(),      finder.GetSky(), finder.GetNoise(),
          finder.GetFwhm(), finder.GetElongation(), count,           CStarMatcher::Select(finder.GetStars())};
}

size_t ChooseReference(const std::vector<FrameMeasure>& frames) {
  int most = 0;
  for (const FrameMeasure& frame : frames) {
    most = std::max(most, frame.starCount);
  }
  const auto isRich = [&](const FrameMeasure& frame) {
    return frame.starCount > 0 && 2LL * frame.starCount >= most;
  };
  size_t best = 0;
  for (size_t i = 1; i < frames.size(); ++i) {
    if (isRich(frames[i]) && (!isRich(frames[best]) || frames[i].fwhm < frames[best].fwhm)) best = i;
  }
  return best;
}

Registration ReferenceRegistration(const FrameMeasure& reference) {
  Registration registration;
  registration.stars = static_cast<int>(reference.stars.size());
  registration.method = "reference";
  registration.status = "ok";
  return registration;
}

Registrar::Registrar(const FrameMeasure& reference, ImageSource image, double residual)
    : stars_(reference.stars), loadReference_(std::move(image)) {
  stars_.SetResidualLimit(residual);
}

Registration Registrar::Register(const FrameMeasure& frame, const ImageSource& image) {
  const CStarMatch match = stars_.Match(frame.stars, frame.width, frame.height);
  const bool isKnown = match.status != CStarMatch::NoStars && match.status != CStarMatch::NoMatch;
  if (!isKnown) {
    const CStarMatch phase = MatchByPhase(image);
    if (phase.status == CStarMatch::Ok) return FromMatch(phase, "phase");
  }
  return FromMatch(match, "stars");
}

CStarMatch Registrar::MatchByPhase(const ImageSource& image) {
  const std::lock_guard lock(mutex_);
  if (!phase_) {
    reference_ = loadReference_();
    phase_ = std::make_unique<CPhaseMatcher>(reference_.get());
  }
  return phase_->Match(*image());
}

std::string ToJson(const Registration& registration) {
  const Json json{{"file", registration.file},     {"dx", registration.dx},
                  {"dy", registration.dy},         {"degrees", registration.degrees},
                  {"stars", registration.stars},   {"residual_px", registration.residual},
                  {"method", registration.method}, {"status", registration.status}};
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::vector<Registration> ReadRegistrations(const std::filesystem::path& path) {
  std::ifstream in(path);
  if (!in) throw files::FileError(path, "cannot be read");
  std::vector<Registration> registrations;
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      const Json json = Json::parse(line);
      registrations.push_back({json.at("file"), json.at("dx"), json.at("dy"), json.at("degrees"),
                               json.value("stars", 0), json.value("residual_px", 0.0),
                               json.value("method", ""), json.value("status", "ok")});
    } catch (const Json::exception& error) {
      throw files::FileError(
          path, fmt::format("line {} is no registration, as korimg register --json writes them: {}", number,
                            error.what()));
    }
  }
  return registrations;
}

}  // namespace korimg::tool
