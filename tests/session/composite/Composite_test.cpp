// Two images in the memory of a host become one.
#include "session/composite/Composite.h"

#include <limits>

#include <gtest/gtest.h>

#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

class CompositeSteps : public files::FolderTest {
 protected:
  static constexpr int kWidth = 120, kHeight = 70;

  Image Make(int width, int height, int planes, const PixelRule& rule) {
    Image image(NewImage(job_.MakeStore(), width, height, planes));
    Paint(image.Pixels(), rule);
    return image;
  }
  Image First() { return Make(kWidth, kHeight, 1, first_); }

  PixelRule first_ = Random(100, 900), second_ = Random(300, 500, 2);
  Job job_;
};

TEST_F(CompositeSteps, CombineWhereTheSecondReaches) {
  // The second is 30 x 20 pixels from (5, 3) on.
  const auto reaches = [](int x, int y) { return x >= 5 && x < 35 && y >= 3 && y < 23; };
  const struct {
    CompositeMode mode;
    int planes;
    double (*value)(double a, double b);
  } cases[] = {{CompositeMode::Average, 1, [](double a, double b) { return (a + b) / 2; }},
               {CompositeMode::Weight, 1, [](double a, double b) { return 0.7 * a + 0.3 * b; }},
               {CompositeMode::Brighter, 1, [](double a, double b) { return std::max(a, b); }},
               {CompositeMode::Difference, 3, [](double a, double b) { return std::abs(a - b); }}};
  for (const auto& [mode, planes, value] : cases) {
    Image first = First();
    // Of equal planes the luminance is any of them.
    Composite(job_, first, Make(30, 20, planes, [&](int, int x, int y) { return second_(0, x, y); }),
              {.mode = mode, .dx = 5, .dy = 3, .weight = 0.3});
    EXPECT_EQ(Difference(
                  first.Pixels(),
                  [&, value = value](int p, int x, int y) {
                    const double own = first_(p, x, y);
                    return reaches(x, y) ? value(own, second_(0, x - 5, y - 3)) : own;
                  },
                  1e-3),
              "")
        << static_cast<int>(mode);
    EXPECT_EQ(first.Planes(), 1);
  }
}

TEST_F(CompositeSteps, ARectangleChangesPixelsWhereTheyLie) {
  std::vector<float> pixels(kWidth * kHeight, 10);
  float* const planes[] = {pixels.data()};
  Image first = Image::Over(job_, {planes, 1, kWidth, 0, kHeight});
  Composite(job_, first, Make(kWidth, kHeight, 1, [](int, int, int) { return 5; }),
            {.mode = CompositeMode::Add, .rect = CRect(20, 10, 25, 14)});
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const bool inside = x >= 20 && x < 25 && y >= 10 && y < 14;
      ASSERT_EQ(pixels[y * kWidth + x], inside ? 15 : 10) << x << ", " << y;
    }
  }
  std::string history;
  for (const std::string& card : first.Header().cards) {
    history += card.substr(8, card.find_last_not_of(' ') - 7) + ' ';
  }
  EXPECT_NE(history.find("composite --mode add --dx 0 --dy 0 --angle 0 --kernel bilinear --rect 20,10,25,14"),
            std::string::npos)
      << history;
}

TEST_F(CompositeSteps, RefuseNumbersThatAreNone) {
  Image first = First();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (const CompositeOptions& wrong :
       {CompositeOptions{.dx = nan}, {.angle = nan}, {.mode = CompositeMode::Neighbour, .angle = 90}}) {
    EXPECT_THROW(Composite(job_, first, First(), wrong), UsageError);
  }
  EXPECT_EQ(Difference(first.Pixels(), first_, 1e-3), "");
}

TEST_F(CompositeSteps, OfFilesAreWrittenWithTheFirstHeader) {
  for (const char* name : {"a.fits", "b.fits"}) {
    files::Header header;
    header.Set("OBJECT", name);
    const auto writer =
        files::ImageWriter::Create(In(name), {.width = kWidth, .height = kHeight, .header = header});
    const float value = name[0] == 'a' ? 10 : 5;
    files::WriteAll(*writer, {std::vector<float>(kWidth * kHeight, value)}, kWidth, kHeight, 64);
  }
  CompositeFilesOptions options;
  options.mode = CompositeMode::Subtract;
  options.first = In("a.fits");
  options.second = In("b.fits");
  options.output = In("c.fits");
  CompositeFiles(job_, options);
  const auto reader = files::ImageReader::Open(In("c.fits"));
  EXPECT_EQ(reader->Info().header.GetString("OBJECT"), "a.fits");
  EXPECT_EQ(files::ReadAll(*reader, 64)[0], std::vector<float>(kWidth * kHeight, 5));
  EXPECT_THROW(CompositeFiles(job_, options), files::FileError) << "it exists already";
  options.second = In("none.fits");
  options.output = In("d.fits");
  EXPECT_THROW(CompositeFiles(job_, options), files::FileError);
  EXPECT_FALSE(std::filesystem::exists(In("d.fits")));
}

}  // namespace
}  // namespace korimg::session
