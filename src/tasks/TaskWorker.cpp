#include "tasks/TaskWorker.h"

#include <QCoreApplication>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "log/trace.h"

namespace tarn {

TaskWorker::TaskWorker(QObject* window, std::chrono::milliseconds max_wait)
    : hwnd_(window), max_wait_(max_wait) {}

bool TaskWorker::post(std::function<void()> task) {
  bool stored = false;
  // A task that never ends (a dialog nobody answers) must not pin every connection thread.
  if (!mutex_.try_lock_for(max_wait_)) return false;
  if (!task_) {
    task_ = std::move(task);
    stored = true;
  }
  mutex_.unlock();
  // The event carries nothing: it only wakes the window, which then takes the slot.
  // Posting happens outside the lock; run_pending() runs only on this event, so the order
  // between storing and waking can't be seen.
  if (stored && hwnd_) {
    QCoreApplication::postEvent(hwnd_.data(), new QEvent(kRunPendingEvent));
  }
  return true;
}

void TaskWorker::run_pending() {
  std::optional<std::string> failure;
  {
    TimedMutexLock lock(mutex_);
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
