#include "session/picture/Image.h"

#include <cmath>

#include <gtest/gtest.h>

#include "korimg/image/CImgInvert.h"

#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

/// Planes of somebody else's, filled by a rule.
struct Foreign : files::GappedRows {
  Foreign(int planes, int width, int rows, int pitch, const PixelRule& rule)
      : GappedRows(planes, width, 0, rows, pitch - width) {
    for (int p = 0; p < planes; ++p) {
      for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < width; ++x) {
          band.Row(p, y)[x] = static_cast<float>(rule(p, x, y));
        }
      }
    }
  }
};

PixelRule Whole(const PixelRule& rule) {
  return [rule](int p, int x, int y) { return std::round(rule(p, x, y)); };
}

class Images : public files::FolderTest {
 protected:
  Job job_;
};

TEST_F(Images, LieOverMemoryOfSomebodyElse) {
  const PixelRule rule = Whole(Random(100, 1000));
  const auto foreign = std::make_shared<Foreign>(3, 61, 37, 61, rule);
  std::unique_ptr<Image> image = std::make_unique<Image>(Image::Over(job_, foreign->band, foreign));
  EXPECT_EQ(image->Pixels().GetLine(0, 0, 1), foreign->band.Data()[1]);
  EXPECT_EQ(Difference(image->Pixels(), rule, 0), "") << "making it has changed them";
  EXPECT_NEAR(image->Pixels().GetLevelMax(0), 1000, 20);
  image->Pixels().SetPixelGrayRaw(7, 5, 4.5F, 2);
  EXPECT_EQ(foreign->band.Row(2, 5)[7], 4.5F);

  // A result lies elsewhere, a copy too, and the foreign pixels stay.
  auto inverted = std::make_unique<CImgInvert>();
  ASSERT_TRUE(inverted->Create(image->Pixels(), nullptr));
  inverted->Do(&image->Pixels(), nullptr, 0);
  CVelImage copy(image->Pixels(), nullptr);
  EXPECT_EQ(copy.GetPixelGrayRaw(7, 5, 2), 4.5F);
  EXPECT_EQ(foreign->band.Row(0, 9)[3], static_cast<float>(rule(0, 3, 9)));
  EXPECT_NE(inverted->GetPixelGrayRaw(3, 9, 0), foreign->band.Row(0, 9)[3]);

  // Results live on without the foreign image, which ends with its owner.
  Image result(std::move(inverted));
  image = nullptr;
  EXPECT_NO_THROW(result.Pixels().GetLine(0, 36, 2));
}

TEST_F(Images, EndBeforeTheMemoryThatTheyLieOver) {
  auto foreign = std::make_shared<Foreign>(1, 9, 5, 9, Random(0, 1));
  const std::weak_ptr<Foreign> owner = foreign;
  {
    const Band<float> pixels = foreign->band;
    const Image image = Image::Over(job_, pixels, std::move(foreign));
    Image moved = Image::Over(job_, owner.lock()->band, owner.lock());
    Image last = std::move(moved);
    EXPECT_FALSE(owner.expired());
    EXPECT_EQ(last.Pixels().GetLine(0, 4, 0), image.Pixels().GetLine(0, 4, 0));
  }
  EXPECT_TRUE(owner.expired());
}

TEST_F(Images, CopyRowsThatHaveAPitch) {
  const PixelRule rule = Whole(Random(-500, 500));
  Foreign foreign(3, 13, 11, 20, rule);
  Image image = Image::Over(job_, foreign.band);
  EXPECT_NE(image.Pixels().GetLine(0, 0, 0), foreign.band.Data()[0]);
  EXPECT_EQ(Difference(image.Pixels(), rule, 0), "");
  for (const auto& store : Stores()) {
    const auto manager = store.make();
    Image other(NewImage(manager, 13, 11, 3));
    other.WriteRows(foreign.band.Part(3, 6));
    Foreign back(3, 13, 11, 17, [](int, int, int) { return 7; });
    other.ReadRows(back.band.Part(2, 5));
    for (int y = 0; y < 11; ++y) {
      const double expected = y < 2 || y >= 7 ? 7 : y == 2 ? 0 : rule(1, 4, y);
      EXPECT_EQ(back.band.Row(1, y)[4], static_cast<float>(expected)) << store.name << " " << y;
    }
    EXPECT_TRUE(back.HasWholeGaps());
  }
  for (const Band<float>& none : {Band<float>(), Band<float>(foreign.band.Data(), 3, 13, 0, 0)}) {
    EXPECT_THROW(Image::Over(job_, none), UsageError);
  }
}

TEST_F(Images, HoldTheStoreThatTheyLiveIn) {
  auto store = TinyPool();
  Image image(NewImage(store, 40, 30, 3));
  Paint(image.Pixels(), Random(0, 9));
  store = nullptr;
  EXPECT_EQ(image.Pixels().GetPixelGrayRaw(39, 29, 2), static_cast<float>(Random(0, 9)(2, 39, 29)));
  const Image moved = std::move(image);
  EXPECT_EQ(moved.Pixels().GetPixelGrayRaw(1, 2, 0), static_cast<float>(Random(0, 9)(0, 1, 2)));
}

}  // namespace
}  // namespace korimg::session
