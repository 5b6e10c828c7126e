// The terminal: lines, errors, progress, and the keys that cancel.
#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "korimg/platform/Messages.h"

namespace korimg::tool {

/// The user pressed Ctrl-C or Escape: exit code 130.
class Cancelled : public std::exception {
 public:
  const char* what() const noexcept override { return "cancelled"; }
};

/// On a terminal progress is a bar with the time left; elsewhere it is a plain line now and then. All of it
/// goes to standard error, so that standard output holds results only. Any thread may call it.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  void SetUp(bool quiet, bool json);

  /// A line for people, unless --quiet or --json was given.
  void Say(const std::string& line);
  /// Warnings and errors are always shown.
  void Warn(const std::string& line);
  void Error(const std::string& line);

  /// Shows how far a job is, in the user's units: step of total. A total of 0 ends the display.
  void Progress(const std::string& title, long long step, long long total);
  void EndProgress();
  /// The same for a job of many files, until a total of 0; what its parts show of theirs is kept away.
  /// `detail` stands in the place of "step of total".
  void JobProgress(const std::string& title, long long step, long long total, const std::string& detail = "");

  /// Throws Cancelled once Ctrl-C or Escape was pressed.
  void CheckCancelled();

  /// The window that the library's operations show their progress on. `title` stands for their own captions,
  /// which are shown under a Japanese locale only.
  HWND OperationWindow(const std::string& title);

 private:
  struct Keyboard;
  void Show(const std::string& title, long long step, long long total, const std::string& detail = "");
  void ClearBar();
  void End();

  std::recursive_mutex mutex_;
  bool quiet_ = false;
  bool json_ = false;
  bool isTerminal_;
  bool isJapanese_;
  bool barShown_ = false;
  bool inJob_ = false;
  std::string title_;
  int lastPercent_ = -1;
  std::chrono::steady_clock::time_point start_, lastShown_;
  HWND window_;
  std::string operation_;
  std::unique_ptr<Keyboard> keyboard_;
};

/// Lets Ctrl-C and SIGTERM cancel at the next step; a second one ends the program at once, without a trace of
/// the files it was writing.
void CatchSignals();

}  // namespace korimg::tool
