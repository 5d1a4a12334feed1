#include "conversion_watchdog.h"

#include <unistd.h>

#include <cstdio>

namespace tarn {

conversion_watchdog::conversion_watchdog() : thread_([this] { run(); }) {}

conversion_watchdog::~conversion_watchdog() {
  {
    std::scoped_lock lock(mu_);
    stop_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void conversion_watchdog::arm(std::chrono::steady_clock::duration limit, std::string what,
                              std::filesystem::path output) {
  {
    std::scoped_lock lock(mu_);
    deadline_ = std::chrono::steady_clock::now() + limit;
    what_ = std::move(what);
    output_ = std::move(output);
  }
  changed_.notify_one();
}

void conversion_watchdog::disarm() {
  {
    std::scoped_lock lock(mu_);
    deadline_.reset();
  }
  changed_.notify_one();
}

void conversion_watchdog::run() {
  std::unique_lock lock(mu_);
  for (;;) {
    if (stop_) return;
    if (!deadline_) {
      changed_.wait(lock);
      continue;
    }
    const auto deadline = *deadline_;
    if (changed_.wait_until(lock, deadline) == std::cv_status::timeout && deadline_ == deadline) {
      const std::string what = what_;
      const std::filesystem::path output = output_;
      lock.unlock();
      // The run that asked for it has given up, or would have killed this process.
      ::unlink(output.c_str());
      std::fprintf(stderr, "tarnoffice %d: %s is still converting past its time-out; exiting\n",
                   static_cast<int>(::getpid()), what.c_str());
      std::fflush(stderr);
      ::_exit(3);
    }
  }
}

}  // namespace tarn
