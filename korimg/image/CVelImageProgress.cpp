// The progress family: what operations tell the window that shows them, and how they hear of Escape.
#include <algorithm>

#include "korimg/image/CVelImage.h"
#include "korimg/image/Progress.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/platform/StringTable.h"

using korimg::LoadString;
using korimg::ProgressEvent;

void CVelImage::ShowProgressInit(int show, const wchar_t* text, int total) {
  constexpr int kSteps = 50;  // of the display
  progressActive_ = show;
  progressPulse_ = 0;
  progressTotal_ = total;
  progressStep_ = std::max(total / kSteps, 1);
  progressCount_ = 0;
  progressNext_ = 0;
  if (show) korimg::SendProgress(progressWindow_, ProgressEvent::Open, text);
}

void CVelImage::ShowProgressInit(int show, int id, int total) {
  ShowProgressInit(show, LoadString(id).c_str(), total);
}

void CVelImage::ShowProgressInit(const wchar_t* text) {
  progressActive_ = 1;
  progressPulse_ = 1;
  progressTotal_ = 0;
  progressStep_ = 0;
  progressCount_ = 0;
  progressNext_ = 0;
  korimg::SendProgress(progressWindow_, ProgressEvent::Open, text);
}

void CVelImage::ShowProgressInit(int id) {
  ShowProgressInit(LoadString(id).c_str());
}

int CVelImage::ShowProgress(int n) {
  if (!progressActive_) return 1;
  if (progressPulse_) {
    korimg::PostProgress(progressWindow_, n);
    return ShowProgressContinue();
  }
  // The display needs about the right number only, so workers count without order.
  const int count = progressCount_.fetch_add(n, std::memory_order_relaxed) + n;
  if (progressTotal_ > 0 && count > progressNext_.load(std::memory_order_relaxed)) {
    const int percent = korimg::TruncateToInt(static_cast<double>(count) / progressTotal_ * 100.0);
    korimg::PostProgress(progressWindow_, std::min(percent, 100));
    progressNext_.fetch_add(progressStep_, std::memory_order_relaxed);
  }
  return ShowProgressContinue();
}

void CVelImage::ShowProgressRest() {
  const int count = progressCount_.load(std::memory_order_relaxed);
  if (!progressPulse_ && progressTotal_ > count) ShowProgress(progressTotal_ - count);
}

bool CVelImage::ShowProgressContinue() {
  return korimg::ContinueAfterMessages();
}

void CVelImage::ShowProgressMsg(const wchar_t* text) {
  korimg::SendProgress(progressWindow_, ProgressEvent::Message, text);
}

void CVelImage::ShowProgressMsg(int id) {
  ShowProgressMsg(LoadString(id).c_str());
}

void CVelImage::ShowProgressSetHeader(const wchar_t* text) {
  korimg::SendProgress(progressWindow_, ProgressEvent::SetHeader, text);
}

void CVelImage::ShowProgressClearHeader() {
  korimg::SendProgress(progressWindow_, ProgressEvent::ClearHeader, nullptr);
}

void CVelImage::ShowProgressEnd(const wchar_t* text) {
  if (progressActive_) korimg::SendProgress(progressWindow_, ProgressEvent::Close, text);
  progressActive_ = 0;
}

void CVelImage::ShowProgressEnd(int id) {
  ShowProgressEnd(LoadString(id).c_str());
}
