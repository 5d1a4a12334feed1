// The one-slot hand-over of a command's closure from a connection thread to the main thread.
// post() stores the closure when the slot is empty and wakes the main window with a
// kRunPendingEvent; run_pending() runs it there with the mutex held, so that a post() during
// a task waits for its end. A closure posted while another waits to start is dropped.
#pragma once

#include <QEvent>
#include <QPointer>
#include <chrono>
#include <functional>

#include "platform/mutex.h"

namespace tarn {

// The main window's wake-up, WM_APP + 100 (0x8064) where the gateway came from.
constexpr QEvent::Type kRunPendingEvent = static_cast<QEvent::Type>(QEvent::User + 100);

class TaskWorker {
 public:
  // `window` gets a kRunPendingEvent posted for each stored closure; its handler calls
  // run_pending(). Null is allowed (nothing is woken).
  // `max_wait` bounds how long post() waits for a running task to end.
  explicit TaskWorker(QObject* window,
                      std::chrono::milliseconds max_wait = std::chrono::minutes(10));
  TaskWorker(const TaskWorker&) = delete;
  TaskWorker& operator=(const TaskWorker&) = delete;

  // Any thread. Blocks while a task runs, at most `max_wait`; false when it gave up and the
  // closure is dropped. A task must never call it (the mutex isn't recursive).
  bool post(std::function<void()> task);
  // Main thread only. Runs the waiting closure, if any, and always empties the slot, even
  // when the closure throws: the exception is logged and swallowed so that the next command
  // can run.
  void run_pending();

 private:
  TimedMutex mutex_;  // held for the whole of a task
  std::function<void()> task_ TARN_GUARDED_BY(mutex_);
  const QPointer<QObject> hwnd_;
  const std::chrono::milliseconds max_wait_;
};

}  // namespace tarn
