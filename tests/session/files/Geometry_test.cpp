// Geometric operations of the table: where pixels go, and that the header says so.
#include "session/files/Geometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <sstream>

#include <gtest/gtest.h>

#include "session/files/Mosaic.h"
#include "session/operations/Operations.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;
using files::Header;

struct Point {
  double x = 0, y = 0;
};

/// Right ascension and declination in radians of a 0-based pixel: SIP, then CD, or CDELT with PC or CROTA2,
/// then the gnomonic projection.
Point Sky(const Header& header, Point pixel) {
  const auto number = [&](const std::string& key, double missing) {
    return header.GetDouble(key).value_or(missing);
  };
  const auto polynomial = [&](const std::string& name, double u, double v) {
    double sum = 0;
    for (int p = 0; p <= 3; ++p) {
      for (int q = 0; p + q <= 3; ++q) {
        sum += number(name + "_" + std::to_string(p) + "_" + std::to_string(q), 0) * std::pow(u, p) *
               std::pow(v, q);
      }
    }
    return sum;
  };
  double u = pixel.x + 1 - number("CRPIX1", 0), v = pixel.y + 1 - number("CRPIX2", 0);
  const double fu = polynomial("A", u, v), fv = polynomial("B", u, v);
  u += fu, v += fv;
  double xi = 0, eta = 0;
  if (header.GetDouble("CD1_1")) {
    xi = number("CD1_1", 0) * u + number("CD1_2", 0) * v;
    eta = number("CD2_1", 0) * u + number("CD2_2", 0) * v;
  } else if (const auto turn = header.GetDouble("CROTA2")) {
    const double x = number("CDELT1", 1) * u, y = number("CDELT2", 1) * v, a = *turn * std::numbers::pi / 180;
    xi = x * std::cos(a) - y * std::sin(a);
    eta = x * std::sin(a) + y * std::cos(a);
  } else {
    xi = number("CDELT1", 1) * (number("PC1_1", 1) * u + number("PC1_2", 0) * v);
    eta = number("CDELT2", 1) * (number("PC2_1", 0) * u + number("PC2_2", 1) * v);
  }
  const double degree = std::numbers::pi / 180, dec0 = number("CRVAL2", 0) * degree;
  xi *= degree, eta *= degree;
  const double below = std::cos(dec0) - eta * std::sin(dec0);
  return {number("CRVAL1", 0) * degree + std::atan2(xi, below),
          std::atan2(std::sin(dec0) + eta * std::cos(dec0), std::hypot(xi, below))};
}

/// Distance in seconds of arc.
double Between(Point a, Point b) {
  return std::hypot((a.x - b.x) * std::cos(a.y), a.y - b.y) * 180 / std::numbers::pi * 3600;
}

Header Coordinates(const std::string& form) {
  Header header;
  header.Set("CTYPE1", form == "SIP" ? "RA---TAN-SIP" : "RA---TAN");
  header.Set("CTYPE2", form == "SIP" ? "DEC--TAN-SIP" : "DEC--TAN");
  header.Set("CRVAL1", 83.8);
  header.Set("CRVAL2", 57.4);
  header.Set("CRPIX1", 41.25);
  header.Set("CRPIX2", 30.5);
  const double step = 2.0 / 3600;
  if (form == "CD" || form == "SIP") {
    header.Set("CD1_1", -0.9 * step);
    header.Set("CD1_2", 0.3 * step);
    header.Set("CD2_1", 0.35 * step);
    header.Set("CD2_2", 1.1 * step);
    header.Set("CDELT1", -step);  // of an older form, which must not stay behind
  } else {
    header.Set("CDELT1", -step);
    header.Set("CDELT2", 1.2 * step);
    if (form == "CROTA") header.Set("CROTA2", 17.0);
    if (form == "PC") {
      header.Set("PC1_1", 0.8);
      header.Set("PC1_2", -0.6);
      header.Set("PC2_1", 0.6);
      header.Set("PC2_2", 0.8);
    }
  }
  if (form == "SIP") {
    header.Set("A_ORDER", 3);
    header.Set("A_2_0", 2e-3);
    header.Set("A_1_1", -1e-3);
    header.Set("A_0_3", 3e-5);
    header.Set("B_ORDER", 3);
    header.Set("B_0_2", -2e-3);
    header.Set("B_2_1", 4e-5);
  }
  return header;
}

class Geometry : public files::FolderTest {
 protected:
  void Save(int width, int height, int planes, const PixelRule& rule, const Header& header = {}) {
    job_.options.overwrite = true;
    SaveImage(job_, *Make(MemoryStore(), width, height, planes, rule), header, In("a.fits"));
  }

  /// "crop rect=1,2,3,4 then flip" on a.fits.
  Image Run(const std::string& text, const std::string& store = "contiguous") {
    managers_.push_back(store == "contiguous" ? MemoryStore() : TinyPool());
    Image loaded = Image::Open(job_, managers_.back(), In("a.fits"));
    std::istringstream words(text + " then");
    std::optional<Step> step;
    for (std::string word; words >> word;) {
      if (word == "then") {
        step->Run(job_, loaded);
        step.reset();
      } else if (!step) {
        step.emplace(FindOperation(word));
      } else {
        step->Set(word.substr(0, word.find('=')), word.substr(word.find('=') + 1));
      }
    }
    return loaded;
  }

  Job job_;
  std::vector<std::shared_ptr<CVmManager>> managers_;
};

/// The middle of the light above a sky at the level minimum.
Point Centroid(CVelImage& image) {
  const double sky = 1.02 * image.GetLevelMin(0);
  double sum = 0, x = 0, y = 0;
  for (int row = 0; row < image.GetHeight(); ++row) {
    for (int column = 0; column < image.GetWidth(); ++column) {
      const double v = std::max(image.GetPixelGrayRaw(column, row, 0) - sky, 0.0);
      sum += v, x += v * column, y += v * row;
    }
  }
  return {x / sum, y / sum};
}

constexpr const char* kSteps[] = {
    "crop rect=11,8,90,66",
    "flip axis=left-right",
    "flip axis=top-bottom",
    "lift-up lines=6",
    "scroll x=4 y=-5",
    "canvas width=130 height=60 anchor=centre",
    "canvas width=90 height=101 anchor=bottom-right",
    "rotate degrees=180",
    "rotate degrees=90",
    "rotate degrees=-90 expand=0",
    "rotate degrees=450",
    "rotate degrees=23.5",
    "rotate degrees=-130 method=bicubic",
    "rotate degrees=8 expand=0",
    "bin bin-x=2 bin-y=2",
    "bin bin-x=3 bin-y=1 round-up=1",
    "scale factor=1.7",
    "scale width=150 method=lanczos3",
    "scale width=120 height=200",
    "crop rect=5,3,95,70 then rotate degrees=12 then bin then flip axis=left-right",
    "flip then scale factor=2 then rotate degrees=270 then canvas width=220 height=220"};

TEST_F(Geometry, AnObjectKeepsItsPlaceInTheSky) {
  for (const Point object : {Point{33.3, 24.6}, Point{58.0, 41.2}}) {
    for (const char* form : {"CD", "CDELT", "CROTA", "PC", "SIP"}) {
      const Header header = Coordinates(form);
      Save(
          97, 71, 1,
          [&](int, int x, int y) {
            return 100 + 1000 * std::exp(-0.5 * (std::pow(x - object.x, 2) + std::pow(y - object.y, 2)) / 9);
          },
          header);
      const Point sky = Sky(header, object);
      for (const std::string steps : kSteps) {
        for (const std::string store : {"contiguous", "paged"}) {
          const Image image = Run(steps, store);
          const files::Header& result = image.Header();
          const bool dropped = result.GetString("CTYPE1") == "RA---TAN" && form == std::string("SIP");
          const auto has = [&](const char* word) { return steps.find(word) != std::string::npos; };
          const bool keeps = has("degrees=180") || !has("rotate");
          if (form == std::string("SIP")) {
            EXPECT_EQ(dropped, !keeps) << steps;
            EXPECT_EQ(result.GetString("A_2_0").has_value(), keeps) << steps;
            if (dropped) continue;
          }
          // Seconds of arc, of which a pixel has 2 or so.
          EXPECT_LT(Between(Sky(result, Centroid(image.Pixels())), sky), 0.05)
              << form << " " << store << ": " << steps;
        }
      }
    }
  }
}

TEST_F(Geometry, OtherDescriptionsMoveToo) {
  Header header = Coordinates("CD");
  header.Set("ROWORDER", "TOP-DOWN");
  header.Set("CTYPE1B", "LINEAR");
  header.Set("CRPIX1B", 10.0);
  header.Set("LTV1", -100.0);
  header.Set("PV1_1", 1.5);
  header.Set("XPIXSZ", 3.75);
  header.Set("YPIXSZ", 5.0);
  header.Set("SCALE", 2.0);
  header.Set("XBINNING", 2);
  header.Set("XORGSUBF", 40);
  Save(60, 50, 1, Random(0, 1), header);
  const Header binned = Run("crop rect=6,4,56,44 then bin bin-x=2 bin-y=4").Header();
  const auto expect = [](const Header& in, std::initializer_list<std::pair<const char*, double>> values) {
    for (const auto& [key, value] : values) {
      EXPECT_DOUBLE_EQ(in.GetDouble(key).value_or(NAN), value) << key;
    }
  };
  expect(binned, {{"CRPIX1B", (4 - 0.5) / 2 + 0.5},
                  {"LTV1", (-106 - 0.5) / 2 + 0.5},
                  {"LTM1_1", 0.5},
                  {"LTM2_2", 0.25},
                  {"CDELT1B", 2 * std::sqrt(2)},
                  {"PV1_1", 1.5},
                  {"XPIXSZ", 7.5},
                  {"YPIXSZ", 20},
                  {"SCALE", 2 * std::sqrt(8)},
                  {"XBINNING", 4},
                  {"YBINNING", 4},
                  {"XORGSUBF", 23},
                  {"YORGSUBF", 1}});
  EXPECT_FALSE(binned.GetString("CDELT1")) << "beside CD it would be stale";
  expect(Run("rotate degrees=90").Header(), {{"XPIXSZ", 5}, {"YPIXSZ", 3.75}, {"SCALE", 2}});
  for (const char* steps : {"expansion radius=20", "mosaic file="}) {
    const std::string file = std::string(steps).ends_with("=") ? "b.fits" : "";
    std::filesystem::current_path(folder_);
    std::filesystem::copy_file(In("a.fits"), In("b.fits"), std::filesystem::copy_options::overwrite_existing);
    const Header gone = Run(steps + file).Header();
    EXPECT_FALSE(gone.GetString("CRPIX1") || gone.GetString("CD1_1") || gone.GetString("CTYPE1B")) << steps;
    const auto says = [](const std::string& card) {
      return card.starts_with("HISTORY korimg dropped the world");
    };
    EXPECT_TRUE(std::any_of(gone.cards.begin(), gone.cards.end(), says)) << steps;
    std::filesystem::current_path("/");
  }
}

TEST_F(Geometry, TheMosaicKeepsItsPhase) {
  const auto colourOf = [](int cfa, int x, int y) {  // 0 red, 1 green, 2 blue
    constexpr int kCells[4][4] = {{0, 1, 1, 2}, {1, 0, 2, 1}, {2, 1, 1, 0}, {1, 2, 0, 1}};
    return kCells[cfa - 1][(y & 1) * 2 + (x & 1)];
  };
  for (const char* pattern : {"RGGB", "GRBG", "BGGR", "GBRG"}) {
    for (const char* order : {"TOP-DOWN", "BOTTOM-UP"}) {
      for (const char* key : {"BAYERPAT", "FILTER"}) {
        Header header;
        header.Set(key, pattern);
        header.Set("ROWORDER", order);
        header.Set("XBAYROFF", 1);
        files::ImageInfo info;
        info.header = header;
        info.height = 15;
        const int before = files::FindMosaic(info).cfa;
        Save(
            18, 15, 1, [&](int, int x, int y) { return colourOf(before, x, y); }, header);
        for (const char* steps :
             {"crop rect=0,0,10,9", "crop rect=1,0,10,10", "crop rect=2,3,17,14", "crop rect=3,5,12,15",
              "flip axis=left-right", "flip axis=top-bottom", "rotate degrees=180", "lift-up lines=3",
              "canvas width=11 height=20", "crop rect=1,1,16,14 then flip then flip axis=left-right"}) {
          const Image result = Run(steps);
          CVelImage* const image = &result.Pixels();
          files::ImageInfo moved = result.Info();
          moved.height = image->GetHeight();
          const int after = files::FindMosaic(moved).cfa;
          ASSERT_GT(after, 0) << steps;
          // What the canvas adds and what is lifted away is no mosaic: the middle tells.
          const int middle = image->GetHeight() / 2;
          for (int y = middle - 2; y < middle + 2; ++y) {
            for (int x = 0; x < image->GetWidth(); ++x) {
              ASSERT_EQ(image->GetPixelGrayRaw(x, y, 0), colourOf(after, x, y))
                  << pattern << " " << order << " " << key << " " << steps << " " << x << " " << y;
            }
          }
        }
        for (const char* steps :
             {"rotate degrees=90", "rotate degrees=5", "bin", "scale factor=2", "expansion radius=5"}) {
          EXPECT_THROW(Run(steps), UsageError) << steps;
        }
      }
    }
  }
}

TEST_F(Geometry, AHoneycombKeepsItsPhaseOrIsRefused) {
  constexpr const char* kCell[] = {"R.B.", ".G.G", "B.R.", ".G.G"};
  constexpr int kOrigin[][2] = {{0, 0}, {2, 0}, {1, 1}, {3, 1}};
  const auto colourOf = [&](int cfa, int x, int y) {
    return kCell[(y - kOrigin[cfa - 11][1] + 8) % 4][(x - kOrigin[cfa - 11][0] + 8) % 4];
  };
  // Frames are in memory as they are stored, but upright where the file says that its rows run up.
  const struct {
    const char *key, *order;
    int height;
    bool isOverturned;
  } kinds[] = {{"BAYERPAT", "", 14, false}, {"BAYERPAT", "BOTTOM-UP", 14, true}, {"FILTER", "", 15, true}};
  enum { No, Yes, OfOddHeight };
  for (int cfa = 11; cfa <= 14; ++cfa) {
    for (const auto& [key, order, height, isOverturned] : kinds) {
      Header header;
      header.Set(key, files::CfaName(cfa));
      if (*order) header.Set("ROWORDER", order);
      Save(
          19, height, 1,
          [&, height = height, isOverturned = isOverturned](int, int x, int y) {
            return colourOf(cfa, x, isOverturned ? height - 1 - y : y);
          },
          header);
      for (const auto& [steps, when] : {std::pair("crop rect=0,0,12,9", Yes),
                                        {"crop rect=1,1,13,12", Yes},
                                        {"crop rect=2,0,13,11", Yes},
                                        {"crop rect=3,1,18,14", Yes},
                                        {"crop rect=1,3,18,14", Yes},
                                        {"crop rect=1,0,13,11", No},
                                        {"crop rect=1,0,13,12", No},
                                        {"crop rect=2,3,13,12", No},
                                        {"flip axis=left-right", Yes},
                                        {"flip axis=top-bottom", OfOddHeight},
                                        {"rotate degrees=180", OfOddHeight},
                                        {"crop rect=1,1,14,14 then rotate degrees=180", Yes},
                                        {"bin", No},
                                        {"rotate degrees=90", No}}) {
        const bool keeps = when == Yes || (when == OfOddHeight && height % 2 == 1);
        if (!keeps) {
          EXPECT_THROW(Run(steps), UsageError) << steps;
          continue;
        }
        const Image result = Run(steps);
        CVelImage* const image = &result.Pixels();
        EXPECT_TRUE(image->IsHoneyCombImage() && !image->IsBayerImage()) << steps;
        files::ImageInfo moved = result.Info();
        moved.height = image->GetHeight();
        const int after = files::FindMosaic(moved).cfa;
        ASSERT_GT(after, 0) << cfa << " " << key << " " << order << " " << steps;
        for (int y = 0; y < image->GetHeight(); ++y) {
          for (int x = 0; x < image->GetWidth(); ++x) {
            ASSERT_EQ(image->GetPixelGrayRaw(x, y, 0), colourOf(after, x, y))
                << cfa << " " << key << " " << order << " " << steps << " " << x << " " << y;
          }
        }
      }
    }
  }
}

TEST_F(Geometry, PixelsGoWhereTheyShould) {
  const PixelRule at = Random(100, 1000);
  Save(31, 22, 3, at);
  struct Case {
    const char* steps;
    int width, height;
    PixelRule expected;
  };
  const auto mean = [](double a, double b) { return (a + b) / 2; };
  const Case cases[] = {
      {"crop rect=3,2,20,22", 17, 20, [&](int p, int x, int y) { return at(p, x + 3, y + 2); }},
      {"flip axis=left-right", 31, 22, [&](int p, int x, int y) { return at(p, 30 - x, y); }},
      {"flip", 31, 22, [&](int p, int x, int y) { return at(p, x, 21 - y); }},
      {"scroll x=-33 y=5", 31, 22, [&](int p, int x, int y) { return at(p, (x + 33) % 31, (y + 17) % 22); }},
      {"rotate degrees=90", 22, 31, [&](int p, int x, int y) { return at(p, y, 21 - x); }},
      {"rotate degrees=-90", 22, 31, [&](int p, int x, int y) { return at(p, 30 - y, x); }},
      {"rotate degrees=360", 31, 22, at},
      {"rotate degrees=90 expand=0 outside=51", 31, 22,
       [&](int p, int x, int y) {
         // Levels of plane 0 for all planes: 100 to 900.
         return x < 4 || x >= 26 ? 100 + 0.2 * 800 : at(p, y + 4, 21 - (x - 4));
       }},
      {"canvas width=33 height=10 anchor=right fill=0,255,51", 33, 10,
       [&](int p, int x, int y) {
         const double fill = p == 0 ? 100 : p == 1 ? 925 : 120 + 0.2 * 830;
         return x < 2 ? fill : at(p, x - 2, y + 6);
       }},
      {"bin bin-x=2 bin-y=1 round-up=1", 16, 22,
       [&](int p, int x, int y) { return at(p, 2 * x, y) + (x < 15 ? at(p, 2 * x + 1, y) : 0); }},
      {"scale factor=2", 62, 44,
       [&](int p, int x, int y) {
         // The last one of an axis looks half a pixel beyond it, where the edge repeats.
         const auto row = [&](int v) {
           return x % 2 ? mean(at(p, x / 2, v), at(p, std::min(x / 2 + 1, 30), v)) : at(p, x / 2, v);
         };
         return y % 2 ? mean(row(y / 2), row(std::min(y / 2 + 1, 21))) : row(y / 2);
       }},
      {"mosaic file=a.fits x=40 y=-3 fill=255", 71, 25,
       [&](int p, int x, int y) {
         if (x < 31 && y >= 3) return at(p, x, y - 3);
         return x >= 40 && y < 22 ? at(p, x - 40, y) : 900 + 25.0 * p;
       }},
      {"mosaic file=a.fits x=10 mode=brighter", 41, 22,
       [&](int p, int x, int y) {
         return x < 10 ? at(p, x, y) : x < 31 ? std::max(at(p, x, y), at(p, x - 10, y)) : at(p, x - 10, y);
       }},
  };
  std::filesystem::current_path(folder_);
  for (const Case& c : cases) {
    for (const char* store : {"contiguous", "paged"}) {
      const auto image = std::move(Run(c.steps, store).Pointer());
      EXPECT_EQ(std::pair(image->GetWidth(), image->GetHeight()), std::pair(c.width, c.height)) << c.steps;
      EXPECT_EQ(Difference(*image, c.expected, 1e-5), "") << c.steps << " " << store;
    }
  }
  std::filesystem::current_path("/");
  // The middle of a planet's map faces the viewer.
  const auto map = std::move(Run("expansion radius=10 centre-x=15 centre-y=11 width=40").Pointer());
  EXPECT_EQ(std::pair(map->GetWidth(), map->GetHeight()), std::pair(40, 20));
  EXPECT_EQ(map->GetPixelGrayRaw(20, 10, 1), static_cast<float>(at(1, 15, 11)));
}

TEST_F(Geometry, WhatIsNotPossibleIsRefused) {
  Save(31, 22, 1, Random(0, 1));
  SaveImage(job_, *Make(MemoryStore(), 31, 22, 3, Random(0, 1)), {}, In("colour.fits"));
  for (const char* steps : {"crop rect=0,0,32,5", "crop rect=-1,0,3,5", "bin bin-x=32", "scale",
                            "scale factor=2 width=3", "scale width=1000000 height=1 then scale factor=2"}) {
    EXPECT_THROW(Run(steps), UsageError) << steps;
  }
  EXPECT_THROW(FindOperation("crop").Find("rect").Read("5,5,2,9"), UsageError);
  std::filesystem::current_path(folder_);
  EXPECT_THROW(Run("mosaic file=colour.fits"), UsageError);
  EXPECT_THROW(Run("mosaic file=a.fits x=999999"), UsageError);
  std::filesystem::current_path("/");
}

TEST(PixelScale, ComesFromWhatTheHeaderHas) {
  Header header;
  EXPECT_FALSE(files::PixelScale(header));
  header.Set("FOCALLEN", 500.0);
  header.Set("XPIXSZ", 5.0);
  EXPECT_NEAR(files::PixelScale(header).value_or(0), 2.0626, 1e-3);
  header.Set("SCALE", 2.1);
  EXPECT_EQ(files::PixelScale(header), 2.1);
  header.Set("CTYPE1", "RA---TAN");
  EXPECT_EQ(files::PixelScale(header), 2.1) << "a type alone says nothing";
  header.Set("CDELT1", -3.0 / 3600);
  header.Set("CDELT2", 12.0 / 3600);
  EXPECT_NEAR(files::PixelScale(header).value_or(0), 6, 1e-9);
  header.Set("CD1_2", 4.0 / 3600);
  header.Set("CD2_1", 1.0 / 3600);
  EXPECT_NEAR(files::PixelScale(header).value_or(0), 2, 1e-9);
}

}  // namespace
}  // namespace korimg::session
