// Windows and messages within one process: each thread has a queue, a window belongs to the thread that made
// it.
#pragma once

#include <cstdint>
#include <functional>

#include "korimg/platform/Export.h"

using HWND = struct HWND__*;

constexpr unsigned WM_PAINT = 0x000F;
constexpr unsigned WM_KEYDOWN = 0x0100;
constexpr std::uintptr_t VK_ESCAPE = 0x1B;

/// One message of a queue.
struct MSG {
  HWND hwnd = nullptr;
  unsigned message = 0;
  std::uintptr_t wParam = 0;
  std::intptr_t lParam = 0;
};

/// Queues a message for the thread that owns the window, and returns at once. False for a window that is
/// gone.
KORIMG_API bool PostMessageW(HWND window, unsigned message, std::uintptr_t wParam, std::intptr_t lParam);

/// Calls the window's handler on this thread and gives its answer; 0 for a window that is gone.
KORIMG_API std::intptr_t SendMessageW(HWND window, unsigned message, std::uintptr_t wParam,
                                      std::intptr_t lParam);

/// Takes the first message numbered first to last out of this thread's queue. False when there is none.
KORIMG_API bool PeekMessageW(MSG* message, unsigned first, unsigned last);

/// Hands a message taken from the queue to its window's handler.
KORIMG_API std::intptr_t DispatchMessageW(const MSG& message);

namespace korimg {

/// What a window does with a message: number, first and second parameter.
using MessageHandler = std::function<std::intptr_t(unsigned, std::uintptr_t, std::intptr_t)>;

/// Makes a window that belongs to this thread: its posted messages come to this thread's queue.
KORIMG_API HWND CreateMessageWindow(MessageHandler handler);

/// The application's main window, where work without an image shows its progress; null at first.
KORIMG_API void SetMainWindow(HWND window);
KORIMG_API HWND MainWindow();

/// Ends a window; messages still queued for it are dropped when they are dispatched.
KORIMG_API void DestroyMessageWindow(HWND window);

}  // namespace korimg
