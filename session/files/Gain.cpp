#include "session/files/Gain.h"

#include <algorithm>

#include <fmt/format.h>

#include "session/files/Text.h"

namespace korimg::files {
namespace {

/// The comment of a card speaks of electrons.
bool IsInElectrons(const Header& header, std::string_view key) {
  for (const std::string& card : header.cards) {
    if (!card.starts_with(fmt::format("{:<8}=", key))) continue;
    const size_t slash = card.find('/');
    if (slash == std::string::npos) return false;
    const std::string comment = LowerCase(card.substr(slash));
    for (const char* unit : {"e-/", "e/adu", "e/dn", "electron"}) {
      if (comment.find(unit) != std::string::npos) return true;
    }
    return false;
  }
  return false;
}

}  // namespace

Gain FindGain(const Header& header, double noise) {
  constexpr double kLeastNoise = 0.01;  // electrons, chosen: no camera reads so quietly
  if (const double of = header.GetDouble("KORLGAIN").value_or(0); of > 0 && noise * of >= kLeastNoise) {
    return {of, "KORLGAIN"};
  }
  const char* key = "EGAIN";
  auto electrons = header.GetDouble(key);
  if (!electrons && IsInElectrons(header, "GAIN")) electrons = header.GetDouble(key = "GAIN");
  if (!electrons) return {0, "no EGAIN"};
  if (!(*electrons > 0)) return {0, fmt::format("{} is {:g}", key, *electrons)};
  const double frames = std::max(header.GetDouble("NCOMBINE").value_or(1), 1.0);
  if (noise * *electrons * frames < kLeastNoise) {
    return {0, fmt::format("{} is {:g}, which would make the noise {:.2g} electrons", key, *electrons,
                           noise * *electrons * frames)};
  }
  return {*electrons * frames, frames > 1 ? fmt::format("{}, {:g} frames", key, frames) : key};
}

std::optional<double> FindReadNoise(const Header& header) {
  for (const char* key : {"RDNOISE", "READNOIS"}) {
    if (const auto noise = header.GetDouble(key); noise && *noise > 0) return noise;
  }
  return std::nullopt;
}

void DropGain(Header& header) {
  if (IsInElectrons(header, "GAIN")) header.Remove("GAIN");
  header.Remove("EGAIN");
  header.Remove("KORLGAIN");
}

}  // namespace korimg::files
