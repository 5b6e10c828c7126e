#include "korimg/raw/CImgInformation.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "korimg/platform/StringTable.h"
#include "korimg/raw/internal/CameraText.h"

using namespace korimg;

namespace {

/// Models that share a colour filter array, separated by commas. One that starts with = must be the whole
/// name, any other a part of it. A width not 0 must be the image's.
struct Pattern {
  int cfa;
  std::wstring_view models;
  int width = 0;
};

struct Maker {
  std::wstring_view name;  ///< a part of the maker's
  std::vector<Pattern> patterns;
};

/// The first maker that is hit counts, and then its first model: since most entries are parts of names, their
/// order is part of the data.
const std::vector<Maker>& Makers() {
  static const std::vector<Maker> makers = {
      {L"canon",
       {
           {1,
            L"eos 9000d, eos 77d, eos 8000d, eos rebel t6s, eos 760d, eos kiss x90, eos rebel t7, "
            L"eos 2000d, eos 1500d, =eos kiss x9, eos rebel sl2, eos 200d, eos kiss x9i, "
            L"eos rebel t7i, eos 800d, eos kiss x8i, eos rebel t6i, eos 750d, =eos kiss x7, "
            L"eos rebel sl1, eos 100d, eos kiss x7i, eos rebel t5i, eos 700d, eos kiss x6i, "
            L"eos rebel t4i, eos 650d, eos kiss x3, eos rebel t1i, eos 500d, eos kiss f, eos rebel xs, "
            L"eos 1000d, eos kiss x2, eos rebel xsi, eos 450d, eos kiss digital x, "
            L"eos digital rebel xti, eos 400d digital, eos kiss digital n, eos digital rebel xt, "
            L"eos 350d digital, eos kiss digital, eos digital rebel, eos 300d digital, eos d30, "
            L"eos d60, eos 10d, eos 20d, eos 20da, eos 30d, eos 40d, eos 70d, eos 80d, eos 5ds, "
            L"eos 5ds r, eos-1ds mark iii, eos-1d mark iii, eos-1d mark ii n, eos-1d mark ii, "
            L"eos-1d x, eos-1d x mark ii, =eos 5d, =eos 5d mark iii, =eos 5d mark iv, =eos 6d, "
            L"=eos 6d mark ii, =eos 7d mark ii, =eos m, =eos m2, =eos m3, =eos m5, =eos m6, =eos m10, "
            L"=eos m100, =eos kiss x10, =eos 250d, =eos 200d ii, =eos digital rebel sl3, =eos r, "
            L"=eos rp, =eos kiss m, =eos m50, =eos ra, =eos 90d, =eos m6 mark ii, =eos m200, "
            L"=eos-1d x mark iii, =eos r5, =eos r6, =eos kiss x10i, =eos 850d, =eos rebel t8i, "
            L"eos kiss x50, eos 1100d"},
           {4, L"eos rebel t3i"},
           {1, L"eos rebel t3"},
           {4,
            L"eos-1d mark iv, eos-1ds mark ii, eos 5d mark ii, eos 7d, eos 50d, eos 60d, eos kiss x4, "
            L"eos rebel t2i, eos 550d, eos kiss x5, eos rebel t3i, eos 600d, eos kiss x70, "
            L"eos rebel t5, eos 1200d, eos hi, eos kiss x80, eos rebel t6, eos 1300d"},
           {2, L"eos-1d, eos-1ds"},
           {1,
            L"powershot g2, powershot g3, powershot g5, powershot g6, powershot pro1, powershot s40, "
            L"powershot s30, powershot s50, powershot s60, powershot s70"},
       }},
      {L"nikon",
       {
           {2, L"d100, d200"},
           {3,
            L"d1x, d1h, =nikon d1, d70s, =nikon d70, =nikon d50, =nikon d40, e8800, e8400, e8700, "
            L"e5400"},
           {4, L"d2hs, d2h, =nikon d80, d40x, =nikon d60, d90, =nikon d5000, =nikon d3000, =nikon d3100"},
           {1,
            L"d3s, d3x, d2x, d2xs, d3, d4, df, d4s, d5, d6, d300, d700, d500, =nikon d7000, "
            L"=nikon d5100, =nikon d800, =nikon d800e, =nikon d810, =nikon d810a, =nikon d850, "
            L"=nikon d600, =nikon d610, =nikon d750, =nikon d780, =nikon d5200, =nikon d3200, "
            L"=nikon d7100, =nikon d5300, =nikon d3300, =nikon d5500, =nikon d7200, =nikon d5600, "
            L"=nikon d3400, =nikon d3500, =nikon d7500, =nikon 1 j1, =nikon 1 v1, =nikon 1 j2, "
            L"=nikon 1 v2, =nikon 1 s1, =nikon 1 j3, =nikon 1 aw1, =nikon 1 s2, =nikon 1 j4, "
            L"=nikon 1 v3, =nikon 1 j5, =nikon z 6, =nikon z 7, =nikon z 50, =nikon z 5"},
           {5, L"e5000, e5700"},
       }},
      {L"pentax",
       {
           {1, L"*ist dl2, *ist ds2, *ist ds, *ist dl, *ist d, k100d, k10d super, k10d, k-m, k200d, k2000"},
           {3, L"k20d, k-7, k-x, k-r, k-5, 645d"},
       }},
      {L"ricoh",
       {
           {1, L"k-3, 645z, k-s1, k-s2, k-3 ii, k-1, k-70, kp, k-1 mark ii"},
       }},
      {L"fujifilm",
       {
           {11, L"finepixs2pro"},
       }},
      {L"olympus",
       {
           {2, L"e-m5markii", 9274},
           {1,
            L"e-m1markiii, e-m5markiii, e-pl10, e-pl9, e-m10 mark iii, e-pl8, e-m1markii, pen-f, "
            L"e-m10markii, air-a01, e-m10, e-m5markii, e-m5, e-p5, e-p3, e-pm2, e-pm1, e-pl7, e-pl6, "
            L"e-pl5, e-pl3, e-pl2, e-pl1s, e-pl1, e-p2, e-p1, e-520, e-420, e-510, e-500, e-410, "
            L"e-330, e-300, =e-3, e-20, e-10, c5060wz, c70z, e-m1x"},
           {2, L"=e-1"},
           {3, L"e-m1, =e-5, e-30, e-620, c5050z, c8080wz"},
       }},
      {L"konica minolta",
       {
           {1, L"alpha-7 digital, maxxum 7d, dynax 7d"},
       }},
      {L"sony",
       {
           {1,
            L"ilce-qx1, nex-5t, nex-3n, nex-6, nex-5r, nex-f3, nex-7, nex-c5n, nex-c3, nex-5, nex-3, "
            L"ilce-7r3, ilce-7rm3, ilce-9m2, ilce-9, ilca-99m2, ilce-6500, ilce-6300, ilce-7sm2, "
            L"ilce-7rm2, ilce-5100, ilce-7m2, ilca-77m2, ilce-7s, ilce-6000, ilce-5000, ilce-7rm4, "
            L"ilce-7r, ilce-7, ilce-6400, ilce-6100, ilce-6600, slt-a58, slt-a99v, slt-a37, slt-a57, "
            L"slt-a65v, slt-a77v, slt-a55v, slt-a33, dslr-a550, dslr-a380, dslr-a330, dslr-a230, "
            L"dslr-a900, dslr-a300, dslr-a350, dslr-a200, dslr-a700"},
       }},
  };
  return makers;
}

/// A reduced size of a camera's frames; 0 stands for any width or height.
struct Size {
  CImgInformation::RAWTYPE type;
  int width, height = 0;
};

struct Sizes {
  std::vector<std::wstring_view> models;  ///< whole names
  std::vector<Size> sizes;                ///< the first that fits counts
};

const std::vector<Sizes>& CanonSizes() {
  constexpr auto kS = CImgInformation::RawS, kS1 = CImgInformation::RawS1, kS2 = CImgInformation::RawS2,
                 kMedium = CImgInformation::RawMedium, kSmall = CImgInformation::RawSmall;
  static const std::vector<Sizes> sizes = {
      {{L"eos-1ds mark iii"}, {{kS, 2784}}},
      {{L"eos-1d mark iii", L"eos 40d"}, {{kS, 1936}}},
      {{L"eos 50d"}, {{kS1, 3267}, {kS2, 2376}}},
      {{L"eos 5d mark ii"}, {{kS1, 3861}, {kS2, 2784}}},
      {{L"eos 7d", L"eos 60d", L"eos-1d x"}, {{kMedium, 3888}, {kSmall, 2592}}},
      {{L"eos-1d mark iv"}, {{kMedium, 3672}, {kSmall, 2448}}},
      {{L"eos 6d", L"eos 7d mark ii", L"eos 70d", L"eos-1d x mark ii"}, {{kMedium, 4104}, {kSmall, 2736}}},
      {{L"eos 5d mark iii"}, {{kMedium, 3960}, {kSmall, 2880}}},
      {{L"eos 5ds", L"eos 5ds r"}, {{kMedium, 6480}, {kSmall, 4320}}},
      {{L"eos 80d"}, {{kMedium, 4500}, {kSmall, 3000}}},
      {{L"eos 5d mark iv"}, {{kMedium, 5040}, {kSmall, 3360}}},
      {{L"eos 6d mark ii"}, {{kMedium, 4680}, {kSmall, 3120}}},
  };
  return sizes;
}

const std::vector<Sizes>& NikonSizes() {
  constexpr auto kS = CImgInformation::RawSizeS, kM = CImgInformation::RawSizeM;
  static const std::vector<Sizes> sizes = {
      {{L"nikon d4s"}, {{kS, 2464}, {kS, 2048}, {kS, 1600}}},
      {{L"nikon d810", L"nikon d810a"}, {{kS, 3680}, {kS, 3072}, {kS, 2400}}},
      {{L"nikon d500"}, {{kM, 4176}, {kM, 3200}, {kS, 2784}, {kS, 2128}}},
      {{L"nikon d5"}, {{kM, 4176}, {kM, 3472}, {kM, 2736}, {kS, 2784}, {kS, 2320}, {kS, 1824}}},
      {{L"nikon d850"},
       {{kM, 6192},
        {kM, 5152},
        {kM, 4048},
        {kM, 4128, 4128},
        {kS, 4128},
        {kS, 3440},
        {kS, 2704},
        {kS, 2752, 2752}}},
      // From here on an upright frame counts too.
      {{L"nikon z 6", L"nikon d780"},
       {{kM, 4528, 3016},
        {kM, 3016, 4528},
        {kM, 2944},
        {kM, 0, 2944},
        {kM, 3008},
        {kM, 4528, 2544},
        {kM, 2544, 4528},
        {kS, 3024, 2016},
        {kS, 2016, 3024},
        {kS, 1968},
        {kS, 0, 1968},
        {kS, 2000},
        {kS, 3024, 1696},
        {kS, 1696, 3024}}},
      {{L"nikon z 7"},
       {{kM, 6192, 4128},
        {kM, 4128, 6192},
        {kM, 4048},
        {kM, 0, 4048},
        {kM, 5153},
        {kM, 0, 5153},
        {kM, 4128},
        {kM, 6192, 3480},
        {kM, 3480, 6192},
        {kS, 2752, 4128},
        {kS, 2704},
        {kS, 0, 2704},
        {kS, 3440},
        {kS, 0, 3440},
        {kS, 2752},
        {kS, 0, 2752},
        {kS, 2320, 4128}}},
      {{L"nikon z 50"}, {{kM, 4176}, {kM, 0, 4176}, {kM, 2784}, {kS, 0, 2784}, {kS, 1856}}},
      {{L"nikon d6"},
       {{kM, 4176, 2784}, {kM, 2784, 4176}, {kM, 3472, 2312}, {kM, 2312, 3472}, {kM, 2736},
        {kM, 0, 2736},    {kM, 3472},       {kM, 0, 3472},    {kM, 2784},       {kM, 4176, 2344},
        {kM, 2344, 4176}, {kS, 1856, 2784}, {kS, 2320, 1544}, {kS, 1544, 2320}, {kS, 1824},
        {kS, 0, 1824},    {kS, 2320},       {kS, 0, 2320},    {kS, 1856},       {kS, 1560, 2784}}},
      {{L"nikon z 5"},
       {{kM, 4512, 3008},
        {kM, 3008, 4512},
        {kM, 2944},
        {kM, 0, 2944},
        {kM, 3008},
        {kM, 4512, 2536},
        {kM, 2536, 4512},
        {kS, 2008, 3008},
        {kS, 1968},
        {kS, 0, 1968},
        {kS, 2000},
        {kS, 1688, 3008}}},
  };
  return sizes;
}

const wchar_t* LabelOf(CImgInformation::RAWTYPE type) {
  switch (type) {
    case CImgInformation::RawS:
      return L"sRAW";
    case CImgInformation::RawS1:
      return L"sRAW)";
    case CImgInformation::RawS2:
      return L"sRAW2";
    case CImgInformation::RawMedium:
      return L"M-RAW";
    case CImgInformation::RawSmall:
      return L"S-RAW";
    case CImgInformation::RawSizeS:
      return L"RAW S";
    case CImgInformation::RawSizeM:
      return L"RAW M";
    default:
      return L"";
  }
}

bool Hits(std::wstring_view models, const std::wstring& model) {
  constexpr std::wstring_view kSeparator = L", ";
  while (!models.empty()) {
    const std::wstring_view entry = models.substr(0, models.find(kSeparator));
    if (entry.front() == L'=' ? model == entry.substr(1) : Contains(model, entry)) return true;
    models.remove_prefix(std::min(entry.size() + kSeparator.size(), models.size()));
  }
  return false;
}

/// A number by the string table's format; an unknown one, absent or -9999.99, leaves the text alone.
void FormatKnown(bool present, double number, int format, CString& text) {
  constexpr double kUnknown = -9999.99;
  if (!present || !(std::abs(number - kUnknown) > std::numeric_limits<double>::epsilon())) return;
  // "%.2f" of the text is the number; a point is a point in every locale.
  const std::wstring& pattern = LoadString(format);
  const size_t at = pattern.find(L"%.");
  char digits[400];
  const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), number,
                                          std::chars_format::fixed, pattern[at + 2] - L'0');
  text = (pattern.substr(0, at) + std::wstring(digits, end) + pattern.substr(at + 4)).c_str();
}

}  // namespace

int CImgInformation::GetAutoCFA(int* cfa) const {
  const CHeader& header = *GetHeader();
  if (header.GetCFAPattern() > 0) {
    *cfa = header.GetCFAPattern();
    return 1;
  }
  const std::wstring maker = LowerCase(header.GetCameraMaker()), model = LowerCase(header.GetCameraModel());
  if (maker.empty() || model.empty()) return 0;
  const auto known =
      std::find_if(Makers().begin(), Makers().end(), [&](const Maker& m) { return Contains(maker, m.name); });
  if (known == Makers().end()) return 0;
  for (const Pattern& pattern : known->patterns) {
    if (pattern.width && pattern.width != GetWidth()) continue;
    if (Hits(pattern.models, model)) {
      *cfa = pattern.cfa;
      return 1;
    }
  }
  return 0;
}

CImgInformation::RAWTYPE CImgInformation::GetRawType(CString& label) const {
  label.Empty();
  const std::wstring maker = LowerCase(GetHeader()->GetCameraMaker()),
                     model = LowerCase(GetHeader()->GetCameraModel());
  if (maker.empty() || model.empty()) return RawUnknown;
  const bool isCanon = Contains(maker, L"canon");
  if (!isCanon && !Contains(maker, L"nikon")) return RawFull;
  for (const Sizes& camera : isCanon ? CanonSizes() : NikonSizes()) {
    if (std::find(camera.models.begin(), camera.models.end(), model) == camera.models.end()) continue;
    for (const Size& size : camera.sizes) {
      if ((size.width && size.width != GetWidth()) || (size.height && size.height != GetHeight())) continue;
      label = LabelOf(size.type);
      return size.type;
    }
  }
  return RawFull;
}

void CImgInformation::GetInfoString(CString& instrument, CString& exposure, CString& temperature) const {
  constexpr int kSeconds = 6184, kDegrees = 6185;
  const CHeader& header = *GetHeader();
  double seconds = 0, celsius = 0;
  const bool hasExposure = header.GetExposureTime(&seconds) != 0;
  if (!IsCcd()) {
    instrument = header.GetCameraModel();
    exposure.Empty();
    temperature.Empty();
    if (!header.GetExposureShutterSpeed(exposure)) FormatKnown(hasExposure, seconds, kSeconds, exposure);
    return;
  }
  instrument.Empty();
  header.GetDetector(instrument);
  FormatKnown(hasExposure, seconds, kSeconds, exposure);
  const bool hasTemperature = header.GetCoolingTemperature(&celsius) != 0;
  FormatKnown(hasTemperature, celsius, kDegrees, temperature);
}
