#include <cmath>
#include <cstring>
#include <fstream>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "session/picture/Images.h"
#include "session/picture/Quality.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using files::FileError;
using files::ImageReader;
using files::ImageWriter;

constexpr int kWidth = 37, kHeight = 23;

class Extensions : public files::FolderTest {
 protected:
  static float Value(int p, int x, int y) { return static_cast<float>(100 * p + 3 * x + y); }
  static float Variance(int p, int x, int y) {
    return (x + y + p) % 9 == 0 ? NAN : static_cast<float>((1 + p + x) * 0.25 + y);
  }
  static float Bits(int p, int x, int y) { return static_cast<float>((p + x * y) % 128); }

  template <class Rule>
  static Band<float> Fill(BandBuffer& buffer, int planes, int top, int rows, Rule&& rule) {
    const Band<float> band = buffer.Get(planes, kWidth, top, rows);
    for (int p = 0; p < planes; ++p) {
      for (int y = top; y < top + rows; ++y) {
        for (int x = 0; x < kWidth; ++x) {
          band.Row(p, y)[x] = rule(p, x, y);
        }
      }
    }
    return band;
  }

  void Write(const std::string& name, int planes, const files::Header& header, const SaveOptions& options) {
    Job job;
    ImageSaver saver(job, In(name), {kWidth, kHeight, planes}, {}, header, options);
    BandBuffer pixels, variances, masks;
    for (int top = 0; top < kHeight; top += 10) {
      const int rows = std::min(10, kHeight - top);
      saver.Write(Fill(pixels, planes, top, rows, Value));
      saver.WriteQuality(Fill(variances, planes, top, rows, Variance), Fill(masks, planes, top, rows, Bits));
    }
    saver.Commit();
  }
};

TEST_F(Extensions, AreReadAgainAsTheyWereWritten) {
  for (const int planes : {1, 3}) {
    for (const char* order : {"", "TOP-DOWN", "BOTTOM-UP"}) {
      for (const bool integers : {false, true}) {
        for (const auto& [uncertainty, mask] : {std::pair(true, true), {true, false}, {false, true}}) {
          SCOPED_TRACE(fmt::format("{} {} {} {} {}", planes, order, integers, uncertainty, mask));
          files::Header header;
          if (*order) header.Set("ROWORDER", order);
          header.turned = order[0] == 'B';  // pixels are given upright
          const std::string name =
              fmt::format("a{}{}{}{}{}.fits", planes, order, integers, uncertainty, mask);
          Write(name, planes, header,
                {.integers = integers,
                 .uncertainty = uncertainty,
                 .mask = mask,
                 .correlation = {1.5, 1.25, 2}});
          const auto image = ImageReader::Open(In(name));
          EXPECT_EQ(image->Info().header.GetString("BUNIT"), "adu");
          QualityReader reader(*image);
          EXPECT_EQ(reader.HasUncertainty(), uncertainty);
          EXPECT_EQ(reader.CorrelationOfNoise(), uncertainty ? (Correlation{1.5, 1.25, 2}) : kUncorrelated);
          BandBuffer pixels, variances, masks;
          const Band<float> values = pixels.Get(planes, kWidth, 5, 13);
          image->ReadRows(values);
          const QualityRows quality{uncertainty ? variances.Get(planes, kWidth, 5, 13) : Band<float>(),
                                    masks.Get(planes, kWidth, 5, 13)};
          reader.ReadRows(quality);
          for (int p = 0; p < planes; ++p) {
            for (int y = 5; y < 18; ++y) {
              for (int x = 0; x < kWidth; ++x) {
                ASSERT_EQ(values.Row(p, y)[x], Value(p, x, y));
                ASSERT_EQ(quality.mask.Row(p, y)[x], mask ? Bits(p, x, y) : 0);
                if (!uncertainty) continue;
                const float expected = Variance(p, x, y), got = quality.variance.Row(p, y)[x];
                ASSERT_TRUE(std::isnan(expected) ? std::isnan(got)
                                                 : std::abs(got - expected) <= 3e-7f * expected)
                    << got << " for " << expected;
              }
            }
          }
        }
      }
    }
  }
}

TEST_F(Extensions, AreRefusedWhereTheyCannotBeOrDoNotFit) {
  const SaveOptions both{.uncertainty = true, .mask = true};
  for (const char* name : {"a.tif", "a.png"}) {
    try {
      Write(name, 1, {}, both);
      ADD_FAILURE() << name;
    } catch (const FileError& error) {
      EXPECT_NE(std::string(error.what()).find("name a FITS file"), std::string::npos) << error.what();
    }
  }
  Job job;
  {
    ImageSaver saver(job, In("half.fits"), {kWidth, kHeight, 1}, {}, {}, both);
    BandBuffer buffer;
    saver.Write(Fill(buffer, 1, 0, kHeight, Value));
    EXPECT_THROW(saver.Commit(), FileError);
  }
  EXPECT_FALSE(std::filesystem::exists(In("half.fits")));
  // One row less in the mask than in the image; and an uncertainty of another kind.
  Write("a.fits", 1, {}, both);
  const std::string bytes = files::ReadBytes(In("a.fits"));
  const auto changed = [&](const std::string& from, const std::string& to, size_t first) {
    std::string text = bytes;
    text.replace(text.find(from, first), to.size(), to);
    std::ofstream(In("b.fits"), std::ios::binary) << text;
    return ImageReader::Open(In("b.fits"));
  };
  EXPECT_THROW(QualityReader(*changed("NAXIS2  =                   23", "NAXIS2  =                   22",
                                      bytes.rfind("XTENSION"))),
               FileError);
  EXPECT_THROW(QualityReader(*changed("StdDev", "InvVar", 0)), FileError);
}

}  // namespace
}  // namespace korimg::session
