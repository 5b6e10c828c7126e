#include "korimg/platform/CRegistry.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

#include "korimg/platform/Debug.h"

namespace {

using korimg::SettingsProvider;

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// An INI file, read once: "[section]", "key = value", comments from ';' or '#'.
class IniFile : public SettingsProvider {
 public:
  explicit IniFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string section;
    for (std::string line; std::getline(in, line);) {
      line = Trim(line);
      if (line.empty() || line[0] == ';' || line[0] == '#') continue;
      const size_t equals = line.find('=');
      if (line[0] == '[') {
        section = Trim(line.substr(1, line.find(']') - 1));
      } else if (equals != std::string::npos) {
        values_[{section, Trim(line.substr(0, equals))}] = Trim(line.substr(equals + 1));
      }
    }
  }

  std::optional<std::string> Get(const std::string& section, const std::string& key) const override {
    const auto found = values_.find({section, key});
    if (found == values_.end()) return std::nullopt;
    return found->second;
  }

 private:
  std::map<std::pair<std::string, std::string>, std::string> values_;
};

std::filesystem::path DefaultPath() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config && *config) return std::filesystem::path(config) / "korimg" / "korimg.ini";
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home ? home : ".") / ".config" / "korimg" / "korimg.ini";
}

std::mutex g_mutex;
std::shared_ptr<const SettingsProvider> g_provider;

std::shared_ptr<const SettingsProvider> Provider() {
  const std::lock_guard lock(g_mutex);
  if (!g_provider) g_provider = std::make_shared<IniFile>(DefaultPath());
  return g_provider;
}

/// The number that a text begins with, with a decimal point in every locale.
template <class T>
bool ReadNumber(const wchar_t* section, const wchar_t* key, T defaultValue, T* value) {
  *value = defaultValue;
  const std::optional<std::string> text = Provider()->Get(korimg::Narrow(section), korimg::Narrow(key));
  if (!text) return false;
  std::string_view number = *text;
  number.remove_prefix(std::min(number.find_first_not_of(" \t+"), number.size()));
  T parsed{};
  if (std::from_chars(number.data(), number.data() + number.size(), parsed).ec != std::errc()) return false;
  *value = parsed;
  return true;
}

}  // namespace

bool CRegistry::Read(const wchar_t* section, const wchar_t* key, int defaultValue, int* value) {
  return ReadNumber(section, key, defaultValue, value);
}

bool CRegistry::Read(const wchar_t* section, const wchar_t* key, double defaultValue, double* value) {
  return ReadNumber(section, key, defaultValue, value);
}

void CRegistry::SetProvider(std::shared_ptr<const SettingsProvider> provider) {
  const std::lock_guard lock(g_mutex);
  g_provider = std::move(provider);
}
