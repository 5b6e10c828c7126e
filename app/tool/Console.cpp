#include "app/tool/Console.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include <fmt/format.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "korimg/image/Progress.h"
#include "korimg/platform/Debug.h"

#include "app/files/ImageFile.h"
#include "app/tool/Tool.h"

namespace korimg::tool {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void OnSignal(int) {
  if (g_interrupted) {
    files::RemovePartialFiles();
    _exit(kCancelled);
  }
  g_interrupted = 1;
}

bool HasJapaneseLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value && *value) return std::string(value).starts_with("ja");
  }
  return false;
}

constexpr char kEscape = 27;

}  // namespace

/// Single keys from the terminal, for as long as a bar is shown.
struct Console::Keyboard {
  termios before{};
  bool active = false;

  Keyboard() {
    // A process in the background must leave the terminal alone.
    if (!isatty(STDIN_FILENO) || tcgetpgrp(STDIN_FILENO) != getpgrp() ||
        tcgetattr(STDIN_FILENO, &before) != 0)
      return;
    termios raw = before;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    active = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
  }
  ~Keyboard() {
    if (active) tcsetattr(STDIN_FILENO, TCSANOW, &before);
  }

  /// A lone Escape; keys such as the arrows send it with more behind.
  bool EscapePressed() const {
    char keys[16];
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (!active || poll(&input, 1, 0) <= 0) return false;
    return read(STDIN_FILENO, keys, sizeof keys) == 1 && keys[0] == kEscape;
  }
};

Console::Console() : isTerminal_(isatty(STDERR_FILENO)), isJapanese_(HasJapaneseLocale()) {
  window_ = CreateMessageWindow([this](unsigned message, std::uintptr_t first, std::intptr_t second) {
    if (message != kProgressMessage) return 0;
    switch (static_cast<ProgressEvent>(first)) {
      case ProgressEvent::Open:
        if (isJapanese_ && second) operation_ = Narrow(reinterpret_cast<const wchar_t*>(second));
        break;
      case ProgressEvent::Step:
        Progress(operation_, second, 100);
        break;
      case ProgressEvent::Close:
        EndProgress();
        break;
      default:
        break;
    }
    return 0;
  });
}

Console::~Console() {
  End();
  DestroyMessageWindow(window_);
}

void Console::SetUp(bool quiet, bool json) {
  quiet_ = quiet;
  json_ = json;
}

void Console::Say(const std::string& line) {
  if (quiet_ || json_) return;
  const std::lock_guard lock(mutex_);
  ClearBar();
  fmt::print("{}\n", line);
  std::fflush(stdout);
}

void Console::Warn(const std::string& line) {
  const std::lock_guard lock(mutex_);
  ClearBar();
  fmt::print(stderr, "korimg: warning: {}\n", line);
}

void Console::Error(const std::string& line) {
  const std::lock_guard lock(mutex_);
  ClearBar();
  fmt::print(stderr, "korimg: {}\n", line);
}

void Console::Progress(const std::string& title, long long step, long long total) {
  const std::lock_guard lock(mutex_);
  if (!inJob_) Show(title, step, total);
}

void Console::EndProgress() {
  const std::lock_guard lock(mutex_);
  if (!inJob_) End();
}

void Console::JobProgress(const std::string& title, long long step, long long total,
                          const std::string& detail) {
  const std::lock_guard lock(mutex_);
  inJob_ = total > 0;
  Show(title, step, total, detail);
}

void Console::Show(const std::string& title, long long step, long long total, const std::string& detail) {
  using namespace std::chrono;
  if (total <= 0) return End();
  const auto now = steady_clock::now();
  if (title != title_) {
    End();
    title_ = title;
    start_ = now;
    lastShown_ = now;
  }
  const int percent = static_cast<int>(100 * std::min(step, total) / total);
  if (quiet_ || percent == lastPercent_) return;
  lastPercent_ = percent;
  const std::string where = detail.empty() ? fmt::format("{} of {}", step, total) : detail;
  if (!isTerminal_) {
    // A line every few seconds is enough for a log.
    if (now - lastShown_ < 5s) return;
    lastShown_ = now;
    fmt::print(stderr, "korimg: {}: {}\n", title, where);
    return;
  }
  if (!keyboard_) keyboard_ = std::make_unique<Keyboard>();
  if (now - start_ < 300ms) return;  // what is over at once needs no bar
  constexpr int kWidth = 30;
  const double seconds = duration<double>(now - start_).count();
  const int left =
      step > 0 ? static_cast<int>(seconds * static_cast<double>(total - step) / static_cast<double>(step))
               : 0;
  fmt::print(stderr, "\r{} [{:<{}}] {:3} %  {}  {:.1f}/s  {}:{:02} left \x1b[K", title,
             std::string(static_cast<size_t>(percent * kWidth / 100), '#'), kWidth, percent, where,
             static_cast<double>(step) / std::max(seconds, 1e-3), left / 60, left % 60);
  barShown_ = true;
}

void Console::ClearBar() {
  if (barShown_) fmt::print(stderr, "\r\x1b[K");
  barShown_ = false;
  lastPercent_ = -1;
}

void Console::End() {
  ClearBar();
  title_.clear();
  keyboard_.reset();
}

void Console::CheckCancelled() {
  const std::lock_guard lock(mutex_);
  if (g_interrupted || (keyboard_ && keyboard_->EscapePressed())) {
    End();
    throw Cancelled();
  }
}

HWND Console::OperationWindow(const std::string& title) {
  operation_ = title;
  return window_;
}

void CatchSignals() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // A file size limit is an error of the write, which names the file.
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace korimg::tool
