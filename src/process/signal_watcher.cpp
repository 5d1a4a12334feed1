#include "process/signal_watcher.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "log/trace.h"

namespace tarn {
namespace {

constexpr int kWatchedSignals[] = {SIGTERM, SIGINT, SIGHUP};

std::atomic<int> g_write_fd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

void on_signal_handler(int signo) {
  const int saved = errno;
  const unsigned char byte = static_cast<unsigned char>(signo);
  const int fd = g_write_fd.load(std::memory_order_relaxed);
  // A full pipe drops the byte; the ones already in it end the loop all the same.
  if (fd >= 0) (void)::write(fd, &byte, 1);
  errno = saved;
}

void set_disposition(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (int signo : kWatchedSignals) sigaction(signo, &action, nullptr);
}

}  // namespace

signal_watcher::signal_watcher(std::function<void(int)> on_signal)
    : on_signal_(std::move(on_signal)) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    TARN_TRACE(kTraceError, "signal_watcher: pipe2 failed: %s", std::strerror(errno));
    return;
  }
  read_end_.reset(fds[0]);
  write_end_.reset(fds[1]);
  notifier_ = std::make_unique<QSocketNotifier>(read_end_.get(), QSocketNotifier::Read);
  QObject::connect(notifier_.get(), &QSocketNotifier::activated, this, [this] { drain(); });
  g_write_fd.store(write_end_.get());
  set_disposition(on_signal_handler);
}

signal_watcher::~signal_watcher() {
  if (!notifier_) return;
  set_disposition(SIG_DFL);
  g_write_fd.store(-1);
}

void signal_watcher::drain() {
  unsigned char bytes[16];
  for (;;) {
    const ssize_t n = ::read(read_end_.get(), bytes, sizeof bytes);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    for (ssize_t i = 0; i < n; ++i) on_signal_(bytes[i]);
  }
}

}  // namespace tarn
