// Locks the compiler can reason about: a mutex, a mutex with a timed
// acquire, their scoped holders, and a condition variable that waits on a
// Mutex. Thin wrappers over the standard library, annotated for clang's
// thread-safety analysis (thread_annotations.h).
#ifndef VARN_PLATFORM_MUTEX_H_
#define VARN_PLATFORM_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/thread_annotations.h"

namespace varn::platform {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  // Tells the analysis that the calling thread holds the lock (used in a
  // condition variable's predicate, which runs with the lock held).
  void AssertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  friend class CondVar;
  std::mutex mutex_;
};

// A mutex that can also be waited for with a bound. The bounded wait polls
// (every millisecond): it serves rare waits that must not block for ever,
// and it keeps to the plain lock and try-lock that every tool understands.
class CAPABILITY("mutex") TimedMutex {
 public:
  TimedMutex() = default;
  TimedMutex(const TimedMutex&) = delete;
  TimedMutex& operator=(const TimedMutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  bool TryLockFor(std::chrono::milliseconds wait) TRY_ACQUIRE(true) {
    auto deadline = std::chrono::steady_clock::now() + wait;
    while (!mutex_.try_lock()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  void Unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for a scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex* mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_->Lock(); }
  ~MutexLock() RELEASE() { mutex_->Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex* mutex_;
};

// Waits on a Mutex the caller holds.
class CondVar {
 public:
  CondVar() = default;
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  // Releases the mutex while it waits and holds it again on return.
  void Wait(Mutex* mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex->mutex_, std::adopt_lock);
    cv_.wait(lock);
    lock.release();
  }
  // Like Wait, for at most ms milliseconds (spurious returns included).
  void WaitFor(Mutex* mutex, int ms) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex->mutex_, std::adopt_lock);
    cv_.wait_for(lock, std::chrono::milliseconds(ms));
    lock.release();
  }
  void Signal() { cv_.notify_one(); }
  void SignalAll() { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace varn::platform

#endif  // VARN_PLATFORM_MUTEX_H_
