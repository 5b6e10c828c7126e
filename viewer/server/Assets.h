// The files of the page, which are part of the program.
#pragma once

#include <string_view>
#include <vector>

namespace korimg::viewer {

struct Asset {
  std::string_view name, type, bytes;
};

const std::vector<Asset>& Assets();

}  // namespace korimg::viewer
