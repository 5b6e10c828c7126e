#include "korimg/raw/CImgInformation.h"

#include <gtest/gtest.h>

#include "korimg/platform/Debug.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

std::shared_ptr<CImgInformation> Frame(const wchar_t* maker, const wchar_t* model, int width = 8,
                                       int height = 6) {
  const auto frame = Make<CImgInformation>(MemoryStore(), width, height, 1, [](int, int, int) { return 0; });
  frame->GetHeader()->SetCameraMaker(maker);
  frame->GetHeader()->SetCameraModel(model);
  return frame;
}

TEST(CImgInformation, FindsTheColourFilterArray) {
  constexpr int kNone = -7;
  struct Case {
    const wchar_t *maker, *model;
    int cfa, width = 8;
  };
  for (const Case& c : std::initializer_list<Case>{
           {L"Canon", L"EOS 5D Mark III", 1},  // the whole name stands before the part "eos 5d mark ii"
           {L"Canon", L"EOS 5D Mark II", 4},
           {L"Canon", L"X EOS 5D Mark III", 4},
           {L"Canon", L"EOS Rebel T3", 1},
           {L"Canon", L"EOS Rebel T3i", 4},
           {L"Canon", L"EOS Rebel T6s", 1},
           {L"Canon", L"EOS Rebel T6", 4},
           {L"CANON INC.", L"EOS-1D", 2},
           {L"Canon", L"EOS-1Ds Mark II", 4},
           {L"Canon", L"EOS-1D Mark II N", 1},
           {L"Canon", L"EOS R7", kNone},
           {L"Canon", L"PowerShot S70", 1},
           {L"NIKON CORPORATION", L"NIKON D3000", 4},  // before the part "d3"
           {L"NIKON CORPORATION", L"NIKON D3400", 1},
           {L"NIKON CORPORATION", L"NIKON D3s", 1},
           {L"NIKON CORPORATION", L"NIKON D70", 3},
           {L"NIKON CORPORATION", L"NIKON D7000", 1},
           {L"NIKON", L"NIKON D1", 3},
           {L"NIKON", L"NIKON D100", 2},
           {L"NIKON", L"E5700", 5},
           {L"PENTAX RICOH IMAGING", L"PENTAX K-3", kNone},  // Pentax is asked for before Ricoh
           {L"RICOH IMAGING COMPANY, LTD.", L"PENTAX K-3", 1},
           {L"PENTAX", L"PENTAX *ist DS2", 1},
           {L"FUJIFILM", L"FinePixS2Pro", 11},
           {L"FUJIFILM", L"X-T3", kNone},
           {L"OLYMPUS IMAGING CORP.", L"E-M5MarkII", 1, 4640},
           {L"OLYMPUS IMAGING CORP.", L"E-M5MarkII", 2, 9274},
           {L"OLYMPUS", L"E-1", 2},
           {L"OLYMPUS", L"E-3", 1},
           {L"OLYMPUS", L"E-5", 3},
           {L"OLYMPUS", L"E-30", 3},
           {L"OLYMPUS", L"E-M5", 1},
           {L"OLYMPUS", L"E-M1", 3},
           {L"OLYMPUS", L"E-M1MarkII", 1},
           {L"KONICA MINOLTA", L"DYNAX 7D", 1},
           {L"SONY", L"DSLR-A700", 1},
           {L"SONY", L"DSLR-A100", kNone},
           {L"Leica", L"EOS 5D", kNone},
           {L"", L"EOS 5D", kNone},
           {L"Canon", L"", kNone}}) {
    const auto frame = Frame(c.maker, c.model, c.width);
    int cfa = kNone;
    EXPECT_EQ(frame->GetAutoCFA(&cfa), c.cfa != kNone) << Narrow(c.model);
    EXPECT_EQ(cfa, c.cfa) << Narrow(c.maker) << " " << Narrow(c.model);
    frame->GetHeader()->SetCFAPattern(3);
    EXPECT_EQ(frame->GetAutoCFA(&cfa), 1);
    EXPECT_EQ(cfa, 3) << "the header's own number";
  }
}

TEST(CImgInformation, TellsReducedFormatsByTheirSize) {
  using Info = CImgInformation;
  struct Case {
    const wchar_t *maker, *model;
    int width, height;
    Info::RAWTYPE type;
    const wchar_t* label;
  };
  for (const Case& c :
       std::initializer_list<Case>{{L"Canon", L"EOS 40D", 1936, 6, Info::RawS, L"sRAW"},
                                   {L"Canon", L"EOS 50D", 3267, 6, Info::RawS1, L"sRAW)"},
                                   {L"Canon", L"EOS 50D", 2376, 6, Info::RawS2, L"sRAW2"},
                                   {L"Canon", L"EOS 5D Mark IV", 5040, 6, Info::RawMedium, L"M-RAW"},
                                   {L"Canon", L"EOS 5Ds R", 4320, 6, Info::RawSmall, L"S-RAW"},
                                   {L"Canon", L"EOS 5Ds R x", 4320, 6, Info::RawFull, L""},
                                   {L"Canon", L"EOS 5D Mark IV", 6720, 6, Info::RawFull, L""},
                                   {L"Nikon", L"NIKON D810A", 3072, 6, Info::RawSizeS, L"RAW S"},
                                   {L"Nikon", L"NIKON D500", 3200, 6, Info::RawSizeM, L"RAW M"},
                                   {L"Nikon", L"NIKON D850", 4128, 4128, Info::RawSizeM, L"RAW M"},
                                   {L"Nikon", L"NIKON D850", 4128, 2752, Info::RawSizeS, L"RAW S"},
                                   {L"Nikon", L"NIKON D850", 2752, 2752, Info::RawSizeS, L"RAW S"},
                                   {L"Nikon", L"NIKON D850", 2752, 1840, Info::RawFull, L""},
                                   {L"Nikon", L"NIKON D780", 3016, 4528, Info::RawSizeM, L"RAW M"},
                                   {L"Nikon", L"NIKON D780", 3016, 4527, Info::RawFull, L""},
                                   {L"Nikon", L"NIKON Z 6", 1696, 3024, Info::RawSizeS, L"RAW S"},
                                   {L"Nikon", L"NIKON Z 7", 77, 5153, Info::RawSizeM, L"RAW M"},
                                   {L"Nikon", L"NIKON Z 7", 77, 5152, Info::RawFull, L""},
                                   {L"Nikon", L"NIKON Z 7", 2752, 4128, Info::RawSizeS, L"RAW S"},
                                   {L"Nikon", L"NIKON Z 50", 2784, 4176, Info::RawSizeM, L"RAW M"},
                                   {L"Nikon", L"NIKON Z 50", 1856, 2784, Info::RawSizeS, L"RAW S"},
                                   {L"Nikon", L"NIKON D6", 2784, 1856, Info::RawSizeM, L"RAW M"},
                                   {L"Nikon", L"NIKON D6", 1560, 2784, Info::RawSizeS, L"RAW S"},
                                   {L"Nikon", L"NIKON Z 5", 1688, 3008, Info::RawSizeS, L"RAW S"},
                                   {L"Sony", L"NIKON D500", 3200, 6, Info::RawFull, L""},
                                   {L"", L"NIKON D500", 3200, 6, Info::RawUnknown, L""}}) {
    CString label = L"left over";
    EXPECT_EQ(Frame(c.maker, c.model, c.width, c.height)->GetRawType(label), c.type) << Narrow(c.model);
    EXPECT_TRUE(label == c.label) << Narrow(c.model) << " " << c.width;
  }
}

TEST(CImgInformation, TextsOfCamerasAndOfCcds) {
  const auto texts = [](const CImgInformation& frame) {
    CString instrument = L"?", exposure = L"?", temperature = L"?";
    frame.GetInfoString(instrument, exposure, temperature);
    return Narrow(std::wstring(instrument) + L"|" + std::wstring(exposure) + L"|" +
                  std::wstring(temperature));
  };
  const auto camera = Frame(L"Canon", L"EOS R5"), ccd = Frame(L"", L"");
  EXPECT_EQ(texts(*camera), "EOS R5||");
  EXPECT_EQ(texts(*ccd), "|?|?");
  for (const auto& frame : {camera, ccd}) {
    frame->GetHeader()->SetExposureTime(-9999.99);
    frame->GetHeader()->SetCoolingTemperature(-9999.99);
    frame->GetHeader()->SetDetector(L"KAF-8300");
  }
  EXPECT_EQ(texts(*camera), "EOS R5||");
  EXPECT_EQ(texts(*ccd), "KAF-8300|?|?");
  for (const auto& frame : {camera, ccd}) {
    frame->GetHeader()->SetExposureTime(0.004);
    frame->GetHeader()->SetCoolingTemperature(-20.25);
  }
  EXPECT_EQ(texts(*camera), "EOS R5|0.00秒|") << "without the file's own text";
  camera->GetHeader()->SetExposureShutterSpeed(L"1/250");
  EXPECT_EQ(texts(*camera), "EOS R5|1/250|");
  EXPECT_EQ(texts(*ccd), "KAF-8300|0.00秒|-20.2度");
}

}  // namespace
