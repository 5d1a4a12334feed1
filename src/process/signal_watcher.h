// Turns SIGTERM, SIGINT and SIGHUP into a call on the Qt main thread. The signal handler only
// writes the signal's number into a pipe; a QSocketNotifier reads it in the event loop.
// One watcher per process; it lives on the main thread.
#pragma once

#include <QObject>
#include <functional>
#include <memory>

#include "platform/unique_fd.h"

class QSocketNotifier;

namespace tarn {

class signal_watcher : public QObject {
 public:
  // Installs the handlers. `on_signal` runs on the main thread, once per signal received.
  explicit signal_watcher(std::function<void(int signo)> on_signal);
  // Gives the three signals their default action back: a signal after this ends the process.
  ~signal_watcher() override;
  signal_watcher(const signal_watcher&) = delete;
  signal_watcher& operator=(const signal_watcher&) = delete;

  // False when the pipe couldn't be made (errno in the log): signals then keep their default.
  bool active() const { return notifier_ != nullptr; }

 private:
  void drain();

  std::function<void(int)> on_signal_;
  unique_fd read_end_;
  unique_fd write_end_;
  std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace tarn
