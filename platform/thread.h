// Threads, and holding one thread of the process while another works.
//
// POSIX has no way to suspend a thread from outside, so ThreadHold builds
// one: a dedicated real-time signal whose handler parks the target thread
// on a pipe read until it is released. The signal is installed with
// SA_RESTART, so a blocking read or wait of the target resumes afterwards
// instead of failing. Hold() returns only once the target has parked.
//
// A target may defer its parking across a short critical section (see
// DeferHoldScope): a hold that arrives there parks the thread as the section
// ends. The library uses it so that a held thread never owns the wire lock
// in the middle of a packet.
#ifndef VARN_PLATFORM_THREAD_H_
#define VARN_PLATFORM_THREAD_H_

namespace varn::platform {

using ThreadId = unsigned;

// Kernel id of the calling thread.
ThreadId CurrentThreadId();

// Starts a detached thread running fn(arg). False on failure.
bool StartThread(void (*fn)(void*), void* arg);

// Blocks the hold signal in the calling thread (used by helper threads that
// must never be held themselves).
void BlockHoldSignal();

class ThreadHold {
 public:
  // Makes the calling thread the one that Hold() stops. Installs the signal
  // handler once. False when the signal or the pipes cannot be set up.
  static bool SetTargetToCurrentThread();
  static bool HasTarget();
  // True when the calling thread is the target.
  static bool IsTarget();

  // Stops the target until Release(). Must not be called by the target.
  // Returns false when there is no target.
  static bool Hold();
  static void Release();
};

// While alive on the target thread, a hold that arrives is postponed until
// the scope ends. Scopes nest.
class DeferHoldScope {
 public:
  DeferHoldScope();
  ~DeferHoldScope();
  DeferHoldScope(const DeferHoldScope&) = delete;
  DeferHoldScope& operator=(const DeferHoldScope&) = delete;
};

}  // namespace varn::platform

#endif  // VARN_PLATFORM_THREAD_H_
