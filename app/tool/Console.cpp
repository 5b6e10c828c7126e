#include "app/tool/Console.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include <fmt/format.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "app/tool/Tool.h"
#include "session/files/ImageFile.h"

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

constexpr char kEscape = 27;

}  // namespace

bool HasJapaneseLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value && *value) return std::string(value).starts_with("ja");
  }
  return false;
}

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

/// What the terminal has to say of cancelling.
class Console::TerminalToken : public session::CancelToken {
 public:
  explicit TerminalToken(Console& console) : console_(console) {}
  bool IsCancelled() override {
    const std::lock_guard lock(console_.mutex_);
    if (g_interrupted || (console_.keyboard_ && console_.keyboard_->EscapePressed())) Cancel();
    if (!CancelToken::IsCancelled()) return false;
    console_.End();
    return true;
  }

 private:
  Console& console_;
};

Console::Console() : isTerminal_(isatty(STDERR_FILENO)) {}

Console::~Console() {
  End();
}

std::shared_ptr<session::CancelToken> Console::Token() {
  return std::make_shared<TerminalToken>(*this);
}

void Console::SetUp(bool quiet, bool verbose, bool json) {
  quiet_ = quiet;
  verbose_ = verbose;
  json_ = json;
}

void Console::Show(const session::Event& event) {
  using session::Event;
  const std::lock_guard lock(mutex_);
  const bool tells = !quiet_ && !json_;
  switch (event.kind) {
    case Event::Note:
      if (tells) Print(event.text);
      break;
    case Event::Detail:
      if (tells && verbose_) Print(event.text);
      break;
    case Event::Progress:
      ShowProgress(event);
      break;
    case Event::Result:
      if (json_) Print(event.data);
      if (tells && !event.text.empty()) Print(event.text);
      break;
    case Event::Warning:
      ClearBar();
      fmt::print(stderr, "korimg: warning: {}\n", event.text);
      break;
    case Event::Failure:
      Error(event.text);
      break;
  }
}

void Console::Print(const std::string& line) {
  ClearBar();
  fmt::print("{}\n", line);
  std::fflush(stdout);
}

void Console::Error(const std::string& line) {
  const std::lock_guard lock(mutex_);
  ClearBar();
  fmt::print(stderr, "korimg: {}\n", line);
}

void Console::ShowProgress(const session::Event& event) {
  using namespace std::chrono;
  const long long step = event.step, total = event.total;
  if (total <= 0) return End();
  const auto now = steady_clock::now();
  if (event.text != title_) {
    End();
    title_ = event.text;
    start_ = now;
    lastShown_ = now;
  }
  const int percent = static_cast<int>(100 * std::min(step, total) / total);
  if (quiet_ || percent == lastPercent_) return;
  lastPercent_ = percent;
  const std::string where = event.detail.empty() ? fmt::format("{} of {}", step, total) : event.detail;
  if (!isTerminal_) {
    // A line every few seconds is enough for a log.
    if (now - lastShown_ < 5s) return;
    lastShown_ = now;
    fmt::print(stderr, "korimg: {}: {}\n", title_, where);
    return;
  }
  if (!keyboard_) keyboard_ = std::make_unique<Keyboard>();
  if (now - start_ < 300ms) return;  // what is over at once needs no bar
  constexpr int kWidth = 30;         // of the bar, chosen: a title fits beside it in 80 columns
  const double seconds = duration<double>(now - start_).count();
  const int left =
      step > 0 ? static_cast<int>(seconds * static_cast<double>(total - step) / static_cast<double>(step))
               : 0;
  fmt::print(stderr, "\r{} [{:<{}}] {:3} %  {}  {:.1f}/s  {}:{:02} left \x1b[K", title_,
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

void CatchSignals() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // A file size limit is an error of the write, which names the file.
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace korimg::tool
