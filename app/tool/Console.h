// The terminal: lines, errors, progress, and the keys that cancel.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "session/job/Job.h"

namespace korimg::tool {

/// True under a Japanese locale.
bool HasJapaneseLocale();

/// On a terminal progress is a bar with the time left; elsewhere it is a plain line now and then. All of it
/// goes to standard error, so that standard output holds results only. Any thread may call it.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  void SetUp(bool quiet, bool verbose, bool json);

  /// Shows an event of a job. Lines for people come unless --quiet or --json was given, and with --json
  /// results as objects in place of them; warnings and failures always.
  void Show(const session::Event& event);
  /// An error that ends the call.
  void Error(const std::string& line);

  /// Cancels jobs by Ctrl-C, SIGTERM, or Escape while a bar is shown. It must not outlive the console.
  std::shared_ptr<session::CancelToken> Token();

 private:
  struct Keyboard;
  class TerminalToken;
  void Print(const std::string& line);
  void ShowProgress(const session::Event& event);
  void ClearBar();
  void End();

  std::recursive_mutex mutex_;
  bool quiet_ = false;
  bool verbose_ = false;
  bool json_ = false;
  bool isTerminal_;
  bool barShown_ = false;
  std::string title_;
  int lastPercent_ = -1;
  std::chrono::steady_clock::time_point start_, lastShown_;
  std::unique_ptr<Keyboard> keyboard_;
};

/// Lets Ctrl-C and SIGTERM cancel at the next step; a second one ends the program at once, without a trace of
/// the files it was writing.
void CatchSignals();

}  // namespace korimg::tool
