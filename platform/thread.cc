#include "platform/thread.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>

namespace varn::platform {
namespace {

// State of the hold mechanism. The target fields are written once, before
// any hold, by the target itself; the pipes are created with them.
int HoldSignal() { return SIGRTMIN + 4; }
pthread_t g_target;
std::atomic<bool> g_has_target{false};
int g_parked[2] = {-1, -1};   // target -> holder: "I have parked"
int g_release[2] = {-1, -1};  // holder -> target: "carry on"
// Only the target thread touches these, from normal code and from the
// signal handler that runs on it.
volatile sig_atomic_t g_defer_depth = 0;
volatile sig_atomic_t g_hold_pending = 0;
std::once_flag g_install_once;
bool g_installed = false;

void Park() {
  int saved = errno;
  char c = 1;
  while (write(g_parked[1], &c, 1) < 0 && errno == EINTR) {
  }
  while (read(g_release[0], &c, 1) < 0 && errno == EINTR) {
  }
  errno = saved;
}

void OnHoldSignal(int) {
  if (g_defer_depth > 0) {
    g_hold_pending = 1;
    return;
  }
  Park();
}

void Install() {
  if (pipe2(g_parked, O_CLOEXEC) != 0 || pipe2(g_release, O_CLOEXEC) != 0) return;
  struct sigaction sa {};
  sa.sa_handler = OnHoldSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  g_installed = sigaction(HoldSignal(), &sa, nullptr) == 0;
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

}  // namespace

ThreadId CurrentThreadId() { return static_cast<ThreadId>(syscall(SYS_gettid)); }

bool StartThread(void (*fn)(void*), void* arg) {
  auto* start = new ThreadStart{fn, arg};
  pthread_t t;
  if (pthread_create(&t, nullptr, ThreadMain, start) != 0) {
    delete start;
    return false;
  }
  pthread_detach(t);
  return true;
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

bool ThreadHold::Hold() {
  if (!HasTarget() || IsTarget()) return false;
  if (pthread_kill(g_target, HoldSignal()) != 0) return false;
  char c;
  while (read(g_parked[0], &c, 1) < 0 && errno == EINTR) {
  }
  return true;
}

void ThreadHold::Release() {
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
    Park();
  }
}

}  // namespace varn::platform
