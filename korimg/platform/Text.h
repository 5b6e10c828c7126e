// Text as pixels.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "korimg/platform/CString.h"
#include "korimg/platform/Export.h"

/// A font by its looks.
struct LOGFONTW {
  std::int32_t lfHeight =
      0;                     ///< pixels: above 0 of a line, below 0 of the letters' square; 0 is a line of 16
  std::int32_t lfWidth = 0;  ///< pixels of a mean letter; 0 is the font's own proportion
  std::int32_t lfEscapement = 0;   ///< without effect: text runs to the right
  std::int32_t lfOrientation = 0;  ///< without effect
  std::int32_t lfWeight = 0;       ///< 100 to 900; 0 is 400
  std::uint8_t lfItalic = 0;
  std::uint8_t lfUnderline = 0;
  std::uint8_t lfStrikeOut = 0;
  std::uint8_t lfCharSet = 0;  ///< without effect, as are the next four: letters are Unicode
  std::uint8_t lfOutPrecision = 0;
  std::uint8_t lfClipPrecision = 0;
  std::uint8_t lfQuality = 0;
  std::uint8_t lfPitchAndFamily = 0;
  wchar_t lfFaceName[32] = {};  ///< empty: the system's font without serifs
};

namespace korimg {

/// The box of a line of text, and which of its pixels the letters cover.
struct TextPixels {
  int width = 0;
  int height = 0;
  std::vector<bool> covered;  ///< top line first
};

/// Draws one line of text without smoothing; the box is as high as a line of the font and as wide as the text
/// runs. Letters that the font lacks come from another one. Nothing for an empty box, and for one that is too
/// large to draw (32767 pixels).
KORIMG_API std::optional<TextPixels> DrawTextPixels(const CString& text, const LOGFONTW& font);

}  // namespace korimg
