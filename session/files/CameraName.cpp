#include "session/files/internal/CameraName.h"

#include <algorithm>
#include <array>

#include "session/files/Text.h"

namespace korimg::files {
namespace {

bool Contains(std::string_view text, std::string_view part) {
  return LowerCase(text).find(part) != std::string::npos;
}

/// Without blanks around it and with single ones inside.
std::string Tidy(std::string_view text) {
  std::string tidy;
  for (const char c : text) {
    const bool blank = c == ' ' || c == '\0' || c == '\t';
    if (!blank) {
      tidy += c;
    } else if (!tidy.empty() && tidy.back() != ' ') {
      tidy += ' ';
    }
  }
  if (tidy.ends_with(' ')) tidy.pop_back();
  return tidy;
}

/// Text without a word that it may begin with.
std::string Without(const std::string& text, std::string_view word) {
  const bool begins =
      text.size() > word.size() && text[word.size()] == ' ' && LowerCase(text).starts_with(word);
  return begins ? text.substr(word.size() + 1) : text;
}

/// What files and decoders call makers, longest first, and their names here.
struct Maker {
  const char *spelling, *name;
};
constexpr Maker kMakers[] = {{"konica minolta", "Konica Minolta"},
                             {"konica", "Konica Minolta"},
                             {"minolta", "Konica Minolta"},
                             {"canon", "Canon"},
                             {"nikon", "Nikon"},
                             {"pentax", "Pentax"},
                             {"asahi", "Pentax"},
                             {"ricoh", "Ricoh"},
                             {"fujifilm", "Fujifilm"},
                             {"olympus", "Olympus"},
                             {"om digital", "Olympus"},
                             {"sony", "Sony"}};

const Maker* FindMaker(std::string_view text) {
  const auto* found = std::find_if(std::begin(kMakers), std::end(kMakers),
                                   [&](const Maker& m) { return Contains(text, m.spelling); });
  return found == std::end(kMakers) ? nullptr : found;
}

/// Models made since Ricoh owns the mark, which some decoders still give to Pentax.
bool IsRicoh(const std::string& model) {
  constexpr std::array kModels{"k-3", "k-3 ii", "k-s1", "k-s2", "k-1", "k-1 mark ii", "k-70", "kp", "645z"};
  return std::find(kModels.begin(), kModels.end(), LowerCase(Without(model, "pentax"))) != kModels.end();
}

}  // namespace

std::pair<std::string, std::string> ListedName(std::string_view maker, std::string_view model) {
  std::string name = Tidy(model);
  const Maker* known = FindMaker(maker);
  if (!known) return {Tidy(maker), name};
  std::string by = known->name;
  if (by == "Canon") name = Without(name, "canon");
  if (by == "Nikon" && !LowerCase(name).starts_with("nikon")) name = "NIKON " + name;
  if (by == "Pentax" && IsRicoh(name)) by = "Ricoh";
  if (by == "Fujifilm" && LowerCase(name).starts_with("finepix ")) name.erase(7, 1);
  return {by, name};
}

std::pair<std::string, std::string> ListedName(std::string_view name) {
  const std::string tidy = Tidy(name);
  const Maker* known = FindMaker(tidy);
  if (!known || !LowerCase(tidy).starts_with(known->spelling)) return {};
  return ListedName(known->name, Without(tidy, known->spelling));
}

}  // namespace korimg::files
