// FITS header cards: finding, setting, and choosing those that belong into an output.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>

#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/files/ImageFile.h"

namespace korimg::files {

namespace {

constexpr std::size_t kCard = 80;

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string Pad(std::string card) {
  card.resize(kCard, ' ');
  return card;
}

/// A card taken apart: its name, and the text after "= " if it has a value.
struct Parts {
  std::string_view name;
  std::optional<std::string_view> value;
};

Parts Split(std::string_view card) {
  const std::string_view name = Trim(card.substr(0, 8));
  if (card.size() <= 10) return {name, std::nullopt};
  if (name == "HIERARCH") {
    const std::size_t equals = card.find('=');
    if (equals == card.npos) return {name, std::nullopt};
    return {Trim(card.substr(8, equals - 8)), card.substr(equals + 1)};
  }
  if (card.substr(8, 2) == "= ") return {name, card.substr(10)};
  return {name, std::nullopt};
}

bool IsContinuation(std::string_view card) {
  return card.starts_with("CONTINUE  ");
}

/// The text between quotes at the start of a value field; none if there is no closed string.
std::optional<std::string> Quoted(std::string_view field) {
  field = Trim(field);
  if (!field.starts_with('\'')) return std::nullopt;
  std::string text;
  for (std::size_t i = 1; i < field.size(); ++i) {
    if (field[i] == '\'') {
      if (i + 1 == field.size() || field[i + 1] != '\'') break;
      ++i;
    }
    text += field[i];
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

std::string Allowed(std::string_view text) {
  std::string result(text);
  std::replace_if(
      result.begin(), result.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return result;
}

std::string Upper(std::string_view text) {
  std::string result = Allowed(text);
  for (char& c : result) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return result;
}

/// "NAME    = " or "HIERARCH LONGER NAME = ".
std::string Start(std::string_view key) {
  return key.size() <= 8 && key.find(' ') == key.npos ? fmt::format("{:8}= ", key)
                                                      : fmt::format("HIERARCH {} = ", key);
}

void AppendComment(std::string& card, std::string_view comment) {
  if (!comment.empty() && card.size() + 3 < kCard) card += " / " + Allowed(comment);
}

/// The cards of a string value: one, or as many as it takes with CONTINUE.
std::vector<std::string> StringCards(std::string_view key, std::string_view value, std::string_view comment) {
  std::vector<std::string> cards;
  std::string card = Start(key) + "'";
  for (const char c : Allowed(value)) {
    const std::string_view piece = c == '\'' ? std::string_view("''") : std::string_view(&c, 1);
    if (card.size() + piece.size() + 2 > kCard) {  // room for "&'"
      cards.push_back(Pad(card + "&'"));
      card = "CONTINUE  '";
    }
    card += piece;
  }
  // Short strings are padded to 8 characters, as old readers want.
  if (cards.empty()) card.resize(std::max(card.size(), Start(key).size() + 9), ' ');
  card += "'";
  AppendComment(card, comment);
  cards.push_back(Pad(card));
  return cards;
}

std::vector<std::string> NumberCards(std::string_view key, std::string_view value, std::string_view comment) {
  std::string card = Start(key) + fmt::format("{:>20}", value);
  AppendComment(card, comment);
  return {Pad(card)};
}

/// Replaces the first card of that name by new ones, and removes the others.
void Replace(Header& header, std::string_view key, const std::vector<std::string>& cards) {
  std::size_t place = header.cards.size();
  for (std::size_t i = 0; i < header.cards.size(); ++i) {
    if (Split(header.cards[i]).name == key) {
      place = i;
      break;
    }
  }
  header.Remove(key);
  header.cards.insert(header.cards.begin() + static_cast<std::ptrdiff_t>(place), cards.begin(), cards.end());
}

/// True if `name` is `stem` followed by nothing or, where `numbered`, by digits only.
bool Matches(std::string_view name, std::string_view stem, bool numbered) {
  if (!name.starts_with(stem)) return false;
  name.remove_prefix(stem.size());
  return name.empty() || (numbered && name.find_first_not_of("0123456789") == name.npos);
}

bool DescribesSource(std::string_view name) {
  constexpr std::array kPlain = {"SIMPLE",   "XTENSION", "BITPIX",   "EXTEND",   "PCOUNT",   "GCOUNT",
                                 "GROUPS",   "BZERO",    "BSCALE",   "BLANK",    "CHECKSUM", "DATASUM",
                                 "DATAMIN",  "DATAMAX",  "END",      "BLOCKED",  "INHERIT",  "ZIMAGE",
                                 "ZCMPTYPE", "ZBITPIX",  "ZMASKCMP", "ZQUANTIZ", "ZDITHER0", "ZSIMPLE",
                                 "ZTENSION", "ZEXTEND",  "ZBLOCKED", "ZPCOUNT",  "ZGCOUNT",  "ZHECKSUM",
                                 "ZDATASUM", "ZSCALE",   "ZZERO",    "ZBLANK",   "CBLACK",   "CWHITE"};
  constexpr std::array kNumbered = {"NAXIS", "ZNAXIS", "ZTILE", "ZNAME", "ZVAL"};
  return std::any_of(kPlain.begin(), kPlain.end(), [&](auto stem) { return Matches(name, stem, false); }) ||
         std::any_of(kNumbered.begin(), kNumbered.end(),
                     [&](auto stem) { return Matches(name, stem, true); });
}

std::optional<double> ToDouble(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == 'D' || c == 'd'; }, 'E');
  std::string_view digits = Trim(text);
  if (digits.starts_with('+')) digits.remove_prefix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::string> Header::GetString(std::string_view key) const {
  for (std::size_t i = 0; i < cards.size(); ++i) {
    const Parts parts = Split(cards[i]);
    if (parts.name != key || !parts.value) continue;
    std::optional<std::string> text = Quoted(*parts.value);
    if (!text) {
      const std::string_view plain = Trim(parts.value->substr(0, parts.value->find('/')));
      return plain.empty() ? std::nullopt : std::optional<std::string>(plain);
    }
    while (text->ends_with('&') && ++i < cards.size() && IsContinuation(cards[i])) {
      text->pop_back();
      *text += Quoted(std::string_view(cards[i]).substr(10)).value_or("");
    }
    return text;
  }
  return std::nullopt;
}

std::optional<double> Header::GetDouble(std::string_view key) const {
  const std::optional<std::string> text = GetString(key);
  return text ? ToDouble(*text) : std::nullopt;
}

std::optional<std::int64_t> Header::GetInt(std::string_view key) const {
  const std::optional<double> value = GetDouble(key);
  constexpr double kExact = 9007199254740992.0;  // 2^53
  if (!value || std::floor(*value) != *value || std::abs(*value) > kExact) return std::nullopt;
  return static_cast<std::int64_t>(*value);
}

void Header::Set(std::string_view key, std::string_view value, std::string_view comment) {
  const std::string name = Upper(key);
  Replace(*this, name, StringCards(name, value, comment));
}

void Header::Set(std::string_view key, const char* value, std::string_view comment) {
  Set(key, std::string_view(value), comment);
}

void Header::Set(std::string_view key, double value, std::string_view comment) {
  const std::string name = Upper(key);
  std::string text = fmt::format("{}", value);
  // FITS has no number that is not finite: an empty value says "undefined".
  if (!std::isfinite(value)) text.clear();
  std::replace(text.begin(), text.end(), 'e', 'E');
  Replace(*this, name, NumberCards(name, text, comment));
}

void Header::Set(std::string_view key, std::int64_t value, std::string_view comment) {
  const std::string name = Upper(key);
  Replace(*this, name, NumberCards(name, std::to_string(value), comment));
}

void Header::Set(std::string_view key, int value, std::string_view comment) {
  Set(key, static_cast<std::int64_t>(value), comment);
}

void Header::Remove(std::string_view key) {
  bool removing = false;
  std::erase_if(cards, [&](const std::string& card) {
    removing = Split(card).name == key || (removing && IsContinuation(card));
    return removing;
  });
}

void Header::AddHistory(std::string_view text) {
  constexpr std::size_t kRoom = kCard - 8;
  const std::string allowed = Allowed(text);
  std::string_view rest = allowed;
  do {
    std::size_t length = std::min(rest.size(), kRoom);
    if (length < rest.size()) {
      const std::size_t blank = rest.rfind(' ', length);
      if (blank != rest.npos && blank > 0) length = blank;
    }
    cards.push_back(Pad(fmt::format("HISTORY {}", rest.substr(0, length))));
    rest.remove_prefix(length);
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  } while (!rest.empty());
}

std::vector<std::string> Header::CardsForOutput() const {
  Header output;
  bool dropping = false;
  for (const std::string& card : cards) {
    dropping = DescribesSource(Split(card).name) || (dropping && IsContinuation(card));
    if (!dropping) output.cards.push_back(Pad(card));
  }
  const std::time_t now = TimeOfWriting();
  std::tm utc = {};
  gmtime_r(&now, &utc);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  output.Set("DATE", date, "UTC of writing this file");
  output.Set("SWMODIFY", "korimg " KORIMG_VERSION, "program that wrote this file");
  return output.cards;
}

}  // namespace korimg::files
