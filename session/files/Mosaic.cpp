#include "session/files/Mosaic.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include <fmt/format.h>

#include "korimg/raw/internal/HoneycombLattice.h"

namespace korimg::files {
namespace {

constexpr struct {
  int number;
  const char* name;
} kPatterns[] = {{1, "RGGB"},        {2, "GRBG"},        {3, "BGGR"},        {4, "GBRG"},
                 {11, "HONEYCOMB1"}, {12, "HONEYCOMB2"}, {13, "HONEYCOMB3"}, {14, "HONEYCOMB4"}};

// Where red is in Bayer's cell: bit 0 its column, bit 1 its row.
constexpr int kRedOfBayer[] = {0b00, 0b01, 0b11, 0b10};

std::string Upper(std::string_view text) {
  std::string upper(text);
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  return upper;
}

}  // namespace

int CfaNumber(std::string_view pattern) {
  const std::string name = Upper(pattern);
  for (const auto& known : kPatterns) {
    if (name == known.name) return known.number;
  }
  return 0;
}

const char* CfaName(int number) {
  const auto* found = std::find_if(std::begin(kPatterns), std::end(kPatterns),
                                   [number](const auto& known) { return known.number == number; });
  return found->name;
}

std::vector<std::string> CfaNames() {
  std::vector<std::string> names;
  for (const auto& known : kPatterns) {
    names.emplace_back(known.name);
  }
  return names;
}

bool IsHoneycomb(int cfa) {
  return HoneycombLattice::Of(cfa).has_value();
}

RedSite FindRed(int cfa) {
  if (const auto lattice = HoneycombLattice::Of(cfa)) return {lattice->x, lattice->y};
  const int red = kRedOfBayer[cfa - 1];
  return {red & 1, red >> 1};
}

int CfaWithRed(int cfa, RedSite red) {
  if (IsHoneycomb(cfa)) return HoneycombLattice{red.x, red.y}.Number();
  const int wanted = (red.x & 1) | (red.y & 1) << 1;
  const auto* found = std::find(std::begin(kRedOfBayer), std::end(kRedOfBayer), wanted);
  return static_cast<int>(found - kRedOfBayer) + 1;
}

int CfaNumber(const MosaicLayout& layout) {
  RedSite red = FindRed(layout.pattern);
  red.x -= layout.xOffset + layout.cropX;
  red.y -= layout.yOffset;
  if (layout.rowOrder == RowOrder::BottomUp) red.y = layout.height - 1 - red.y;
  red.y -= layout.cropY;
  return CfaWithRed(layout.pattern, red);
}

Mosaic FindMosaic(const ImageInfo& info, const MosaicOptions& options) {
  const Header& header = info.header;
  Mosaic mosaic;
  MosaicLayout layout;
  layout.height = info.height;
  auto pattern = header.GetString("BAYERPAT"), type = header.GetString("COLORTYP");
  const auto filter = header.GetString("FILTER");
  if (pattern && pattern->empty()) pattern.reset();
  if (type && CfaNumber(*type) == 0) type.reset();  // other uses of it are no patterns
  bool byFilter = false;
  if (info.planes > 1) {
    return mosaic;
  } else if (!options.cfa.empty()) {
    mosaic.name = Upper(options.cfa);
    mosaic.reason = options.source;
  } else if (pattern || type) {
    mosaic.name = pattern ? *pattern : *type;
    mosaic.reason = pattern ? "by BAYERPAT" : "by COLORTYP";
    for (const auto& [key, offset] :
         {std::pair("XBAYROFF", &layout.xOffset), {"YBAYROFF", &layout.yOffset}}) {
      *offset = static_cast<int>(header.GetInt(key).value_or(0) & 3);
      if (IsHoneycomb(CfaNumber(mosaic.name))) {
        if (*offset) mosaic.reason += fmt::format(", {} {}", key, *offset);
      } else if (*offset & 1) {
        mosaic.reason += fmt::format(", {} odd", key);
      }
    }
  } else if (filter && CfaNumber(*filter) > 0) {
    byFilter = true;
    mosaic.name = *filter;
    mosaic.reason = "by FILTER";
  } else {
    return mosaic;
  }
  layout.pattern = CfaNumber(mosaic.name);
  if (layout.pattern == 0) return mosaic;
  const auto stored = header.GetString("ROWORDER");
  const std::string order = Upper(!options.rowOrder.empty() ? options.rowOrder : stored.value_or(""));
  const bool bottomUp = order.empty() ? byFilter : order.starts_with("BOTTOM");
  // What is said of the order is said of the stored rows; these may have been turned since.
  if (bottomUp != (header.turned && !order.empty())) layout.rowOrder = RowOrder::BottomUp;
  mosaic.cfa = CfaNumber(layout);
  mosaic.reason += fmt::format("; {} rows {} {}", info.height, bottomUp ? "bottom-up" : "top-down",
                               !options.rowOrder.empty() ? "as told"
                               : !order.empty()          ? "by ROWORDER"
                                                         : "by default");
  if (mosaic.cfa != layout.pattern) {
    mosaic.reason = fmt::format("{} {}", CfaName(layout.pattern), mosaic.reason);
  }
  if (mosaic.cfa == 0) {
    mosaic.reason += "; its first pixel lies between two sites";
    return mosaic;
  }
  mosaic.name = CfaName(mosaic.cfa);
  return mosaic;
}

int ColourOfSite(int cfa, int x, int y) {
  if (const auto lattice = HoneycombLattice::Of(cfa)) {
    return lattice->IsSite(x, y) ? lattice->ColourAt(x, y) : -1;
  }
  const RedSite red = FindRed(cfa);
  return ((x - red.x) & 1) + ((y - red.y) & 1);
}

void RemoveMosaic(Header& header) {
  for (const char* key : {"BAYERPAT", "XBAYROFF", "YBAYROFF", "BAYOFFX", "BAYOFFY", "COLORTYP"}) {
    header.Remove(key);
  }
  if (const auto filter = header.GetString("FILTER"); filter && CfaNumber(*filter) > 0)
    header.Remove("FILTER");
}

}  // namespace korimg::files
