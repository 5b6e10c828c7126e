#include "session/files/internal/ConstantBorder.h"

#include <cmath>
#include <numbers>

#include <nlohmann/json.hpp>

#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

using Json = nlohmann::json;
using Mask = std::function<bool(int x, int y)>;

constexpr int kWidth = 240, kHeight = 180;

/// What lies outside of a frame that was turned about the middle by 3 degrees and moved.
bool IsOutsideTurned(int x, int y) {
  const double a = 3 * std::numbers::pi / 180, u = x - kWidth / 2, v = y - kHeight / 2;
  return std::abs(std::cos(a) * u + std::sin(a) * v - 7) > kWidth / 2 ||
         std::abs(-std::sin(a) * u + std::cos(a) * v + 4) > kHeight / 2;
}

/// Normal noise around 300.
double Sky(int x, int y, double noise, int seed = 1) {
  const std::uint64_t n = 1000003ull * seed + 2ull * (1000 * y + x);
  return 300 + noise * std::sqrt(-2 * std::log(test::Noise(n) + 1e-12)) *
                   std::cos(2 * std::numbers::pi * test::Noise(n + 1));
}

double Star(int x, int y, double cx, double cy) {
  return 5000 * std::exp(-((x - cx) * (x - cx) + (y - cy) * (y - cy)) / 4);
}

class ConstantBorderTest : public ToolTest {
 protected:
  /// Noise and stars, and a value where the mask says so.
  test::PixelRule Padded(const Mask& mask, double value, int seed = 1) const {
    return [=](int, int x, int y) {
      if (mask(x, y)) return value;
      double v = Sky(x, y, 10, seed);
      for (const auto& [sx, sy] : kStars) {
        v += Star(x, y, sx, sy);
      }
      return v;
    };
  }

  inline static const std::vector<std::pair<double, double>> kStars = {
      {60.3, 50.2}, {120.7, 40.4}, {180.1, 60.9}, {70.5, 110.5}, {130.2, 96.8}, {170.9, 128.1}};
};

TEST_F(ConstantBorderTest, IsWhatHoldsOneValueAtTheEdges) {
  const Mask none = [](int, int) { return false; };
  const Mask sides = [](int x, int y) { return x < 30 || x >= kWidth - 9 || y < 12; };
  const Mask column = [](int x, int) { return x == 0; };
  const Mask strip = [](int, int y) { return y >= kHeight - 7; };
  const Mask half = [](int x, int) { return x < kWidth / 2; };
  struct Case {
    const char* name;
    test::PixelRule rule;
    Mask border;
    const char* type = "float32";
  };
  const std::vector<Case> cases = {
      {"noise", Padded(none, 0), none},
      {"little noise in whole numbers", [](int, int x, int y) { return std::round(Sky(x, y, 0.4)); }, none},
      {"rows and columns", Padded(sides, 0), sides},
      {"whole numbers", Padded(sides, 0), sides, "uint16"},
      {"negative", Padded(sides, -1), sides},
      {"one column", Padded(column, 0), column},
      {"wedges", Padded(IsOutsideTurned, 0), IsOutsideTurned},
      {"half of the frame", Padded(half, 0), half},
      {"two values", [&](int p, int x, int y) { return Padded(sides, x < 30 ? 0 : 7)(p, x, y); },
       [](int x, int y) { return x < 30 || x >= kWidth - 9 || y < 12; }},
      // Honest constants.
      {"a sky of zeros", [](int, int x, int y) { return std::max(Star(x, y, 90, 70) - 1, 0.0); }, none},
      {"no noise", [](int, int x, int y) { return 100 + Star(x, y, 90, 70); }, none},
      {"a gradient without noise", [](int, int x, int) { return 100 + 3 * x; }, none},
      {"stripes", [](int, int, int y) { return 1000 + 10 * (y / 2); }, none},
      {"another", [](int, int, int y) { return 100 + 3 * y; }, none},
      {"the highest value", Padded(sides, 65535), sides, "uint16"},
      {"the highest value below", Padded(strip, 1e6), strip},
      {"a saturated glow",
       [&](int p, int x, int y) {
         return std::min(Padded(none, 0)(p, x, y) + 2e5 * std::exp(-x / 40.0), 65535.0);
       },
       none},
      {"a planet",
       [](int, int x, int y) {
         return std::max(
             std::round(Sky(x, y, 3) - 200 - 2.0 * std::max(std::hypot(x - 110, y - 95) - 50, -20.0)), 0.0);
       },
       none},
      {"a dark clipped at its offset", [](int, int x, int y) { return x == 29 && y % 11 == 4 ? 900 : 512; },
       none},
      {"a lost line", [&](int p, int x, int y) { return y == 70 ? 0 : Padded(none, 0)(p, x, y); }, none},
  };
  for (const Case& c : cases) {
    Frame("frame.fits", kWidth, kHeight, c.rule, c.type);
    const auto reader = ImageReader::Open(In("frame.fits"), {.lessBorder = true});
    const Planes pixels = ReadAll(*reader, 50, true), plain = Read("frame.fits");
    int wrong = 0, blank = 0;
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const bool isBlank = std::isnan(pixels[0][i]);
      blank += isBlank;
      wrong += isBlank != c.border(i % kWidth, i / kWidth) || (!isBlank && pixels[0][i] != plain[0][i]);
    }
    EXPECT_EQ(wrong, 0) << c.name;
    EXPECT_EQ(reader->Border()->IsEmpty(), blank == 0) << c.name;
    EXPECT_EQ(reader->Border()->Text().empty(), blank == 0) << c.name;
  }
  // Padded by a value that the sky has too: what chance adds or hides are single pixels.
  Frame("frame.fits", kWidth, kHeight,
        [&](int p, int x, int y) { return std::round(Padded(sides, 300)(p, x, y)); });
  const Planes pixels = ReadAll(*ImageReader::Open(In("frame.fits"), {.lessBorder = true}), 50);
  int wrong = 0;
  for (int i = 0; i < kWidth * kHeight; ++i) {
    wrong += std::isnan(pixels[0][i]) != sides(i % kWidth, i / kWidth);
  }
  EXPECT_LT(wrong, 2 * kHeight * 0.1);
}

// Equal frames, however they are padded, count equally, and nothing of the padding is in the stack.
TEST_F(ConstantBorderTest, IsNoDataForStarsWeightsAndStacks) {
  const std::vector<Mask> masks = {[](int, int) { return false; }, [](int x, int) { return x < 40; },
                                   [](int x, int y) { return y < 30 || x >= 210; }, IsOutsideTurned,
                                   [](int x, int y) { return x < 20 || y >= kHeight - 20; }};
  std::string names;
  for (size_t i = 0; i < masks.size(); ++i) {
    const std::string name = "frame" + std::to_string(i) + ".fits";
    Frame(name, kWidth, kHeight, Padded(masks[i], 0, static_cast<int>(i) + 1));
    names += " " + name;
  }
  const double flux = 5000 * 4 * std::numbers::pi;
  const Result found = Shell("korimg stars --json" + names);
  ASSERT_EQ(found.code, 0) << found.err;
  std::istringstream lines(found.out);
  for (size_t i = 0; i < masks.size(); ++i) {
    std::string line;
    std::getline(lines, line);
    const Json json = Json::parse(line);
    EXPECT_EQ(json["no_data"] == "", i == 0) << json["no_data"];
    EXPECT_NEAR(json["sky"], 300, 1);
    EXPECT_NEAR(json["noise"], 10, 0.7) << i;
    EXPECT_EQ(json["stars"], kStars.size());
    for (const Json& star : json["list"]) {
      EXPECT_NEAR(star["flux"].get<double>() / flux, 1, 0.03) << i << ' ' << star;
    }
  }
  for (const char* verb : {"stars", "register"}) {
    const Result said = Shell(std::string("korimg ") + verb + " frame0.fits frame1.fits");
    EXPECT_NE((said.out + said.err).find("frame1.fits: 17 % of its pixels, at the edges, are 0 throughout"),
              std::string::npos)
        << said.out << said.err;
  }
  const Result stacked = Shell("korimg stack --json --weight noise --reject none -o stack.fits" + names);
  ASSERT_EQ(stacked.code, 0) << stacked.err;
  const Json told = Json::parse(stacked.out);
  for (const Json& frame : told["frames"]) {
    EXPECT_GT(frame["weight"].get<double>(), 0.85) << frame;
  }
  const Planes stack = Read("stack.fits");
  for (int y = 0; y < kHeight; y += 3) {
    for (int x = 0; x < kWidth; x += 3) {
      double sky = 300;
      for (const auto& [sx, sy] : kStars) {
        sky += Star(x, y, sx, sy);
      }
      ASSERT_NEAR(stack[0][y * kWidth + x], sky, 50) << x << ' ' << y;
    }
  }
}

}  // namespace
}  // namespace korimg::files
