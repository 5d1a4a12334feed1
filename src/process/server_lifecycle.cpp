#include "process/server_lifecycle.h"

namespace tarn {

bool server_lifecycle::begin_serving() {
  {
    MutexLock lock(mu_);
    if (!stop_requested_) {
      phase_ = phase::starting;
      return true;
    }
    phase_ = phase::finished;
  }
  changed_.notify_all();
  return false;
}

void server_lifecycle::preServe() {
  {
    MutexLock lock(mu_);
    phase_ = phase::listening;
  }
  changed_.notify_all();
}

server_lifecycle::ending server_lifecycle::end_serving() {
  ending how = ending::stopped;
  {
    MutexLock lock(mu_);
    if (!stop_requested_) how = phase_ == phase::listening ? ending::died : ending::never_listened;
    phase_ = phase::finished;
  }
  changed_.notify_all();
  return how;
}

bool server_lifecycle::stop_needed() {
  MutexLock lock(mu_);
  stop_requested_ = true;
  while (phase_ == phase::starting) changed_.wait(mu_);
  return phase_ == phase::listening;
}

bool server_lifecycle::wait_listening(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  MutexLock lock(mu_);
  while (phase_ == phase::assembling || phase_ == phase::starting) {
    if (changed_.wait_until(mu_, deadline) == std::cv_status::timeout) break;
  }
  return phase_ == phase::listening;
}

bool server_lifecycle::wait_finished(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  MutexLock lock(mu_);
  while (phase_ != phase::finished) {
    if (changed_.wait_until(mu_, deadline) == std::cv_status::timeout) break;
  }
  return phase_ == phase::finished;
}

}  // namespace tarn
