#pragma once

#include <memory>
#include <string>

#include "korimg/platform/Export.h"
#include "korimg/platform/Messages.h"

namespace velora {

/// Hears from an operation of the store how far it is. An empty pointer is legal wherever one is taken.
class KORIMG_API Progress {
 public:
  virtual ~Progress() = default;
  virtual void initialize() = 0;
  virtual void update(int percent) = 0;  ///< 0 to 100
  virtual void finalize() = 0;
  virtual void message(const std::wstring& text) = 0;
  virtual bool escape() = 0;  ///< the user has asked to stop
};

/// Shows progress on a window, by the messages of korimg::ProgressEvent.
class KORIMG_API ProgressWin : public Progress {
 public:
  /// Makes one; a null window and a null text are legal: nothing is shown then.
  static std::shared_ptr<Progress> Create(HWND window, const wchar_t* text, bool pulse);

  void initialize() override;
  void update(int percent) override;
  void finalize() override;
  void message(const std::wstring& text) override;
  bool escape() override;

 private:
  ProgressWin(HWND window, const wchar_t* text) : window_(window), text_(text ? text : L"") {}

  HWND window_;
  std::wstring text_;
};

/// Makes percentages out of a stepped loop: initialises in the constructor, finalises in the destructor.
class KORIMG_API ScopedProgress {
 public:
  ScopedProgress(std::shared_ptr<Progress> progress, int steps);
  virtual ~ScopedProgress();
  ScopedProgress(const ScopedProgress&) = delete;
  ScopedProgress& operator=(const ScopedProgress&) = delete;

  /// Takes step i of the loop, from 0, as done; sends a percentage when it differs from the last one sent.
  void Step(int i);

 private:
  std::shared_ptr<Progress> progress_;
  int steps_;
  int last_ = -1;
};

}  // namespace velora

namespace korimg {

/// Number of the message by which operations speak to the window that shows their progress.
constexpr unsigned kProgressMessage = 1136;

/// First parameter of that message; the second one stands beside it. texts are const wchar_t*, sent and not
/// queued.
enum class ProgressEvent : unsigned {
  Open = 0,        ///< text: open the display
  Step = 1,        ///< number, queued: percent done, or in pulse mode the amount
  Close = 2,       ///< text or null: close the display
  Message = 4,     ///< text: change the message line
  SetHeader = 12,  ///< text: set the header
  ClearHeader = 13
};

/// Sends a progress event with its text, or queues the number of a step.
void SendProgress(HWND window, ProgressEvent event, const wchar_t* text);
void PostProgress(HWND window, int number);

/// Looks at this thread's messages while an operation runs: takes pending keys out of the queue and answers
/// false at once for Escape; else lets windows repaint and show their progress, and answers true.
KORIMG_API bool ContinueAfterMessages();

}  // namespace korimg
