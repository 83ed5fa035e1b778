#include "platform/thread.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <mutex>

namespace varn::platform {
namespace {

// State of the hold mechanism. The target fields are written once, before
// any hold, by the target itself; the pipes are created with them.
//
// A hold moves g_state from kIdle to kRequested (holder), to kParked (the
// target, by compare-and-swap, just before it parks), and back to kIdle
// (holder, at release). Only a target that wins the swap parks, so a stale
// or repeated signal never parks it a second time, and a holder that gives
// up takes the request back by the opposite swap.
enum State : int { kIdle, kRequested, kParked };

int HoldSignal() { return SIGRTMIN + 4; }
pthread_t g_target;
std::atomic<bool> g_has_target{false};
std::atomic<int> g_state{kIdle};
std::atomic<bool> g_force{false};       // park even inside a deferred section
std::atomic<bool> g_in_section{false};  // the last park happened inside one
int g_parked[2] = {-1, -1};             // target -> holder: "I have parked"
int g_release[2] = {-1, -1};            // holder -> target: "carry on"
// Only the target thread touches these, from normal code and from the
// signal handler that runs on it.
volatile sig_atomic_t g_defer_depth = 0;
volatile sig_atomic_t g_hold_pending = 0;
std::once_flag g_install_once;
bool g_installed = false;

void TryPark(bool in_section) {
  int expected = kRequested;
  if (!g_state.compare_exchange_strong(expected, kParked)) return;
  int saved = errno;
  g_in_section.store(in_section);
  char c = 1;
  while (write(g_parked[1], &c, 1) < 0 && errno == EINTR) {
  }
  while (read(g_release[0], &c, 1) < 0 && errno == EINTR) {
  }
  errno = saved;
}

void OnHoldSignal(int) {
  if (g_state.load() != kRequested) return;
  if (g_defer_depth > 0 && !g_force.load()) {
    g_hold_pending = 1;
    return;
  }
  TryPark(g_defer_depth > 0);
}

void Install() {
  if (pipe2(g_parked, O_CLOEXEC) != 0 || pipe2(g_release, O_CLOEXEC) != 0) return;
  struct sigaction sa {};
  sa.sa_handler = OnHoldSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  g_installed = sigaction(HoldSignal(), &sa, nullptr) == 0;
}

// Waits up to timeout_ms (negative: for ever) for the target's "parked".
bool WaitParked(int timeout_ms) {
  pollfd p{g_parked[0], POLLIN, 0};
  for (;;) {
    int r = poll(&p, 1, timeout_ms);
    if (r > 0) break;
    if (r == 0) return false;
    if (errno != EINTR) return false;
  }
  char c;
  while (read(g_parked[0], &c, 1) < 0 && errno == EINTR) {
  }
  return true;
}

ThreadHold::Result ParkedResult() {
  return g_in_section.load() ? ThreadHold::Result::kHeldInSection : ThreadHold::Result::kHeld;
}

struct ThreadStart {
  void (*fn)(void*);
  void* arg;
};

void* ThreadMain(void* p) {
  ThreadStart start = *static_cast<ThreadStart*>(p);
  delete static_cast<ThreadStart*>(p);
  start.fn(start.arg);
  return nullptr;
}

bool Create(void (*fn)(void*), void* arg, pthread_t* t) {
  auto* start = new ThreadStart{fn, arg};
  if (pthread_create(t, nullptr, ThreadMain, start) != 0) {
    delete start;
    return false;
  }
  return true;
}

}  // namespace

ThreadId CurrentThreadId() { return static_cast<ThreadId>(syscall(SYS_gettid)); }

bool StartThread(void (*fn)(void*), void* arg) {
  pthread_t t;
  if (!Create(fn, arg, &t)) return false;
  pthread_detach(t);
  return true;
}

bool JoinableThread::Start(void (*fn)(void*), void* arg) {
  if (started_) return false;
  pthread_t t;
  if (!Create(fn, arg, &t)) return false;
  handle_ = static_cast<unsigned long>(t);
  started_ = true;
  return true;
}

bool JoinableThread::Join(int timeout_ms) {
  if (!started_) return true;
  timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += timeout_ms / 1000;
  deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  pthread_t t = static_cast<pthread_t>(handle_);
  started_ = false;
  if (pthread_timedjoin_np(t, nullptr, &deadline) == 0) return true;
  pthread_detach(t);
  return false;
}

void BlockHoldSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, HoldSignal());
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

bool ThreadHold::SetTargetToCurrentThread() {
  std::call_once(g_install_once, Install);
  if (!g_installed) return false;
  g_target = pthread_self();
  g_has_target.store(true, std::memory_order_release);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, HoldSignal());
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  return true;
}

bool ThreadHold::HasTarget() { return g_has_target.load(std::memory_order_acquire); }

bool ThreadHold::IsTarget() { return HasTarget() && pthread_equal(pthread_self(), g_target); }

ThreadHold::Result ThreadHold::Hold(int timeout_ms) {
  if (!HasTarget() || IsTarget()) return Result::kFailed;
  g_force.store(false);
  g_state.store(kRequested);
  if (pthread_kill(g_target, HoldSignal()) != 0) {
    g_state.store(kIdle);
    return Result::kFailed;
  }
  if (WaitParked(timeout_ms)) return ParkedResult();
  // Still inside a deferred section (or not answering at all): park it
  // where it is.
  g_force.store(true);
  pthread_kill(g_target, HoldSignal());
  if (WaitParked(timeout_ms)) return ParkedResult();
  int expected = kRequested;
  if (g_state.compare_exchange_strong(expected, kIdle)) return Result::kFailed;
  WaitParked(-1);  // it won the swap just now: its "parked" is on the way
  return ParkedResult();
}

void ThreadHold::Release() {
  g_force.store(false);
  g_state.store(kIdle);
  char c = 1;
  while (write(g_release[1], &c, 1) < 0 && errno == EINTR) {
  }
}

DeferHoldScope::DeferHoldScope() {
  if (ThreadHold::IsTarget()) g_defer_depth = g_defer_depth + 1;
}

DeferHoldScope::~DeferHoldScope() {
  if (!ThreadHold::IsTarget()) return;
  g_defer_depth = g_defer_depth - 1;
  if (g_defer_depth == 0 && g_hold_pending) {
    g_hold_pending = 0;
    TryPark(false);
  }
}

}  // namespace varn::platform
