#pragma once

#include <string>

#include "korimg/platform/Export.h"

namespace korimg {

/// Numbers of the first and the last entry of the string table.
constexpr int kFirstString = 6100;
constexpr int kLastString = 6205;

/// Answers a message's text by its number, 6100 to 6205; any other number, 0 among them, gives an empty text.
KORIMG_API const std::wstring& LoadString(int id);

}  // namespace korimg
