#include "korimg/image/Progress.h"

namespace korimg {

void SendProgress(HWND window, ProgressEvent event, const wchar_t* text) {
  SendMessageW(window, kProgressMessage, static_cast<std::uintptr_t>(event),
               reinterpret_cast<std::intptr_t>(text));
}

void PostProgress(HWND window, int number) {
  PostMessageW(window, kProgressMessage, static_cast<std::uintptr_t>(ProgressEvent::Step), number);
}

bool ContinueAfterMessages() {
  MSG message;
  while (PeekMessageW(&message, WM_KEYDOWN, WM_KEYDOWN)) {
    if (message.wParam == VK_ESCAPE) return false;
  }
  while (PeekMessageW(&message, WM_PAINT, WM_PAINT)) {
    DispatchMessageW(message);
  }
  while (PeekMessageW(&message, kProgressMessage, kProgressMessage)) {
    DispatchMessageW(message);
  }
  return true;
}

}  // namespace korimg

namespace velora {

using korimg::ProgressEvent;

std::shared_ptr<Progress> ProgressWin::Create(HWND window, const wchar_t* text, bool) {
  return std::shared_ptr<Progress>(new ProgressWin(window, text));
}

void ProgressWin::initialize() {
  korimg::SendProgress(window_, ProgressEvent::Open, text_.c_str());
}

void ProgressWin::update(int percent) {
  korimg::PostProgress(window_, percent);
}

void ProgressWin::finalize() {
  korimg::SendProgress(window_, ProgressEvent::Close, nullptr);
}

void ProgressWin::message(const std::wstring& text) {
  korimg::SendProgress(window_, ProgressEvent::Message, text.c_str());
}

bool ProgressWin::escape() {
  return !korimg::ContinueAfterMessages();
}

ScopedProgress::ScopedProgress(std::shared_ptr<Progress> progress, int steps)
    : progress_(std::move(progress)), steps_(steps) {
  if (progress_) progress_->initialize();
}

ScopedProgress::~ScopedProgress() {
  if (progress_) progress_->finalize();
}

void ScopedProgress::Step(int i) {
  if (!progress_) return;
  const int percent = static_cast<int>(100LL * (i + 1) / steps_);
  if (percent == last_) return;
  progress_->update(percent);
  last_ = percent;
}

}  // namespace velora
