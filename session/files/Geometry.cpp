#include "session/files/Geometry.h"

#include <array>
#include <cmath>
#include <numbers>
#include <regex>

#include <fmt/format.h>

#include "session/files/Mosaic.h"

namespace korimg::files {
namespace {

using Matrix = std::array<std::array<double, 2>, 2>;

constexpr Matrix kIdentity = {{{1, 0}, {0, 1}}};

Matrix operator*(const Matrix& a, const Matrix& b) {
  Matrix product{};
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 2; ++j) {
      product[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j];
    }
  }
  return product;
}

Matrix Linear(const AffineMap& map) {
  return {{{map.xx, map.xy}, {map.yx, map.yy}}};
}

bool IsMirror(const AffineMap& map) {
  return map.xy == 0 && map.yx == 0 && std::abs(map.xx) == 1 && std::abs(map.yy) == 1;
}

/// The letters that tell several descriptions apart: none, and A to Z.
std::vector<std::string> Alternates() {
  std::vector<std::string> all = {""};
  for (char letter = 'A'; letter <= 'Z'; ++letter) {
    all.emplace_back(1, letter);
  }
  return all;
}

/// "CD1_2" with the letter of a description.
std::string Key(const char* stem, int i, int j, const std::string& alternate) {
  return fmt::format("{}{}_{}{}", stem, i + 1, j + 1, alternate);
}

std::string Key(const char* stem, int i, const std::string& alternate) {
  return fmt::format("{}{}{}", stem, i + 1, alternate);
}

/// A matrix of cards, and whether there are any; those that are missing are those of `missing`.
struct CardMatrix {
  Matrix values;
  bool found = false;

  CardMatrix(const Header& header, const char* stem, const Matrix& missing, const std::string& alternate = "")
      : values(missing) {
    for (int i = 0; i < 2; ++i) {
      for (int j = 0; j < 2; ++j) {
        const auto value = header.GetDouble(Key(stem, i, j, alternate));
        found |= value.has_value();
        values[i][j] = value.value_or(missing[i][j]);
      }
    }
  }
};

void SetMatrix(Header& header, const char* stem, const Matrix& values, const std::string& alternate = "") {
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 2; ++j) {
      header.Set(Key(stem, i, j, alternate), values[i][j] + 0.0);  // no -0
    }
  }
}

bool HasWorldCoordinates(const Header& header, const std::string& alternate) {
  for (const char* stem : {"CRPIX", "CTYPE", "CRVAL", "CDELT"}) {
    if (header.GetString(Key(stem, 0, alternate)) || header.GetString(Key(stem, 1, alternate))) return true;
  }
  return CardMatrix(header, "CD", kIdentity, alternate).found ||
         CardMatrix(header, "PC", kIdentity, alternate).found;
}

/// A reference position that counts from 1, moved.
void MovePoint(Header& header, const std::string& keyX, const std::string& keyY, const AffineMap& map) {
  const double x = header.GetDouble(keyX).value_or(0) - 1, y = header.GetDouble(keyY).value_or(0) - 1;
  header.Set(keyX, map.xx * x + map.xy * y + map.tx + 1);
  header.Set(keyY, map.yx * x + map.yy * y + map.ty + 1);
}

std::array<double, 2> Steps(const Header& header, const std::string& alternate) {
  return {header.GetDouble(Key("CDELT", 0, alternate)).value_or(1),
          header.GetDouble(Key("CDELT", 1, alternate)).value_or(1)};
}

/// PC, or what CROTA2 says of it.
Matrix Turn(const Header& header, const std::string& alternate) {
  const CardMatrix pc(header, "PC", kIdentity, alternate);
  const auto degrees = header.GetDouble("CROTA2" + alternate);
  if (pc.found || !degrees) return pc.values;
  const auto [stepX, stepY] = Steps(header, alternate);
  const double sine = std::sin(*degrees * std::numbers::pi / 180),
               cosine = std::cos(*degrees * std::numbers::pi / 180);
  return {{{cosine, -sine * stepY / stepX}, {sine * stepX / stepY, cosine}}};
}

void RemoveTurn(Header& header, const std::string& alternate) {
  header.Remove("CROTA1" + alternate);
  header.Remove("CROTA2" + alternate);
}

/// The linear part in the form it came in: as CD, or with the change of scale in CDELT and the rest in PC.
void MoveLinear(Header& header, const AffineMap& map, const std::string& alternate) {
  const Matrix inverse = Linear(map.Inverse());
  if (inverse == kIdentity) return;
  if (const CardMatrix cd(header, "CD", {}, alternate); cd.found) {
    SetMatrix(header, "CD", cd.values * inverse, alternate);
    // Beside CD they say nothing, or the same in an older form.
    header.Remove("CDELT1" + alternate);
    header.Remove("CDELT2" + alternate);
    RemoveTurn(header, alternate);
    return;
  }
  const double size = std::sqrt(std::abs(map.Inverse().Determinant()));
  const Matrix turn = {
      {{inverse[0][0] / size, inverse[0][1] / size}, {inverse[1][0] / size, inverse[1][1] / size}}};
  if (turn != kIdentity) {
    const Matrix pc = Turn(header, alternate) * turn;
    RemoveTurn(header, alternate);
    SetMatrix(header, "PC", pc, alternate);
  }
  const auto steps = Steps(header, alternate);
  for (int i = 0; i < 2; ++i) {
    header.Set(Key("CDELT", i, alternate), steps[i] * size);
  }
}

/// True for A_2_0, BP_1_1, A_ORDER and the like; p and q are -1 where there are none.
bool IsSip(const std::string& name, int& p, int& q) {
  static const std::regex form("[AB]P?_(([0-9]+)_([0-9]+)|ORDER|DMAX)");
  std::smatch match;
  if (!std::regex_match(name, match, form)) return false;
  p = match[2].matched ? std::stoi(match[2]) : -1;
  q = match[3].matched ? std::stoi(match[3]) : -1;
  return true;
}

/// Tables of distortions that lie in extensions, and what says that there are some.
bool IsTable(const std::string& name) {
  for (const char* stem : {"CPDIS", "CQDIS", "D2IMDIS", "D2IMERR", "CPERR", "CQERR"}) {
    if (name.starts_with(stem)) return true;
  }
  return name == "DP1" || name == "DP2" || name == "DQ1" || name == "DQ2" || name.starts_with("DP1.") ||
         name.starts_with("DP2.");
}

std::string NameOf(const std::string& card) {
  const std::string name = card.substr(0, std::min<size_t>(8, card.find_first_of(" =")));
  return name.substr(0, name.find_last_not_of(' ') + 1);
}

/// Takes "-SIP" off the names of the axes.
void RemoveSipFromTypes(Header& header) {
  constexpr std::string_view kSip = "-SIP";
  for (const std::string& alternate : Alternates()) {
    for (int i = 0; i < 2; ++i) {
      const std::string key = Key("CTYPE", i, alternate);
      const auto type = header.GetString(key);
      if (type && type->ends_with(kSip)) header.Set(key, type->substr(0, type->size() - kSip.size()));
    }
  }
}

void MoveDistortions(Header& header, const AffineMap& map) {
  if (Linear(map) == kIdentity) return;
  const bool isStraight = map.xy == 0 && map.yx == 0;  // scaled or mirrored
  bool dropped = false;
  for (const std::string& card : std::vector<std::string>(header.cards)) {
    const std::string name = NameOf(card);
    int p = -1, q = -1;
    const bool sip = IsSip(name, p, q);
    if (!sip && !IsTable(name)) continue;
    if (!sip || !isStraight) {
      header.Remove(name);
      dropped = true;
    } else if (p >= 0) {
      // The corrections of x and of y are in pixels, and so are what they are powers of.
      const double own = name[0] == 'A' ? map.xx : map.yy;
      header.Set(name,
                 header.GetDouble(name).value_or(0) * own * std::pow(map.xx, -p) * std::pow(map.yy, -q));
    }
  }
  if (!dropped) return;
  if (!isStraight) RemoveSipFromTypes(header);
  header.AddHistory("korimg dropped the distortion terms: they do not fit the moved pixels");
}

/// What is said of the size of pixels and of their place on the sensor.
void MovePixelSizes(Header& header, const AffineMap& map) {
  if (Linear(map) == kIdentity) {
    for (const auto& [key, shift] : {std::pair("XORGSUBF", map.tx), {"YORGSUBF", map.ty}}) {
      if (const auto origin = header.GetDouble(key)) header.Set(key, *origin - shift);
    }
    return;
  }
  const AffineMap inverse = map.Inverse();
  for (const auto& [keyX, keyY] : {std::pair("XPIXSZ", "YPIXSZ"), {"PIXSIZE1", "PIXSIZE2"}}) {
    const auto x = header.GetDouble(keyX), y = header.GetDouble(keyY);
    if (!x && !y) continue;
    const double oldX = x.value_or(*(y ? y : x)), oldY = y.value_or(oldX);
    if (x) header.Set(keyX, std::hypot(inverse.xx * oldX, inverse.yx * oldY));
    if (y) header.Set(keyY, std::hypot(inverse.xy * oldX, inverse.yy * oldY));
  }
  for (const char* key : {"SCALE", "PIXSCALE", "SECPIX"}) {
    if (const auto scale = header.GetDouble(key))
      header.Set(key, *scale * std::sqrt(std::abs(inverse.Determinant())));
  }
}

Mosaic MosaicOf(const Header& header, const ImageSize& size) {
  ImageInfo info;
  info.height = size.height;
  info.planes = size.planes;
  info.header = header;
  return FindMosaic(info);
}

/// Writes the pattern that the moved mosaic has; false where it has none.
bool MoveMosaic(Header& header, const ImageSize& before, const ImageSize& after, const AffineMap& map) {
  const Mosaic mosaic = MosaicOf(header, before);
  if (mosaic.name.empty()) return true;
  if (mosaic.cfa == 0 || !IsMirror(map)) return false;
  const AffineMap inverse = map.Inverse();
  if (inverse.tx != std::floor(inverse.tx) || inverse.ty != std::floor(inverse.ty)) return false;
  constexpr double kPeriod = 4;  // of all mosaics
  const auto [x, y] = FindRed(mosaic.cfa);
  const int wanted = CfaWithRed(mosaic.cfa, {static_cast<int>(std::fmod(map.xx * x + map.tx, kPeriod)),
                                             static_cast<int>(std::fmod(map.yy * y + map.ty, kPeriod))});
  if (wanted == 0) return false;
  const char* key = header.GetString("BAYERPAT")   ? "BAYERPAT"
                    : header.GetString("COLORTYP") ? "COLORTYP"
                                                   : "FILTER";
  for (const char* offset : {"XBAYROFF", "YBAYROFF"}) {
    if (header.GetString(offset)) header.Set(offset, 0);
  }
  for (const std::string& name : CfaNames()) {
    header.Set(key, name);
    if (MosaicOf(header, after).cfa == wanted) return true;
  }
  return false;
}

}  // namespace

AffineMap AffineMap::Inverse() const {
  const double d = Determinant();
  AffineMap inverse{.xx = yy / d, .xy = -xy / d, .yx = -yx / d, .yy = xx / d};
  inverse.tx = -(inverse.xx * tx + inverse.xy * ty);
  inverse.ty = -(inverse.yx * tx + inverse.yy * ty);
  return inverse;
}

AffineMap AffineMap::Then(const AffineMap& next) const {
  const Matrix product = Linear(next) * Linear(*this);
  return {.xx = product[0][0],
          .xy = product[0][1],
          .yx = product[1][0],
          .yy = product[1][1],
          .tx = next.xx * tx + next.xy * ty + next.tx,
          .ty = next.yx * tx + next.yy * ty + next.ty};
}

namespace {

/// Brings everything along but the mosaic.
void MoveCoordinates(Header& moved, const AffineMap& map) {
  for (const std::string& alternate : Alternates()) {
    if (!HasWorldCoordinates(moved, alternate)) continue;
    MovePoint(moved, "CRPIX1" + alternate, "CRPIX2" + alternate, map);
    MoveLinear(moved, map, alternate);
  }
  const CardMatrix physical(moved, "LTM", kIdentity);
  if (physical.found || moved.GetString("LTV1") || moved.GetString("LTV2")) {
    MovePoint(moved, "LTV1", "LTV2", map);
    if (Linear(map) != kIdentity) SetMatrix(moved, "LTM", Linear(map) * physical.values);
  }
  MoveDistortions(moved, map);
  MovePixelSizes(moved, map);
}

/// The world coordinates' matrix where they are those of the sky.
std::optional<Matrix> SkyMatrix(const Header& header) {
  const auto type = header.GetString("CTYPE1");
  const bool sky = type && (type->starts_with("RA-") || type->starts_with("DEC-") ||
                            type->find("LON-") == 1 || type->find("LAT-") == 1);
  if (!sky) return std::nullopt;
  CardMatrix cd(header, "CD", {});
  if (!cd.found && header.GetDouble("CDELT1")) {
    const auto [x, y] = Steps(header, "");
    cd.values = Matrix{{{x, 0}, {0, y}}} * Turn(header, "");
  }
  return cd.values;
}

double Determinant(const Matrix& m) {
  return m[0][0] * m[1][1] - m[0][1] * m[1][0];
}

}  // namespace

bool MoveHeader(Header& header, const ImageSize& before, const ImageSize& after, const AffineMap& map) {
  Header moved = header;
  if (!MoveMosaic(moved, before, after, map)) return false;
  MoveCoordinates(moved, map);
  header = std::move(moved);
  return true;
}

bool LiesOverturned(const Header& served, const Header& other) {
  const bool bothSay = served.GetString("ROWORDER") && other.GetString("ROWORDER");
  return !bothSay && served.turned != other.turned;
}

void DropSip(Header& header, const std::string& reason) {
  bool dropped = false;
  for (const std::string& card : std::vector<std::string>(header.cards)) {
    int p = -1, q = -1;
    if (!IsSip(NameOf(card), p, q)) continue;
    header.Remove(NameOf(card));
    dropped = true;
  }
  if (!dropped) return;
  RemoveSipFromTypes(header);
  header.AddHistory("korimg dropped the distortion terms: " + reason);
}

bool RowsRunUp(const Header& header, bool bySky) {
  const auto order = header.GetString("ROWORDER");
  if (order) return order->starts_with("BOTTOM") || order->starts_with("bottom");
  const auto matrix = bySky ? SkyMatrix(header) : std::nullopt;
  if (!matrix) return false;
  // Longitudes grow to the left of north on the sky.
  const std::string type = *header.GetString("CTYPE1");
  const bool longitudeFirst = type.starts_with("RA-") || type.find("LON-") == 1;
  const double determinant = Determinant(*matrix);
  return longitudeFirst ? determinant < 0 : determinant > 0;
}

bool IsPictureOverturned(const Header& header) {
  return !header.turned && RowsRunUp(header, true);
}

bool TurnRows(Header& header, const ImageSize& size) {
  const AffineMap turn{.yy = -1, .ty = size.height - 1.0};
  if (!header.GetString("ROWORDER")) return MoveHeader(header, size, size, turn);
  MoveCoordinates(header, turn);
  return true;
}

bool DropWorldCoordinates(Header& header, const ImageSize& before, const std::string& reason) {
  if (!MosaicOf(header, before).name.empty()) return false;
  bool dropped = false;
  const auto remove = [&](const std::string& key) {
    dropped |= header.GetString(key).has_value();
    header.Remove(key);
  };
  for (const std::string& alternate : Alternates()) {
    for (const char* stem : {"CRPIX", "CRVAL", "CTYPE", "CUNIT", "CDELT", "CROTA"}) {
      remove(Key(stem, 0, alternate));
      remove(Key(stem, 1, alternate));
    }
    for (const char* stem : {"CD", "PC"}) {
      for (int n = 0; n < 4; ++n) {
        remove(Key(stem, n / 2, n % 2, alternate));
      }
    }
    for (const char* key : {"WCSAXES", "WCSNAME", "LONPOLE", "LATPOLE", "RADESYS"}) {
      if (alternate.empty() || header.GetString(key + alternate)) remove(key + alternate);
    }
  }
  for (const char* key : {"LTV1", "LTV2", "LTM1_1", "LTM1_2", "LTM2_1", "LTM2_2"}) {
    remove(key);
  }
  for (const std::string& card : std::vector<std::string>(header.cards)) {
    const std::string name = NameOf(card);
    int p = 0, q = 0;
    const bool projection = name.starts_with("PV1_") || name.starts_with("PV2_");
    if (projection || IsSip(name, p, q) || IsTable(name)) remove(name);
  }
  if (dropped) header.AddHistory("korimg dropped the world coordinates: " + reason);
  return true;
}

std::optional<double> PixelScale(const Header& header) {
  constexpr double kSecondsPerDegree = 3600, kSecondsPerMillimetre = 206.264806247;
  if (const auto matrix = SkyMatrix(header)) {
    const double area = Determinant(*matrix);
    if (area != 0 && std::isfinite(area)) return std::sqrt(std::abs(area)) * kSecondsPerDegree;
  }
  for (const char* key : {"SCALE", "PIXSCALE"}) {
    if (const auto scale = header.GetDouble(key); scale && *scale > 0) return scale;
  }
  const auto focal = header.GetDouble("FOCALLEN"), pixel = header.GetDouble("XPIXSZ");
  if (focal && pixel && *focal > 0 && *pixel > 0) return *pixel / *focal * kSecondsPerMillimetre;
  return std::nullopt;
}

}  // namespace korimg::files
