#include "session/files/Mosaic.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include <fmt/format.h>

namespace korimg::files {
namespace {

constexpr const char* kNames[] = {"RGGB", "GRBG", "BGGR", "GBRG"};

std::string Upper(std::string_view text) {
  std::string upper(text);
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  return upper;
}

}  // namespace

int CfaNumber(std::string_view pattern) {
  const auto* found = std::find(std::begin(kNames), std::end(kNames), Upper(pattern));
  return found == std::end(kNames) ? 0 : static_cast<int>(found - kNames) + 1;
}

const char* CfaName(int number) {
  return kNames[number - 1];
}

int CfaNumber(const BayerLayout& layout) {
  // Where red is in the cell: bit 0 its column, bit 1 its row.
  constexpr int kRed[] = {0b00, 0b01, 0b11, 0b10};
  const int first = layout.rowOrder == RowOrder::BottomUp ? layout.height - 1 : 0;
  const int columns = layout.xOffset + layout.cropX, rows = layout.yOffset + first + layout.cropY;
  const int red = kRed[layout.pattern - 1] ^ (columns & 1) ^ (rows & 1) << 1;
  return static_cast<int>(std::find(std::begin(kRed), std::end(kRed), red) - kRed) + 1;
}

Mosaic FindMosaic(const ImageInfo& info, const MosaicOptions& options) {
  const Header& header = info.header;
  Mosaic mosaic;
  BayerLayout layout;
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
      const int odd = static_cast<int>(header.GetInt(key).value_or(0) & 1);
      *offset = odd;
      if (odd) mosaic.reason += fmt::format(", {} odd", key);
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
  mosaic.name = CfaName(mosaic.cfa);
  return mosaic;
}

void RemoveMosaic(Header& header) {
  for (const char* key : {"BAYERPAT", "XBAYROFF", "YBAYROFF", "BAYOFFX", "BAYOFFY", "COLORTYP"}) {
    header.Remove(key);
  }
  if (const auto filter = header.GetString("FILTER"); filter && CfaNumber(*filter) > 0)
    header.Remove("FILTER");
}

}  // namespace korimg::files
