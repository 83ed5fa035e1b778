// Threads, and holding one thread of the process while another works.
//
// POSIX has no way to suspend a thread from outside, so ThreadHold builds
// one: a dedicated real-time signal whose handler parks the target thread
// on a pipe read until it is released. The signal is installed with
// SA_RESTART, so a blocking read or wait of the target resumes afterwards
// instead of failing (calls that the kernel never restarts, such as sleeps
// and poll, return early with EINTR, as they would for any signal).
//
// A target may defer its parking across a short critical section (see
// DeferHoldScope): a hold that arrives there parks the thread as the section
// ends. The library uses it so that a held thread never owns the wire lock
// in the middle of a packet. The deferral is bounded: a section that lasts
// longer than the holder is willing to wait (a write blocked on a congested
// channel) is parked inside, and the holder is told so.
#ifndef VARN_PLATFORM_THREAD_H_
#define VARN_PLATFORM_THREAD_H_

namespace varn::platform {

using ThreadId = unsigned;

// Kernel id of the calling thread.
ThreadId CurrentThreadId();

// Starts a detached thread running fn(arg). False on failure.
bool StartThread(void (*fn)(void*), void* arg);

// A thread that can be waited for.
class JoinableThread {
 public:
  JoinableThread() = default;
  JoinableThread(const JoinableThread&) = delete;
  JoinableThread& operator=(const JoinableThread&) = delete;

  // Starts fn(arg). False on failure, or when this object already runs one.
  bool Start(void (*fn)(void*), void* arg);
  bool started() const { return started_; }
  // Waits up to timeout_ms for the thread to end. True when it ended (then
  // the object may start another); false on time-out, when the thread is
  // left running detached.
  bool Join(int timeout_ms);

 private:
  unsigned long handle_ = 0;
  bool started_ = false;
};

// Blocks the hold signal in the calling thread (used by helper threads that
// must never be held themselves).
void BlockHoldSignal();

class ThreadHold {
 public:
  enum class Result {
    kHeld,           // parked outside any deferred section
    kHeldInSection,  // parked inside a deferred section that outlasted the wait
    kFailed,         // the target did not park (it blocks the signal, or none)
  };

  // Makes the calling thread the one that Hold() stops. Installs the signal
  // handler once. False when the signal or the pipes cannot be set up.
  static bool SetTargetToCurrentThread();
  static bool HasTarget();
  // True when the calling thread is the target.
  static bool IsTarget();

  // Stops the target until Release(). Must not be called by the target.
  // Waits up to timeout_ms for the target to park; a target still inside a
  // deferred section then is parked there, with up to timeout_ms more.
  // Release() must follow every result but kFailed.
  static Result Hold(int timeout_ms);
  static void Release();
};

// While alive on the target thread, a hold that arrives is postponed until
// the scope ends (within the bound above). Scopes nest.
class DeferHoldScope {
 public:
  DeferHoldScope();
  ~DeferHoldScope();
  DeferHoldScope(const DeferHoldScope&) = delete;
  DeferHoldScope& operator=(const DeferHoldScope&) = delete;
};

}  // namespace varn::platform

#endif  // VARN_PLATFORM_THREAD_H_
