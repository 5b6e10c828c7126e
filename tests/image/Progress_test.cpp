#include "korimg/image/Progress.h"

#include <gtest/gtest.h>

#include "korimg/image/CImgInvert.h"
#include "korimg/platform/StringTable.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

/// A window that writes down what it is told.
class Recorder {
 public:
  Recorder() {
    window_ = CreateMessageWindow([this](unsigned message, std::uintptr_t first, std::intptr_t second) {
      if (message == WM_PAINT) events.emplace_back("paint");
      if (message == kProgressMessage) Write(static_cast<unsigned>(first), second);
      return 0;
    });
  }
  ~Recorder() { DestroyMessageWindow(window_); }
  HWND Window() const { return window_; }
  std::vector<std::string> events;

 private:
  void Write(unsigned event, std::intptr_t value) {
    const bool isText = event == 0 || event == 2 || event == 4 || event == 12;
    const auto* text = reinterpret_cast<const wchar_t*>(value);
    events.push_back(std::to_string(event) + " " +
                     (!isText ? std::to_string(value)
                      : text
                          ? (text == LoadString(6124) ? "invert" : std::to_string(std::wstring(text).size()))
                          : "null"));
  }
  HWND window_;
};

TEST(Progress, OneEventForEachStep) {
  Recorder recorder;
  CVelImage image;
  image.SetProgressHandle(recorder.Window());
  image.ShowProgressInit(1, 6124, 100);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(image.ShowProgress(1), 1);
  }
  image.ShowProgress(30);  // one event, not fifteen
  image.ShowProgressEnd(0);
  EXPECT_EQ(recorder.events,
            (std::vector<std::string>{"0 invert", "1 1", "1 3", "1 5", "1 7", "1 9", "1 40", "2 0"}));
}

TEST(Progress, IsNeverMoreThanAllAndNothingOfNothing) {
  Recorder recorder;
  CVelImage image;
  image.SetProgressHandle(recorder.Window());
  image.ShowProgressInit(1, 0, 0);
  image.ShowProgress(1);
  image.ShowProgressInit(1, 0, 2);
  image.ShowProgress(5);
  EXPECT_EQ(recorder.events, (std::vector<std::string>{"0 0", "0 0", "1 100"}));
}

TEST(Progress, PulseModePassesAmountsOn) {
  Recorder recorder;
  CVelImage image;
  image.SetProgressHandle(recorder.Window());
  image.ShowProgressInit(L"abc");
  image.ShowProgress(7);
  image.ShowProgressMsg(L"de");
  image.ShowProgressSetHeader(L"f");
  image.ShowProgressClearHeader();
  image.ShowProgressEnd(nullptr);
  image.ShowProgressEnd(0);  // closed already
  EXPECT_EQ(recorder.events, (std::vector<std::string>{"0 3", "1 7", "4 2", "12 1", "13 0", "2 null"}));
}

TEST(Progress, WithoutDisplayNothingIsSentOrHeard) {
  Recorder recorder;
  CVelImage image;
  image.SetProgressHandle(recorder.Window());
  PostMessageW(recorder.Window(), WM_KEYDOWN, VK_ESCAPE, 0);
  image.ShowProgressInit(0, 6124, 10);
  EXPECT_EQ(image.ShowProgress(1), 1);
  image.ShowProgressEnd(0);
  EXPECT_TRUE(recorder.events.empty());
  EXPECT_FALSE(ContinueAfterMessages()) << "the key is still there";
}

TEST(Progress, EscapeIsHeardAtOnceAndOtherKeysAreTaken) {
  Recorder recorder;
  CVelImage image;
  image.SetProgressHandle(recorder.Window());
  image.ShowProgressInit(1, 6124, 10);
  PostMessageW(recorder.Window(), WM_KEYDOWN, 'A', 0);
  PostMessageW(recorder.Window(), WM_PAINT, 0, 0);
  EXPECT_EQ(image.ShowProgress(1), 1);
  EXPECT_EQ(recorder.events, (std::vector<std::string>{"0 invert", "paint", "1 10"}));
  PostMessageW(recorder.Window(), WM_KEYDOWN, VK_ESCAPE, 0);
  PostMessageW(recorder.Window(), WM_PAINT, 0, 0);
  EXPECT_EQ(image.ShowProgress(1), 0);
  EXPECT_EQ(recorder.events.size(), 3u) << "Escape comes before painting";
  EXPECT_EQ(image.ShowProgress(1), 1);
}

TEST(Progress, AnOperationFinishesUnderItsDisplay) {
  for (const StoreCase& store : Stores()) {
    for (const unsigned features : {0u, 2u}) {
      const WithFeatures simd(features);
      const WithThreads team(4);
      Recorder recorder;
      const auto src = Make(store.make(), 16, 200, 3, Random(0, 1));
      const auto target = Make<CImgInvert>(src->VmManager(), 16, 200, 3, Random(0, 1));
      target->SetProgressHandle(recorder.Window());
      PostMessageW(recorder.Window(), WM_KEYDOWN, VK_ESCAPE, 0);
      target->Do(src.get(), nullptr, 1);
      ContinueAfterMessages();
      ContinueAfterMessages();
      ASSERT_GE(recorder.events.size(), 2u);
      EXPECT_EQ(recorder.events.front(), "0 invert");
      const bool steps = target->GetAllocationPolicy() == 0;
      EXPECT_EQ(recorder.events.size() > 10, steps) << store.name << ": pipelines take no steps";
      EXPECT_LE(recorder.events.size(), 2u + 51u);
      EXPECT_NE(target->GetPixelGrayRaw(15, 199, 2), static_cast<float>(Random(0, 1)(2, 15, 199)))
          << "this operation does not stop at Escape";
    }
  }
}

TEST(Progress, ScopedPercentages) {
  Recorder recorder;
  {
    velora::ScopedProgress steps(velora::ProgressWin::Create(recorder.Window(), L"x", false), 250);
    for (int i = 0; i < 250; ++i) {
      steps.Step(i);
    }
  }
  ContinueAfterMessages();
  // 0 to 100 percent once each, behind the open and close that are sent at once.
  ASSERT_EQ(recorder.events.size(), 103u);
  EXPECT_EQ(recorder.events.back(), "1 100");
  velora::ScopedProgress nothing(nullptr, 0);
  nothing.Step(0);
}

TEST(Progress, AWindowThatIsGoneIsLeftAlone) {
  HWND window = nullptr;
  {
    Recorder recorder;
    window = recorder.Window();
  }
  EXPECT_FALSE(PostMessageW(window, kProgressMessage, 0, 0));
  EXPECT_EQ(SendMessageW(window, kProgressMessage, 0, 0), 0);
  EXPECT_TRUE(velora::ProgressWin::Create(nullptr, nullptr, false) != nullptr);
}

}  // namespace
