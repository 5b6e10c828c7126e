#pragma once

#include <memory>
#include <optional>
#include <string>

#include "korimg/platform/Export.h"

namespace korimg {

/// Tells where settings come from. Section names are paths with backslashes, as in "Dialog\\AutoStretch".
class KORIMG_API SettingsProvider {
 public:
  virtual ~SettingsProvider() = default;
  /// Answers the text of a setting, or nothing when it isn't set. Called from any thread.
  virtual std::optional<std::string> Get(const std::string& section, const std::string& key) const = 0;
};

}  // namespace korimg

/// Reads the application's settings.
class KORIMG_API CRegistry {
 public:
  /// Reads a number; the default when it isn't set or is no number. True when the setting was there.
  static bool Read(const wchar_t* section, const wchar_t* key, int defaultValue, int* value);
  static bool Read(const wchar_t* section, const wchar_t* key, double defaultValue, double* value);

  /// Replaces the provider. Null brings back the default: korimg/korimg.ini in the user's configuration
  /// directory.
  static void SetProvider(std::shared_ptr<const korimg::SettingsProvider> provider);
};
