#include "korimg/colour/CImgAutoColor.h"

#include <map>

#include <gtest/gtest.h>

#include "korimg/calibration/CImgSkySelect.h"
#include "korimg/levels/CImgAutoStretch.h"
#include "korimg/platform/CRegistry.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

double ColourSky(int p, int x, int y) {
  return 300 * (p + 1) + (p + 2) * Random(-10, 10)(p, x, y) +
         (x > 150 && (x * 31 + y * 57) % 211 == 0 ? 500 : 0);
}

/// Settings by their names, of one section.
class Map : public korimg::SettingsProvider {
 public:
  explicit Map(std::map<std::string, std::string> values) : values_(std::move(values)) {}
  std::optional<std::string> Get(const std::string& section, const std::string& key) const override {
    const auto found = values_.find(key);
    if (section != "Dialog\\AutoStretch" || found == values_.end()) return std::nullopt;
    return found->second;
  }

 private:
  std::map<std::string, std::string> values_;
};

TEST(CImgAutoColor, BalancesByTheSettings) {
  struct Case {
    std::map<std::string, std::string> settings;
    double scale[3], offset;
  };
  for (const Case& c :
       std::vector<Case>{{{}, {1, 1, 1}, 0},
                         {{{"FilterR", "2"}, {"FilterG", "1.5"}, {"FilterB", "0.5"}, {"Offset", "10"}},
                          {2, 1.5, 0.5},
                          10}}) {
    CRegistry::SetProvider(std::make_shared<Map>(c.settings));
    for (const StoreCase& store : Stores()) {
      const auto src = Make(store.make(), 320, 200, 3, ColourSky);
      const auto image = Make<CImgAutoColor>(src->VmManager(), 320, 200, 3, ColourSky);
      ASSERT_EQ(image->Do(0), 1);
      double filter[] = {c.scale[0], c.scale[1], c.scale[2]}, scale[3], background[3], spread[3];
      ASSERT_EQ(CImgAutoStretch::CalcAutoStretchParam(src.get(), 0, 1, CRect(), filter, scale, background,
                                                      spread, 0),
                1);
      const auto want = [&](int p, int x, int y) {
        const double largest = std::max({spread[0], spread[1], spread[2]});
        return (src->GetPixelGrayRaw(x, y, p) - background[p]) * largest / spread[p] * c.scale[p] +
               background[0] + c.offset * 2 * spread[0] / 100;
      };
      EXPECT_EQ(Difference(*image, want, 1e-6), "") << store.name;
    }
    CRegistry::SetProvider(nullptr);
  }
}

TEST(CImgAutoColor, LeavesWhatItCannotBalance) {
  for (const int planes : {1, 3}) {
    // A mono image, and one that is all border.
    const auto image = Make<CImgAutoColor>(MemoryStore(), planes == 1 ? 320 : 20, 20, planes, ColourSky);
    EXPECT_EQ(image->Do(CImgAutoColor::Settings(), 0), 0);
    EXPECT_EQ(Difference(
                  *image, [](int p, int x, int y) { return static_cast<float>(ColourSky(p, x, y)); }, 0),
              "");
  }
}

}  // namespace
