// A plain, non-recursive mutex that Clang's -Wthread-safety can reason about.
#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/thread_annotations.h"

namespace tarn {

class TARN_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() TARN_ACQUIRE() { mu_.lock(); }
  void unlock() TARN_RELEASE() { mu_.unlock(); }
  std::mutex& native() { return mu_; }

 private:
  std::mutex mu_;
};

class TARN_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mu) TARN_ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~MutexLock() TARN_RELEASE() { mu_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mu_;
};

}  // namespace tarn
