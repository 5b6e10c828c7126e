#include "session/register/LayFrames.h"

#include <fstream>

#include <gtest/gtest.h>

#include "session/stack/internal/Transforms.h"
#include "tests/support/Folder.h"
#include "tests/support/StarFields.h"

namespace korimg::session {
namespace {

using namespace korimg::test::field;

/// Frames of a session that nobody has to read again.
struct Field {
  std::vector<Way> ways;
  FramesToLay frames;

  void Add(const Way& way, double fwhm = 3, double sky = 100, double width = 1600) {
    FrameMeasure measure;
    measure.width = kWidth;
    measure.height = kHeight;
    measure.stars =
        Stars(way, static_cast<int>(0.75 * width), 0.06, static_cast<int>(ways.size()) + 1, width);
    measure.starCount = static_cast<int>(measure.stars.size());
    measure.fwhm = fwhm;
    measure.sky = sky;
    measure.noise = 1;
    ways.push_back(way);
    frames.files.push_back("frame" + std::to_string(ways.size()));
    frames.measures.push_back(std::move(measure));
  }

  LaidFrames Lay(std::optional<size_t> reference = std::nullopt, const LayOptions& options = {}) {
    // What has no stars in common is looked for by its light: there is none here.
    frames.image = [](size_t) -> std::shared_ptr<CVelImage> {
      static const auto store = CreateContiguousManager();
      return test::Make(store, kWidth, kHeight, 1, [](int, int, int) { return 0; });
    };
    Job job;
    return LayFrames(job, frames, reference, options);
  }

  double Worst(const LaidFrames& laid, size_t i) const {
    double worst = 0;
    for (const Point& p : Common(ways[i], ways[*laid.reference], 2800)) {
      const Point from = ways[i](p), to = ways[*laid.reference](p);
      const auto [x, y] = PlaceOf(laid.registrations[i], frames.measures[i], from.x, from.y);
      worst = std::max(worst, x == x ? Distance({x, y}, to) : 1e9);
    }
    return worst;
  }
};

Way Through(const Way& lens, const Way& sky) {
  return [=](Point p) { return lens(sky(p)); };
}

TEST(LayFrames, LaysARowOfFramesThroughTheirNeighbours) {
  // The last ones share no star with the first.
  for (const double barrel : {0.0, 0.02}) {
    Field field;
    for (int i = 0; i < 5; ++i) {
      field.Add(Through(Barrel(barrel), Turned(150 - 290.0 * i, 20.0 * i, i)), 3, 100, 2800);
    }
    const LaidFrames laid = field.Lay(0);
    for (size_t i = 0; i < 5; ++i) {
      ASSERT_TRUE(laid.registrations[i].IsGood()) << barrel << " " << i << laid.registrations[i].Text();
      EXPECT_EQ(laid.registrations[i].map.has_value(), barrel > 0 && i > 0) << i;
      EXPECT_LT(i < 4 ? field.Worst(laid, i) : 0, 0.4) << barrel << " " << i << ": " << laid.model;
    }
    EXPECT_EQ(laid.model.starts_with("rigid with"), barrel > 0) << laid.model;
  }
}

TEST(LayFrames, RigidSessionsStayAsTheyWere) {
  Field field;
  for (int i = 0; i < 4; ++i) {
    field.Add(Turned(30.0 * i, -17.0 * i, 0.3 * i));
  }
  const LaidFrames laid = field.Lay(1), rigid = field.Lay(1, {.model = FrameModel::Rigid});
  Registrar registrar(field.frames.measures[1], [&] { return field.frames.image(1); });
  for (size_t i = 0; i < 4; ++i) {
    const Registration own = i == 1 ? ReferenceRegistration(field.frames.measures[1])
                                    : registrar.Register(field.frames.measures[i], {});
    for (const LaidFrames& each : {laid, rigid}) {
      const Registration& r = each.registrations[i];
      EXPECT_EQ(std::tuple(r.dx, r.dy, r.degrees, r.stars, r.residual, r.map.has_value()),
                std::tuple(own.dx, own.dy, own.degrees, own.stars, own.residual, false));
    }
  }
}

TEST(LayFrames, ModelsAreAsAskedFor) {
  Field field;
  for (int i = 0; i < 6; ++i) {
    field.Add(Through(Barrel(0.03), Turned(90 * std::sin(i), 70 * std::cos(2.0 * i), 0.2 * i)));
  }
  struct Case {
    FrameModel model;
    int good;  // at least
    bool hasLens;
  };
  for (const Case& c : {Case{FrameModel::Auto, 6, true},
                        {FrameModel::Distortion, 6, true},
                        {FrameModel::Homography, 1, false},
                        {FrameModel::Rigid, 1, false}}) {
    const LaidFrames laid = field.Lay(0, {.model = c.model});
    const auto good = std::ranges::count_if(laid.registrations, [](const auto& r) { return r.IsGood(); });
    EXPECT_GE(good, c.good) << laid.model;
    EXPECT_TRUE(good == 6 || !c.hasLens) << laid.model;
    for (size_t i = 1; i < 6; ++i) {
      const Registration& r = laid.registrations[i];
      EXPECT_FALSE(r.map && c.model == FrameModel::Rigid);
      EXPECT_FALSE(r.map && c.model == FrameModel::Homography && r.map->GetModel() != CFrameMap::Homography);
      EXPECT_EQ(r.map && !r.map->FrameDistortion().IsNone(), c.hasLens);
      EXPECT_LT(c.hasLens ? field.Worst(laid, i) : 0, 0.15) << i;
    }
  }
}

TEST(LayFrames, OneFrameOfAnotherScaleHasAMapOfItsOwn) {
  Field field;
  for (int i = 0; i < 5; ++i) {
    field.Add(Turned(20.0 * i, 5, 0.1 * i, i == 3 ? 1.04 : 1));
  }
  const LaidFrames laid = field.Lay(0);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_TRUE(laid.registrations[i].IsGood());
    EXPECT_LT(field.Worst(laid, i), 0.15) << i << " " << laid.model;
  }
  EXPECT_EQ(laid.registrations[3].map->GetModel(), CFrameMap::Similarity);
  EXPECT_FALSE(laid.registrations[2].map && laid.registrations[2].map->GetModel() == CFrameMap::Homography);
  const LaidFrames rigid = field.Lay(0, {.model = FrameModel::Rigid});
  EXPECT_EQ(rigid.registrations[3].status, "residual too large");
}

TEST(LayFrames, ChoosesTheReferenceThatServesMost) {
  Field dithers;  // the sharpest lies far off
  for (int i = 0; i < 6; ++i) {
    dithers.Add(Turned(i == 2 ? 400 : 10.0 * i, 0, 0), i == 2 ? 2.0 : 2.5 + 0.01 * i);
  }
  EXPECT_NE(dithers.Lay().reference, 2u);
  EXPECT_LT(dithers.frames.measures[*dithers.Lay().reference].fwhm, 2.54) << "one of the sharper half";

  Field bright;  // the sharpest has the moon in it
  for (int i = 0; i < 4; ++i) {
    bright.Add(Turned(3.0 * i, 0, 0), i == 1 ? 2.0 : 2.5 + 0.01 * i, i == 1 ? 400 : 100);
  }
  EXPECT_EQ(bright.Lay().reference, 0u);

  Field other;  // the sharpest shows another field
  const Way elsewhere = [](Point p) { return Point{p.y * 0.9 + 40, p.x * 0.37 - 20}; };
  for (int i = 0; i < 5; ++i) {
    other.Add(i == 3 ? elsewhere : Turned(8.0 * i, 0, 0), i == 3 ? 2.0 : 2.5 + 0.01 * i);
  }
  const LaidFrames laid = other.Lay();
  EXPECT_EQ(laid.reference, 0u);
  EXPECT_EQ(std::ranges::count_if(laid.registrations, [](const auto& r) { return r.IsGood(); }), 4);
  EXPECT_EQ(other.Lay(3).reference, 3u) << "as it was asked for";

  other.frames.mayBeReference = {0, 1, 1, 1, 1};
  EXPECT_EQ(other.Lay().reference, 1u);
}

using MapFiles = files::FolderTest;

TEST_F(MapFiles, StacksReadTheMapsThatAreWritten) {
  const CLensDistortion lens = CLensDistortion::Of(900, 700, {0.0625, -0.01, 1e-17, 1.0 / 3}),
                        other({1.5, 2.25}, 77, {0, 0, 0.125});
  for (const CFrameMap& map : {CFrameMap({1.02, -0.1, 4, 1.0 / 3, 0.97, -3, 1e-4, 1e-300, 1}, lens, other),
                               CFrameMap({2, 0, 0, 0, 2, 0, 0, 0, 1})}) {
    Registration registration{In("a.fits").string()};
    registration.status = "ok";
    registration.map = map;
    files::WriteBytes(In("list"), ToJson(registration) + "\n");
    const Transform read = Transforms(In("list")).Of(In("a.fits"));
    ASSERT_TRUE(read.map);
    EXPECT_FALSE(read.IsNone());
    EXPECT_EQ(read.map->GetMatrix(), map.GetMatrix());
    EXPECT_TRUE(read.map->FrameDistortion() == map.FrameDistortion());
    EXPECT_TRUE(read.map->ReferenceDistortion() == map.ReferenceDistortion());
  }
  for (
      const char* wrong :
      {R"({"matrix": [1, 2]})", R"({"matrix": [1, 0, 0, 0, -1, 0, 0, 0, 1]})", R"("no")",
       R"({"matrix": [1, 0, 0, 0, 1, 0, 0, 0, "x"]})",
       R"({"matrix": [1, 0, 0, 0, 1, 0, 0, 0, 1], "frame_lens": {"centre": [1, 2], "scale": 0, "radial": [0, 0, 0]}})",
       R"({"matrix": [1, 0, 0, 0, 1, 0, 0, 0, 0]})"}) {
    files::WriteBytes(In("list"), "{\"file\": \"a.fits\", \"dx\": 0, \"dy\": 0, \"degrees\": 0, \"map\": " +
                                      std::string(wrong) + "}\n");
    EXPECT_THROW(Transforms(In("list")), files::FileError) << wrong;
  }
}

}  // namespace
}  // namespace korimg::session
