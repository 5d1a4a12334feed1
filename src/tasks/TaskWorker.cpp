#include "tasks/TaskWorker.h"

#include <QCoreApplication>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "log/trace.h"

namespace tarn {

TaskWorker::TaskWorker(QObject* window) : hwnd_(window) {}

void TaskWorker::post(std::function<void()> task) {
  bool stored = false;
  {
    MutexLock lock(mutex_);
    if (!task_) {
      task_ = std::move(task);
      stored = true;
    }
  }
  // The event carries nothing: it only wakes the window, which then takes the slot.
  // Posting happens outside the lock; run_pending() runs only on this event, so the order
  // between storing and waking can't be seen.
  if (stored && hwnd_) {
    QCoreApplication::postEvent(hwnd_.data(), new QEvent(kRunPendingEvent));
  }
}

void TaskWorker::run_pending() {
  std::optional<std::string> failure;
  {
    MutexLock lock(mutex_);
    if (!task_) return;
    try {
      task_();
    } catch (const std::exception& e) {
      failure = e.what();
    } catch (...) {
      failure = "unknown exception";
    }
    // Emptied in every case: a slot left holding a failed task would drop every later command.
    task_ = nullptr;
  }
  if (failure) {
    TARN_TRACE(kTraceError, "TaskWorker: a task ended with an exception: %s", failure->c_str());
  }
}

}  // namespace tarn
