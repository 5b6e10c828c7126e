#include "session/compose/Palette.h"

#include <algorithm>
#include <cctype>
#include <regex>
#include <set>
#include <utility>

#include <fmt/format.h>

namespace korimg::session {
namespace {

struct Kind {
  const char* name;
  std::vector<std::string> words;
};

const std::vector<Kind> kKinds = {
    {"L", {"l", "lum", "luminance", "clear"}},
    {"R", {"r", "red"}},
    {"G", {"g", "green", "v"}},
    {"B", {"b", "blue"}},
    {"Ha", {"ha", "halpha", "hydrogenalpha"}},
    {"OIII", {"oiii", "o3", "oxygeniii"}},
    {"SII", {"sii", "s2", "sulfurii", "sulphurii"}},
};

std::string KindOfWord(const std::string& word) {
  for (const Kind& kind : kKinds) {
    if (std::find(kind.words.begin(), kind.words.end(), word) != kind.words.end()) return kind.name;
  }
  return "";
}

/// Kinds of filters that become luminance, red, green and blue; the first one may be empty.
struct Recipe {
  Palette palette;
  const char* kinds[4];
};

constexpr Recipe kRecipes[] = {{Palette::Rgb, {"L", "R", "G", "B"}},
                               {Palette::Rgb, {"", "R", "G", "B"}},
                               {Palette::Sho, {"", "SII", "Ha", "OIII"}},
                               {Palette::Hoo, {"", "Ha", "OIII", "OIII"}}};

}  // namespace

std::string KindOfFilter(const std::string& given) {
  // Widths are no part of a name, as in Ha7nm; filters of two bands at once are none of these.
  static const std::regex width("[0-9]+([.][0-9]+)? *nm", std::regex::icase),
      several("extreme|enhance|ultimate|duo|dual|tri-?band|quad|multi", std::regex::icase);
  if (std::regex_search(given, several)) return "";
  const std::string name = std::regex_replace(given, width, " ");
  std::string word, before;
  std::set<std::string> kinds;
  for (const char c : name + " ") {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      continue;
    }
    kinds.insert(KindOfWord(word));
    kinds.insert(KindOfWord(before + word));  // as in H-alpha
    before = std::exchange(word, "");
  }
  kinds.erase("");
  return kinds.size() == 1 ? *kinds.begin() : "";
}

std::optional<ColourPlan> PlanColours(Palette palette, const std::vector<std::string>& filters) {
  if (palette == Palette::None) return {};
  std::vector<std::string> kinds;
  for (const std::string& filter : filters) {
    kinds.push_back(KindOfFilter(filter));
  }
  std::string missing;
  for (const Recipe& recipe : kRecipes) {
    if (palette != Palette::Auto && palette != recipe.palette) continue;
    ColourPlan plan;
    missing.clear();
    constexpr const char* kColours[] = {"luminance", "red", "green", "blue"};
    for (int c = 0; c < 4; ++c) {
      const std::string kind = recipe.kinds[c];
      if (kind.empty()) continue;
      const auto found = std::find(kinds.begin(), kinds.end(), kind);
      if (found == kinds.end()) {
        if (missing.find(kind) == std::string::npos) missing += (missing.empty() ? "" : ", ") + kind;
        continue;
      }
      plan.filters.push_back(static_cast<size_t>(found - kinds.begin()));
      plan.text +=
          fmt::format("{}{} {}", plan.text.empty() ? "" : ", ", kColours[c], filters[plan.filters.back()]);
      if (c == 0) plan.composition = Composition::Lrgb;
    }
    if (missing.empty()) return plan;
  }
  if (palette == Palette::Auto) return {};
  throw UsageError(fmt::format("--palette {}: there are no lights through a filter {}",
                               NameOf(kPalettes, palette), missing));
}

}  // namespace korimg::session
