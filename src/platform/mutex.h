// A plain, non-recursive mutex that Clang's -Wthread-safety can reason about.
#pragma once

#include <chrono>
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

// A mutex whose waiters can give up.
class TARN_CAPABILITY("mutex") TimedMutex {
 public:
  TimedMutex() = default;
  TimedMutex(const TimedMutex&) = delete;
  TimedMutex& operator=(const TimedMutex&) = delete;

  void lock() TARN_ACQUIRE() { mu_.lock(); }
  void unlock() TARN_RELEASE() { mu_.unlock(); }
  template <typename Rep, typename Period>
  bool try_lock_for(std::chrono::duration<Rep, Period> wait) TARN_TRY_ACQUIRE(true) {
    return mu_.try_lock_for(wait);
  }

 private:
  std::timed_mutex mu_;
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

class TARN_SCOPED_CAPABILITY TimedMutexLock {
 public:
  explicit TimedMutexLock(TimedMutex& mu) TARN_ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~TimedMutexLock() TARN_RELEASE() { mu_.unlock(); }
  TimedMutexLock(const TimedMutexLock&) = delete;
  TimedMutexLock& operator=(const TimedMutexLock&) = delete;

 private:
  TimedMutex& mu_;
};

}  // namespace tarn
