#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include "korimg/platform/CKorSys.h"
#include "korimg/platform/CParallel.h"
#include "korimg/platform/CRegistry.h"
#include "korimg/platform/CString.h"
#include "korimg/platform/Debug.h"
#include "korimg/platform/Messages.h"
#include "korimg/platform/StringTable.h"
#include "korimg/raw/CImgInformation.h"

using namespace korimg;

namespace {

TEST(StringTable, HasEveryTextByNumber) {
  EXPECT_EQ(LoadString(6100), L"String Table of KorImg");
  EXPECT_EQ(LoadString(6106), L"ダーク補正処理中...");
  EXPECT_EQ(LoadString(6124), L"反転処理中...");
  EXPECT_EQ(LoadString(6184), L"%.2f秒");
  EXPECT_EQ(LoadString(6205), L"セルフフラット補正中...");
  for (int id = kFirstString; id <= kLastString; ++id) {
    EXPECT_FALSE(LoadString(id).empty()) << id;
  }
  for (const int id : {0, -1, 6099, 6206}) {
    EXPECT_TRUE(LoadString(id).empty()) << id;
  }
}

TEST(Debug, TextsGoThereAndBack) {
  const std::string text = "ß 星雲 𝛼 a";
  EXPECT_EQ(Widen(text), L"ß 星雲 𝛼 a");
  EXPECT_EQ(Narrow(Widen(text)), text);
  EXPECT_EQ(Widen("a\xC3"), L"a\xFFFD") << "cut short";
  EXPECT_EQ(Widen("\xFF"
                  "b"),
            L"\xFFFD"
            L"b");
  EXPECT_EQ(Narrow(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
  std::wstring seen;
  SetDebugSink([&](const std::wstring& line) { seen += line; });
  OutputDebugStringW(L"x");
  OutputDebugStringW(nullptr);
  DebugLine("ß");
  SetDebugSink([](const std::wstring&) { throw 1; });
  DebugLine("a sink that fails does no harm");
  SetDebugSink(nullptr);
  EXPECT_EQ(seen, L"xß");
}

class MapProvider : public SettingsProvider {
 public:
  std::map<std::string, std::string> values;
  std::optional<std::string> Get(const std::string& section, const std::string& key) const override {
    const auto found = values.find(section + "/" + key);
    return found == values.end() ? std::nullopt : std::optional(found->second);
  }
};

TEST(Registry, ReadsNumbersOrTheDefault) {
  const auto provider = std::make_shared<MapProvider>();
  provider->values = {{"Psf/Max", "12"}, {"Eval/Min", "0.25"}, {"Eval/Max", "much"}};
  CRegistry::SetProvider(provider);
  int i = 0;
  double d = 0;
  EXPECT_TRUE(CRegistry::Read(L"Psf", L"Max", 5, &i));
  EXPECT_EQ(i, 12);
  EXPECT_TRUE(CRegistry::Read(L"Eval", L"Min", 5.0, &d));
  EXPECT_EQ(d, 0.25);
  EXPECT_FALSE(CRegistry::Read(L"Eval", L"Max", 5.0, &d));
  EXPECT_EQ(d, 5.0);
  EXPECT_FALSE(CRegistry::Read(L"Nowhere", L"Max", 7, &i));
  EXPECT_EQ(i, 7);

  const auto folder = std::filesystem::temp_directory_path() / "korimg registry ß";
  std::filesystem::create_directories(folder / "korimg");
  std::ofstream(folder / "korimg" / "korimg.ini") << "; settings\n[Dialog\\AutoStretch]\n FilterR = 1.5 \r\n";
  setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
  CRegistry::SetProvider(nullptr);
  EXPECT_TRUE(CRegistry::Read(L"Dialog\\AutoStretch", L"FilterR", 0.0, &d));
  EXPECT_EQ(d, 1.5);
  std::filesystem::remove_all(folder);
}

TEST(Registry, APointIsAPointInEveryLocale) {
  const auto folder = std::filesystem::temp_directory_path() / "korimg locale";
  std::filesystem::create_directories(folder);
  const std::string compile =
      "localedef -i de_DE -f UTF-8 '" + (folder / "de_DE.UTF-8").string() + "' > /dev/null 2>&1";
  const int made = std::system(compile.c_str());
  setenv("LOCPATH", folder.c_str(), 1);
  const bool known =
      made == 0 && std::setlocale(LC_ALL, "de_DE.UTF-8") && *std::localeconv()->decimal_point == ',';
  CImgInformation image;
  image.GetHeader()->SetExposureTime(2.5);
  const auto provider = std::make_shared<MapProvider>();
  provider->values = {{"Eval/Min", " +0.25 s"}};
  CRegistry::SetProvider(provider);
  double d = 0;
  const bool read = CRegistry::Read(L"Eval", L"Min", 5.0, &d);
  CString instrument, exposure, temperature;
  image.GetInfoString(instrument, exposure, temperature);
  CRegistry::SetProvider(nullptr);
  std::setlocale(LC_ALL, "C");
  unsetenv("LOCPATH");
  std::filesystem::remove_all(folder);
  if (!known) GTEST_SKIP() << "needs the package of locales";
  EXPECT_TRUE(read);
  EXPECT_EQ(d, 0.25);
  EXPECT_EQ(exposure, L"2.50秒");
}

TEST(Messages, EachThreadHasItsOwnQueue) {
  int handled = 0;
  const HWND window = CreateMessageWindow([&](unsigned message, std::uintptr_t first, std::intptr_t second) {
    handled += static_cast<int>(message + first) + static_cast<int>(second);
    return 42;
  });
  std::thread([&] {
    MSG none;
    EXPECT_TRUE(PostMessageW(window, 10, 2, 3));
    EXPECT_FALSE(PeekMessageW(&none, 0, 100)) << "the message is the owner's";
    EXPECT_EQ(SendMessageW(window, 100, 0, 0), 42);
  }).join();
  EXPECT_EQ(handled, 100) << "what is posted waits";
  MSG message;
  EXPECT_FALSE(PeekMessageW(&message, 11, 20));
  ASSERT_TRUE(PeekMessageW(&message, 5, 15));
  EXPECT_EQ(DispatchMessageW(message), 42);
  EXPECT_EQ(handled, 115);
  DestroyMessageWindow(window);
  EXPECT_EQ(DispatchMessageW(message), 0);
}

TEST(System, CanBeOverridden) {
  CKorSys::OverrideSIMD(5);
  EXPECT_EQ(CKorSys::SIMD(), 5u);
  CKorSys::OverrideSIMD(std::nullopt);
  EXPECT_TRUE(CKorSys::SIMD() & 2u) << "every processor of this kind has them";
  const int before = CParallel::GetMaxThreads();
  CParallel::SetMaxThreads(0);
  EXPECT_EQ(CParallel::GetMaxThreads(), 1);
  CParallel::SetMaxThreads(before);
  EXPECT_EQ(CParallel::GetThreadNum(), 0);
}

TEST(CString, IsAWideString) {
  EXPECT_TRUE(CString().IsEmpty());
  EXPECT_TRUE(CString(nullptr).IsEmpty());
  CString text = L"星";
  EXPECT_EQ(text.GetLength(), 1);
  EXPECT_TRUE(text == L"星");
  EXPECT_FALSE(text == CString(L"x"));
  text.Empty();
  EXPECT_EQ(std::wstring(text), L"");
}

}  // namespace
