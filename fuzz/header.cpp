// The cards of a header: read, changed, moved along with pixels, and chosen for output.
#include <cmath>

#include "fuzz/Support.h"
#include "session/files/Geometry.h"
#include "session/files/Mosaic.h"

using namespace korimg;
using namespace korimg::files;

namespace {

void ExpectCards(const std::vector<std::string>& cards) {
  for (const std::string& card : cards) {
    fuzz::Expect(card.size() == 80, "80 characters: " + card);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ImageInfo info{.format = "FITS", .width = 40, .height = 30, .type = "uint16"};
  // A card for each line, so that mutations keep the others in place; of 80 characters, as readers give them.
  std::string_view text(reinterpret_cast<const char*>(data), size);
  constexpr std::size_t kMost = 24;  // each card is looked for among all
  while (!text.empty() && info.header.cards.size() < kMost) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string card(text.substr(0, end));
    card.resize(80, ' ');
    info.header.cards.push_back(std::move(card));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  Header& header = info.header;
  const Header before = header;
  for (const std::string& card : before.cards) {
    const std::string key = card.substr(0, card.find_first_of(" ="));
    header.GetString(key);
    if (const auto number = header.GetDouble(key)) {
      header.Set(key, *number, "comment");
      const auto again = header.GetDouble(key);
      fuzz::Expect(!std::isfinite(*number) || again == number, "a number survives: " + card);
    }
    header.GetInt(key);
  }
  FindMosaic(info);
  PixelScale(header);
  const AffineMap maps[] = {AffineMap::Shift(3, -2),
                            {.xx = -1, .tx = 39},
                            {.xx = 0.5, .yy = 2},
                            {.xx = 0.6, .xy = -0.8, .yx = 0.8, .yy = 0.6, .tx = 1e-3}};
  Header moved = before;
  if (MoveHeader(moved, {40, 30}, {37, 30}, maps[size % std::size(maps)]))
    ExpectCards(moved.CardsForOutput());
  if (DropWorldCoordinates(header, {40, 30}, "test")) ExpectCards(header.cards);
  header.Set("OBJECT", header.GetString("OBJECT").value_or("none"), header.GetString("COMMENT").value_or(""));
  header.AddHistory(header.GetString("OBJECT").value_or(""));
  header.Remove("OBJECT");
  fuzz::Expect(!header.GetString("OBJECT"), "what was removed is gone");
  ExpectCards(header.CardsForOutput());
  CHeader camera;
  session::ReadHeader(info, camera);
  return 0;
}
