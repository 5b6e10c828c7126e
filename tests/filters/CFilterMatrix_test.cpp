#include "korimg/filters/CFilterMatrix.h"

#include <cmath>
#include <map>
#include <string>

#include <gtest/gtest.h>

namespace {

/// The cells as a picture: each kind of cell by a letter, rows from the top.
std::string Picture(const CFilterMatrix& matrix, const std::map<float, char>& letters) {
  std::string picture;
  for (int dy = -matrix.GetR(); dy <= matrix.GetR(); ++dy) {
    for (int dx = -matrix.GetR(); dx <= matrix.GetR(); ++dx) {
      const auto found = letters.find(matrix.GetPrm(dx, dy));
      picture += found == letters.end() ? '?' : found->second;
    }
    picture += dy < matrix.GetR() ? "/" : "";
  }
  return picture;
}

TEST(CFilterMatrix, HasTheCellsOfItsKernels) {
  CFilterMatrix m;
  EXPECT_EQ(m.MakeMean(2, -1.0, 1.0), 1);
  EXPECT_EQ(Picture(m, {{0, '.'}, {1.0f / 13, 'm'}}), "..m../.mmm./mmmmm/.mmm./..m..");
  m.MakeMean(1, 1.0, 0.5);
  EXPECT_EQ(Picture(m, {{0, '.'}, {0.5f / 3, 'w'}, {1.0f / 3, 'C'}}), ".w./wCw/.w.");
  m.MakeMean(2, 2, 0);
  EXPECT_EQ(Picture(m, {{0, '.'}, {1, 'C'}}), "...../...../..C../...../.....");
  m.MakeLaplacian(1, -1.0);
  EXPECT_EQ(Picture(m, {{0, '.'}, {-1, '-'}, {4, '4'}}), ".-./-4-/.-.");
  m.MakeLaplacian(1, 2.0);
  EXPECT_EQ(Picture(m, {{0, '.'}, {-1, '-'}, {8, '8'}}), "---/-8-/---");
  m.MakeSharp(2.9, 0.5);
  EXPECT_EQ(Picture(m, {{0, '.'}, {-0.5f, '-'}, {5, '5'}}), "...../.---./.-5-./.---./.....");
  EXPECT_EQ(m.MakeMask(2, 1.5), 9);
  EXPECT_EQ(Picture(m, {{0, '.'}, {1, 'o'}}), "...../.ooo./.ooo./.ooo./.....");

  struct Case {
    int colour, bayer, result;
    std::string picture;
  };
  for (const Case& c : {Case{0, 0, 4, "o...o/...../...../...../o...o"},
                        {2, 0, 4, "o...o/...../...../...../o...o"},
                        {1, 0, 4, "..o../...../o...o/...../..o.."},
                        {0, 1, 4, "..o../...../o...o/...../..o.."},
                        {2, 7, 4, "..o../...../o...o/...../..o.."},
                        {1, 1, 4, "o.o/.../o.o"},
                        {3, 1, 0, "...../...../...../...../....."}}) {
    EXPECT_EQ(m.MakeCFAMask(c.colour, c.bayer), c.result);
    EXPECT_EQ(Picture(m, {{0, '.'}, {1, 'o'}}), c.picture) << c.colour << " " << c.bayer;
  }
}

TEST(CFilterMatrix, MakesGaussians) {
  EXPECT_EQ(CFilterMatrix::GetGaussian_nR(0.0), 1);
  EXPECT_EQ(CFilterMatrix::GetGaussian_nR(1.0), 3);
  EXPECT_EQ(CFilterMatrix::GetGaussian_nR(5.0), 15);
  EXPECT_EQ(CFilterMatrix::GetGaussian_nR(NAN), 1);
  CFilterMatrix m;
  m.MakeGaussian(3, 0.0);
  for (int i = 0; i < 49; ++i) {
    EXPECT_EQ(m.GetPrm(i), i == 24 ? 1.0f : 0.0f);
  }
  for (const double sigma : {0.4, 1.0, 2.5, -1.0}) {
    m.MakeGaussian(4, sigma);
    const double s = sigma == -1 ? 4 : sigma;
    double sum = 0;
    for (int i = 0; i < 81; ++i) {
      const int dx = i % 9 - 4, dy = i / 9 - 4;
      sum += m.GetPrm(i);
      EXPECT_NEAR(m.GetPrm(i) / m.GetPrm(0, 0), std::exp(-(dx * dx + dy * dy) / (2 * s * s)), 1e-6);
    }
    EXPECT_NEAR(sum, 1, 1e-5);
  }
}

TEST(CFilterMatrix, UndoesATrail) {
  CFilterMatrix m;
  // Along the middle row; the first cell holds the fraction of a trail that is longer than the kernel.
  m.MakeGuideErrorCanceller(2, 2.75, 90, 1);
  EXPECT_EQ(m.GetD(), 5);
  const float sum = 0.75f - 3.0f;
  for (int i = 0; i < 25; ++i) {
    const float row[] = {0.75f, -1, 1 - sum, -1, -1};
    EXPECT_NEAR(m.GetPrm(i), i / 5 == 2 ? row[i % 5] : 0.0f, 1e-6) << i;
  }
  m.MakeGuideErrorCanceller(2, -1, 0, 1);
  for (int i = 0; i < 25; ++i) {
    EXPECT_NEAR(m.GetPrm(i), i == 12 ? 5.0f : i % 5 == 2 ? -1.0f : 0.0f, 1e-5) << i;
  }
  m.MakeGuideErrorCanceller(5, 4.3, 33, 1);
  double total = 0;
  for (int i = 0; i < 121; ++i) {
    total += m.GetPrm(i);
  }
  EXPECT_NEAR(total, 1, 1e-5);
}

TEST(CFilterMatrix, KeepsToItsCells) {
  const float cells[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  CFilterMatrix m(1, cells, 9);
  const CFilterMatrix copy = m;
  EXPECT_EQ(m.GetPrm(1, 0), 6);
  EXPECT_EQ(m.GetPrm(2, 0), 7) << "reaches the next row";
  for (const int i : {-1, 9}) {
    EXPECT_EQ(m.GetPrm(i), 0);
  }
  EXPECT_EQ(m.GetPrm(2, 1), 0);
  EXPECT_EQ(m.GetMtxPtr(-2, -1), nullptr);
  *m.GetMtxPtr(0, 0) = 50;
  EXPECT_EQ(copy.GetPrm(4), 5) << "copies share nothing";
  EXPECT_EQ(m.MakeMtx(1, 10, 1), 0);
  EXPECT_EQ(m.GetCount(), 9) << "the room is made";
  EXPECT_EQ(m.SetMtx(-1, cells, 0), 0);
  const double doubles[] = {0.1, -1e300};
  EXPECT_EQ(m.SetMtx(1, doubles, 1), 1);
  EXPECT_EQ(m.GetPrm(0), 0.1f);
  EXPECT_EQ(m.GetPrm(1), 0);
  const float opposite[] = {1, 0, 0, 0, -1, 0, 0, 0, 0};
  m.SetMtx(1, opposite, 0);
  m.Normalize();
  EXPECT_EQ(m.GetPrm(4), -1) << "a sum of 0 leaves the cells";
}

}  // namespace
