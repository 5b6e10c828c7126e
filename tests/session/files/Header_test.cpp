#include "tests/support/Folder.h"

namespace korimg::files {
namespace {

std::string Card(std::string text) {
  text.resize(80, ' ');
  return text;
}

bool Has(const std::vector<std::string>& cards, const std::string& text) {
  return std::find(cards.begin(), cards.end(), Card(text)) != cards.end();
}

TEST(Header, ReadsValues) {
  const Header header{{
      Card("TEXT    = 'it''s /here/  '     / a comment"),
      Card("NUMBER  =                 60.5 / [s]"),
      Card("PADDED  = '060.00  '"),
      Card("FORTRAN =             1.25D+02"),
      Card("WHOLE   = '40.'"),
      Card("EMPTY   ="),
      Card("UNDEF   =                      / nothing"),
      Card("FLAG    =                    T"),
      Card("HIERARCH ESO DET DIT = 10.5 / long name"),
      Card("TWICE   = 1"),
      Card("TWICE   = 2"),
      Card("LONG    = 'one &'"),
      Card("CONTINUE  'two &'"),
      Card("CONTINUE  'three' / end"),
      Card("BROKEN  = 'no end"),
      Card("COMMENT = 'not a value'"),
      Card("HUGE    = 1e300"),
  }};
  struct {
    const char* key;
    std::optional<std::string> text;
    std::optional<double> number;
    std::optional<std::int64_t> whole;
  } const cases[] = {
      {"TEXT", "it's /here/", {}, {}},
      {"NUMBER", "60.5", 60.5, {}},
      {"PADDED", "060.00", 60, 60},
      {"FORTRAN", "1.25D+02", 125, 125},
      {"WHOLE", "40.", 40, 40},
      {"EMPTY", {}, {}, {}},
      {"UNDEF", {}, {}, {}},
      {"FLAG", "T", {}, {}},
      {"ESO DET DIT", "10.5", 10.5, {}},
      {"TWICE", "1", 1, 1},
      {"LONG", "one two three", {}, {}},
      {"BROKEN", "no end", {}, {}},
      {"HUGE", "1e300", 1e300, {}},
      {"ABSENT", {}, {}, {}},
  };
  for (const auto& [key, text, number, whole] : cases) {
    EXPECT_EQ(header.GetString(key), text) << key;
    EXPECT_EQ(header.GetDouble(key), number) << key;
    EXPECT_EQ(header.GetInt(key), whole) << key;
  }
}

TEST(Header, SetKeepsThePlaceAndRemovesOtherCardsOfThatName) {
  Header header{{Card("A       = 1"), Card("B       = 'x&'"), Card("CONTINUE  'y'"), Card("C       = 3"),
                 Card("B       = 4")}};
  header.Set("B", 2.5, "new");
  ASSERT_EQ(header.cards.size(), 3u);
  EXPECT_EQ(header.cards[1], Card("B       =                  2.5 / new"));
  header.Set("D", "it's");
  EXPECT_EQ(header.cards.back(), Card("D       = 'it''s   '"));
  header.Remove("A");
  EXPECT_FALSE(header.GetString("A"));
  EXPECT_EQ(header.cards.size(), 3u);
}

TEST(Header, SetTakesValuesOfAnyLength) {
  for (const std::size_t length : {0u, 1u, 8u, 66u, 67u, 68u, 69u, 130u, 500u}) {
    for (const char filler : {'x', '\''}) {
      for (const char* key : {"SHORT", "A LONGER NAME"}) {
        Header header;
        const std::string value(length, filler);
        header.Set(key, value, "with a comment");
        EXPECT_EQ(header.GetString(key), value) << key << ' ' << length << filler;
        for (const std::string& card : header.cards)
          EXPECT_EQ(card.size(), 80u);
      }
    }
  }
  Header header;
  header.Set("OBJECT", "Gro\xc3\x9f\n");
  EXPECT_EQ(header.GetString("OBJECT"), "Gro???");
}

TEST(Header, HistoryWrapsAtBlanks) {
  Header header;
  std::string text;
  for (int i = 0; i < 40; ++i)
    text += "word" + std::to_string(i) + " ";
  header.AddHistory(text);
  header.AddHistory(std::string(150, 'x'));
  ASSERT_EQ(header.cards.size(), 4u + 3u);
  std::string joined;
  for (std::size_t i = 0; i < 4; ++i) {
    ASSERT_EQ(header.cards[i].size(), 80u);
    EXPECT_EQ(header.cards[i].substr(0, 8), "HISTORY ");
    joined += header.cards[i].substr(8, header.cards[i].find_last_not_of(' ') - 7) + " ";
  }
  EXPECT_EQ(joined, text);
}

TEST(Header, OutputDropsWhatDescribesTheSource) {
  const Header header{{
      Card("SIMPLE  =                    T"),
      Card("BITPIX  =                   16"),
      Card("NAXIS   = 2"),
      Card("NAXIS1  = 10"),
      Card("NAXIS2  = 10"),
      Card("EXTEND  = T"),
      Card("BZERO   = 32768"),
      Card("BLANK   = 0"),
      Card("CHECKSUM= 'abc&'"),
      Card("CONTINUE  'belongs to it'"),
      Card("DATAMAX = 9"),
      Card("ZTILE1  = 10"),
      Card("ZENITH  = 12.5"),
      Card("NAXISX  = 'kept'"),
      Card("SWCREATE= 'Camera'"),
      Card("SWMODIFY= 'Other'"),
      Card("ROWORDER= 'BOTTOM-UP'"),
      Card("UNKNOWN = garbage !"),
      Card("HISTORY old"),
      Card(""),
  }};
  const std::vector<std::string> cards = header.CardsForOutput();
  for (const char* kept : {"ZENITH  = 12.5", "NAXISX  = 'kept'", "SWCREATE= 'Camera'",
                           "ROWORDER= 'BOTTOM-UP'", "UNKNOWN = garbage !", "HISTORY old", ""}) {
    EXPECT_TRUE(Has(cards, kept)) << kept;
  }
  EXPECT_EQ(Header{cards}.GetString("SWMODIFY")->substr(0, 7), "korimg ");
  EXPECT_EQ(Header{cards}.GetString("DATE")->size(), 19u);
  EXPECT_EQ(cards.size(), 9u);  // those above, SWMODIFY and DATE
  EXPECT_FALSE(Header{Header{}.CardsForOutput()}.GetString("ROWORDER")) << "nobody stated one";
}

class HeaderFile : public FolderTest {};

TEST_F(HeaderFile, SurvivesARoundTrip) {
  Header header{{
      Card("OBJECT  = 'M 31    '           / name"),
      Card("HIERARCH ESO TEL AIRM START = 1.2 / x"),
      Card("FILTER  = 'R'"),
      Card("FILTER  = 'G'"),
      Card("LONGSTR = 'begin &'"),
      Card("CONTINUE  'end'"),
      Card("COMMENT one"),
      Card("COMMENT two"),
      Card("        blank keyword"),
      Card("HISTORY first"),
      Card("lower   = 5"),
      Card("NOVALUE"),
      Card("CCD-TEMP= '-10.0'"),
      Card("SWCREATE= 'Camera 1.0'"),
  }};
  const std::vector<std::string> original = header.cards;
  header.AddHistory("second");
  for (const int rounds : {1, 2}) {
    const WriteOptions options{.width = 3, .height = 2, .header = header, .overwrite = true};
    WriteAll(*ImageWriter::Create(In("h.fits"), options), {std::vector<float>(6)}, 3, 2, 2);
    header = ImageReader::Open(In("h.fits"))->Info().header;
    std::size_t at = 0;  // all cards, in order, each as it was
    for (const std::string& card : header.cards)
      at += at < original.size() && card == original[at];
    EXPECT_EQ(at, original.size()) << "in round " << rounds
                                   << ", lost: " << original[std::min(at, original.size() - 1)];
    EXPECT_TRUE(Has(header.cards, "HISTORY second"));
    EXPECT_EQ(std::count_if(header.cards.begin(), header.cards.end(),
                            [](const std::string& card) { return card.starts_with("SWMODIFY"); }),
              1);
  }
}

}  // namespace
}  // namespace korimg::files
