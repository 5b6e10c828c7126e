// Names of cameras, as files spell them and as the library's lists do.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "session/Export.h"

namespace korimg::files {

/// Answers maker and model as the library's lists of cameras spell them, whatever the file says: Canon's
/// models without the maker ("EOS 6D"), Nikon's with it ("NIKON D750").
KORIMG_SESSION_API std::pair<std::string, std::string> ListedName(std::string_view maker,
                                                                  std::string_view model);

/// Does the same for a name in one piece, as headers have it ("Canon EOS 6D"). Empty: no known maker of
/// cameras.
KORIMG_SESSION_API std::pair<std::string, std::string> ListedName(std::string_view name);

}  // namespace korimg::files
