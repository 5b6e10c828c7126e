#include "viewer/image/Preview.h"

#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "session/operations/Operations.h"
#include "session/picture/AutoPicture.h"
#include "session/picture/Image.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::viewer {
namespace {

using namespace session;
using test::Noise;

class Previews : public files::FolderTest {
 protected:
  /// A sky with stars, some blank pixels and a gradient.
  void Write(const std::string& name, int width, int height, int planes, const files::Header& header = {}) {
    const auto writer = files::ImageWriter::Create(
        In(name), {.width = width, .height = height, .planes = planes, .header = header});
    files::Planes pixels;
    for (int p = 0; p < planes; ++p) {
      pixels.emplace_back();
      for (int i = 0; i < width * height; ++i) {
        const bool isBright = std::abs(i % width - width * 3 / 5) < 3 && std::abs(i / width - height / 7) < 3;
        const double star = isBright ? 3000 : i % 997 == 5 ? 900 * Noise(i) : 0;
        pixels[p].push_back(static_cast<float>(200 + 30 * p + 40 * Noise(i + p) + star + 0.1 * (i % width)));
      }
    }
    files::WriteAll(*writer, pixels, width, height, 64);
  }

  std::unique_ptr<Pyramid> Open(const std::string& name) {
    auto pyramid = std::make_unique<Pyramid>(OpenSource(In(name)), 64 << 20);
    while (pyramid->Progress() < 1)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return pyramid;
  }

  /// Levels that are none of the picture's, a stretch of their shares, and midtones of their own.
  static Stretch Shown() {
    Stretch shown;
    for (int p = 0; p < 3; ++p) {
      shown.levels.min[p] = 150 + 5 * p;
      shown.levels.max[p] = 600;
      shown.levels.midtone[p] = 0.3;
    }
    shown.steps.emplace_back(FindOperation("ghs"));
    shown.steps.back().Set("amount", "1.5");
    shown.steps.back().Set("symmetry", "0.2");
    return shown;
  }

  /// The operation with the values of its example; none where these are images.
  static std::optional<Step> Example(const Operation& operation) {
    Step step(operation);
    std::istringstream words(operation.example);
    for (std::string word; words >> word;) {
      const size_t equals = word.find('=');
      if (operation.Find(word.substr(0, equals)).kind == ParameterKind::Image) return std::nullopt;
      step.Set(word.substr(0, equals), word.substr(equals + 1));
    }
    return step;
  }

  /// A step with each of its choices, and each flag both ways.
  static std::vector<Step> Variants(const Step& step) {
    std::vector<Step> variants{step};
    for (const Parameter& parameter : step.What().parameters) {
      std::vector<std::string> values = parameter.choices;
      if (parameter.kind == ParameterKind::Flag) values = {"0", "1"};
      for (const std::string& value : values) {
        variants.push_back(step);
        variants.back().Set(parameter.name, value);
      }
    }
    return variants;
  }

  /// What a file of the result shows at a rectangle.
  Bytes Expected(const std::string& name, const std::vector<Step>& steps, const CRect& rect,
                 bool overturned = false) {
    Image image = Image::Open(job_, In(name));
    const int width = image.Width(), height = image.Height();
    for (const Step& step : steps) {
      step.Run(job_, image);
    }
    if (image.Width() != width || image.Height() != height) throw UsageError("of another size");
    return CutOf(Draw(image, Shown()), rect, overturned);
  }

  static Bytes CutOf(const Bytes& all, const CRect& rect, bool overturned = false) {
    Bytes cut{static_cast<int>(rect.Width()), static_cast<int>(rect.Height()), all.planes, {}};
    for (int y = rect.top; y < rect.bottom; ++y) {
      const int line = overturned ? all.height - 1 - y : y;
      const auto* from = &all.pixels[(static_cast<size_t>(line) * all.width + rect.left) * all.planes];
      cut.pixels.insert(cut.pixels.end(), from, from + static_cast<size_t>(cut.width) * all.planes);
    }
    return cut;
  }

  Job job_;
};

/// Windows of what is seen, of operations that are said to be local, have the pixels of the whole result.
TEST_F(Previews, AreTheResultWhereOperationsAreLocal) {
  Write("colour.fits", 420, 321, 3);
  Write("mono.fits", 420, 321, 1);
  const CRect seen(151, 122, 270, 190);
  int local = 0;
  std::map<std::string, std::unique_ptr<Pyramid>> pyramids;
  for (const std::string name : {"colour.fits", "mono.fits"}) {
    pyramids[name] = Open(name);
  }
  for (const Operation& operation : Operations()) {
    const std::optional<Step> example = Example(operation);
    if (!example || !IsLocal(*example)) continue;
    ++local;
    for (const Step& step : Variants(*example)) {
      if (!IsLocal(step)) continue;
      for (const auto& [name, pyramid] : pyramids) {
        Bytes expected;
        try {
          expected = Expected(name, {step}, seen);
        } catch (const UsageError&) {
          continue;  // not for images of these planes, or values that do not go together
        }
        const Preview preview =
            DrawPreview(job_, *pyramid, {step}, {.seen = seen, .scale = 1, .asIs = true, .stretch = Shown()});
        EXPECT_FALSE(preview.isWhole);
        EXPECT_EQ(preview.step, 1);
        EXPECT_TRUE(preview.rect == seen) << step.Text();
        EXPECT_TRUE(preview.bytes.pixels == expected.pixels) << step.Text() << " of " << name;
      }
    }
  }
  EXPECT_GT(local, 25);
}

TEST_F(Previews, SeeAllOfThePictureWhereOperationsDo) {
  Write("turned.fits", 640, 401, 1, files::SkyFromBelow());
  const auto pyramid = Open("turned.fits");
  const CRect seen(100, 50, 260, 170);
  const Step gradient = *Example(FindOperation("gradient")),
             bright(FindOperation("bright"), {{"bright", "20"}});
  const std::vector<Step> steps{gradient, bright};
  const Preview whole = DrawPreview(job_, *pyramid, steps, {.seen = seen, .asIs = true, .stretch = Shown()});
  EXPECT_TRUE(whole.isWhole);
  EXPECT_TRUE(whole.bytes.pixels == Expected("turned.fits", steps, seen, true).pixels);
  // Windows of what lies the other way round, too; beyond the picture there is nothing.
  const Step blur(FindOperation("gaussian"), {{"sigma", "3"}});
  const Preview part = DrawPreview(job_, *pyramid, {blur, bright},
                                   {.seen = CRect(-50, 300, 90, 900), .asIs = true, .stretch = Shown()});
  EXPECT_FALSE(part.isWhole);
  EXPECT_TRUE(part.rect == CRect(0, 300, 90, 401));
  EXPECT_TRUE(part.bytes.pixels == Expected("turned.fits", {blur, bright}, part.rect, true).pixels);
  // A reach beyond the margin.
  EXPECT_TRUE(IsLocal(Step(FindOperation("gaussian"), {{"sigma", "16"}})));
  EXPECT_FALSE(IsLocal(Step(FindOperation("gaussian"), {{"sigma", "17"}})));
}

/// The tiles of the picture, and the preview of steps that change nothing, are the same.
TEST_F(Previews, AreShownAsTheTilesAre) {
  Write("colour.fits", 420, 321, 3);
  const auto pyramid = Open("colour.fits");
  const Step nothing(FindOperation("bright"), {{"bright", "0"}});
  for (const bool linked : {false, true}) {
    Stretch stretch = Shown();
    if (linked) stretch = {.levels = pyramid->Shown(true)};
    const Bytes tile = DrawTile(*pyramid, {0, 1, 0}, stretch);
    const Preview preview = DrawPreview(job_, *pyramid, {nothing},
                                        {.seen = CRect(256, 0, 420, 256), .asIs = true, .stretch = stretch});
    EXPECT_TRUE(preview.bytes.pixels == tile.pixels) << linked;
  }
}

/// What a window will look like as a file is told by the whole picture, not by the window.
TEST_F(Previews, AreShownAsTheFileOfTheResultWillBe) {
  Write("small.fits", 400, 300, 1);
  Write("large.fits", 1900, 1300, 3);  // which is told by samples
  const struct {
    const char* name;
    int width, height;
    double tolerance;  ///< levels of the picture
  } cases[] = {{"small.fits", 400, 300, 0}, {"large.fits", 1900, 1300, 12}};
  const std::vector<Step> steps{Step(FindOperation("ghs"), {{"amount", "2"}, {"symmetry", "0.05"}}),
                                Step(FindOperation("gaussian"), {{"sigma", "0.7"}})};
  for (const auto& [name, width, height, tolerance] : cases) {
    const auto pyramid = Open(name);
    const CRect seen(20, 30, 120, 110);
    const Preview preview = DrawPreview(job_, *pyramid, steps, {.seen = seen});
    EXPECT_FALSE(preview.isWhole);
    Image image = Image::Open(job_, In(name));
    for (const Step& step : steps) {
      step.Run(job_, image);
    }
    const session::Levels levels = LevelForPicture(image.Pixels(), LevelMethod::Auto);
    const Bytes expected = CutOf(Draw(image, {.levels = levels}), seen);
    ASSERT_EQ(preview.bytes.pixels.size(), expected.pixels.size());
    int worst = 0;
    for (size_t i = 0; i < expected.pixels.size(); ++i) {
      worst = std::max(worst, std::abs(preview.bytes.pixels[i] - expected.pixels[i]));
    }
    EXPECT_LE(worst, tolerance) << name;
  }
}

/// Defaults in pixels are as much smaller as values that are given.
TEST_F(Previews, AreSmallerBySizesThatWereNotGivenToo) {
  Write("wide.fits", 2400, 1300, 1);
  const auto pyramid = Open("wide.fits");
  for (const auto& [operation, name] :
       {std::pair("gaussian", "sigma"), {"maximum", "radius"}, {"median", "radius"}}) {
    const Step plain(FindOperation(operation));
    Step given = plain;
    given.SetValue(name, *plain.What().Find(name).defaultValue);
    const PreviewOptions from{
        .seen = CRect(0, 0, 2400, 1300), .scale = 0.25, .asIs = true, .stretch = Shown()};
    EXPECT_TRUE(DrawPreview(job_, *pyramid, {plain}, from).bytes.pixels ==
                DrawPreview(job_, *pyramid, {given}, from).bytes.pixels)
        << operation;
  }
}

TEST_F(Previews, AreSmallerFromAfar) {
  Write("wide.fits", 2400, 1300, 1);
  const auto pyramid = Open("wide.fits");
  const CRect all(0, 0, 2400, 1300);
  const Step bright(FindOperation("bright"), {{"bright", "20"}}), mirror(FindOperation("flip"));
  const Preview quarter = DrawPreview(job_, *pyramid, {bright}, {.seen = all, .scale = 0.3});
  EXPECT_EQ(quarter.step, 2);  // no coarser than the screen
  EXPECT_EQ(quarter.bytes.width, 1200);
  EXPECT_TRUE(quarter.rect == all);
  const Preview closer = DrawPreview(job_, *pyramid, {bright}, {.seen = all, .scale = 1});
  EXPECT_EQ(closer.step, 2);  // but of two million pixels at most
  EXPECT_THROW(DrawPreview(job_, *pyramid, {mirror}, {.seen = all}), UsageError);
  EXPECT_THROW(DrawPreview(job_, *pyramid, {bright}, {.seen = CRect(2400, 0, 2500, 10)}), UsageError);
  job_.options.cancel->Cancel();
  EXPECT_THROW(DrawPreview(job_, *pyramid, {bright}, {.seen = all}), Cancelled);
}

}  // namespace
}  // namespace korimg::viewer
