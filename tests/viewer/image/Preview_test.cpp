#include "viewer/image/Preview.h"

#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "session/operations/Operations.h"
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
        const double star = i % 997 == 5 ? 900 * Noise(i) : 0;
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

  static session::Levels Fixed() {
    session::Levels levels;
    std::fill(levels.min, levels.min + 3, 150);
    std::fill(levels.max, levels.max + 3, 600);
    return levels;
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
    ShowByLevels(image.Pixels(), Fixed());
    const Bytes all = BytesOf(image.Pixels(), false);
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
            DrawPreview(job_, *pyramid, {step}, {.seen = seen, .scale = 1, .asIs = true, .levels = Fixed()});
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
  const Preview whole = DrawPreview(job_, *pyramid, steps, {.seen = seen, .asIs = true, .levels = Fixed()});
  EXPECT_TRUE(whole.isWhole);
  EXPECT_TRUE(whole.bytes.pixels == Expected("turned.fits", steps, seen, true).pixels);
  // Windows of what lies the other way round, too; beyond the picture there is nothing.
  const Step blur(FindOperation("gaussian"), {{"sigma", "3"}});
  const Preview part = DrawPreview(job_, *pyramid, {blur, bright},
                                   {.seen = CRect(-50, 300, 90, 900), .asIs = true, .levels = Fixed()});
  EXPECT_FALSE(part.isWhole);
  EXPECT_TRUE(part.rect == CRect(0, 300, 90, 401));
  EXPECT_TRUE(part.bytes.pixels == Expected("turned.fits", {blur, bright}, part.rect, true).pixels);
  // A reach beyond the margin.
  EXPECT_TRUE(IsLocal(Step(FindOperation("gaussian"), {{"sigma", "16"}})));
  EXPECT_FALSE(IsLocal(Step(FindOperation("gaussian"), {{"sigma", "17"}})));
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
