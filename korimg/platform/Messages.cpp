#include "korimg/platform/Messages.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

namespace {

struct Queue {
  std::mutex mutex;
  std::deque<MSG> messages;
};

struct Window {
  std::shared_ptr<Queue> queue;
  korimg::MessageHandler handler;
};

std::shared_ptr<Queue> ThisThreadsQueue() {
  static thread_local const auto queue = std::make_shared<Queue>();
  return queue;
}

std::mutex g_windowsMutex;
std::map<HWND, std::shared_ptr<Window>> g_windows;
std::uintptr_t g_lastWindow = 0;
std::atomic<HWND> g_mainWindow = nullptr;

std::shared_ptr<Window> Find(HWND window) {
  const std::lock_guard lock(g_windowsMutex);
  const auto found = g_windows.find(window);
  return found == g_windows.end() ? nullptr : found->second;
}

}  // namespace

bool PostMessageW(HWND window, unsigned message, std::uintptr_t wParam, std::intptr_t lParam) {
  const std::shared_ptr<Window> target = Find(window);
  if (!target) return false;
  const std::lock_guard lock(target->queue->mutex);
  target->queue->messages.push_back({window, message, wParam, lParam});
  return true;
}

std::intptr_t SendMessageW(HWND window, unsigned message, std::uintptr_t wParam, std::intptr_t lParam) {
  const std::shared_ptr<Window> target = Find(window);
  return target && target->handler ? target->handler(message, wParam, lParam) : 0;
}

bool PeekMessageW(MSG* message, unsigned first, unsigned last) {
  Queue& queue = *ThisThreadsQueue();
  const std::lock_guard lock(queue.mutex);
  const auto found = std::find_if(queue.messages.begin(), queue.messages.end(), [&](const MSG& candidate) {
    return candidate.message >= first && candidate.message <= last;
  });
  if (found == queue.messages.end()) return false;
  *message = *found;
  queue.messages.erase(found);
  return true;
}

std::intptr_t DispatchMessageW(const MSG& message) {
  return SendMessageW(message.hwnd, message.message, message.wParam, message.lParam);
}

namespace korimg {

HWND CreateMessageWindow(MessageHandler handler) {
  auto window = std::make_shared<Window>(Window{ThisThreadsQueue(), std::move(handler)});
  const std::lock_guard lock(g_windowsMutex);
  const auto handle = reinterpret_cast<HWND>(++g_lastWindow);
  g_windows.emplace(handle, std::move(window));
  return handle;
}

void SetMainWindow(HWND window) {
  g_mainWindow = window;
}

HWND MainWindow() {
  return g_mainWindow;
}

void DestroyMessageWindow(HWND window) {
  const std::lock_guard lock(g_windowsMutex);
  g_windows.erase(window);
}

}  // namespace korimg
