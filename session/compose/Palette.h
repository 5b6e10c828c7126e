// Which filters of a session become which colours.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "session/Export.h"
#include "session/compose/Compose.h"
#include "session/job/Named.h"

namespace korimg::session {

/// Names the colours that narrow bands are shown in: SHO gives SII, Ha and OIII to red, green and blue, HOO
/// Ha to red and OIII to both others. Auto takes Rgb where there are such filters, else SHO, else HOO.
enum class Palette { Auto, Rgb, Sho, Hoo, None };

inline const std::vector<Named<Palette>> kPalettes = {{"auto", Palette::Auto},
                                                      {"rgb", Palette::Rgb},
                                                      {"sho", Palette::Sho},
                                                      {"hoo", Palette::Hoo},
                                                      {"none", Palette::None}};

/// Tells what a filter is by its name, as capture programs and their users write it: "L", "R", "G", "B",
/// "Ha", "OIII" or "SII" for Lum, red, Green, H-alpha, O3 and their like; empty for others. A word of the
/// name is enough, as in "Ha 7nm".
KORIMG_SESSION_API std::string KindOfFilter(const std::string& given);

/// Plans a colour image of filters.
struct ColourPlan {
  Composition composition = Composition::Rgb;
  std::vector<size_t> filters;  ///< of the sources of Compose: numbers in the list of names
  /// As in "luminance L, red R, green G, blue B".
  std::string text;
};

/// Tells what can be composed of filters; none when colours are missing. The first filter of a kind counts.
/// @throws UsageError for a palette that was asked for by name and lacks a filter
KORIMG_SESSION_API std::optional<ColourPlan> PlanColours(Palette palette,
                                                         const std::vector<std::string>& filters);

}  // namespace korimg::session
