#include "platform/system.h"

#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace varn::platform {

unsigned ProcessId() { return static_cast<unsigned>(getpid()); }

unsigned ParentProcessId() { return static_cast<unsigned>(getppid()); }

bool HostName(char* buf, std::size_t size) {
  if (size == 0 || gethostname(buf, size) != 0) return false;
  buf[size - 1] = '\0';
  return true;
}

bool ComputerName(char* buf, std::size_t size) {
  utsname u;
  if (size == 0 || uname(&u) != 0 || u.nodename[0] == '\0') return false;
  std::strncpy(buf, u.nodename, size - 1);
  buf[size - 1] = '\0';
  return true;
}

bool SocketStartup(SocketVersion* version) {
  version->major = 2;
  version->minor = 2;
  return true;
}

bool SocketCleanup() { return true; }

void SleepMilliseconds(std::uint64_t ms) {
  timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>((ms % 1000) * 1000000)};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

void Yield() { sched_yield(); }

void NowSecondsMillis(std::int64_t* seconds, int* millis) {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  *seconds = ts.tv_sec;
  *millis = static_cast<int>(ts.tv_nsec / 1000000);
}

std::int64_t MonotonicMillis() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

const char* GetEnv(const char* name) { return std::getenv(name); }

void ExitImmediately(int status) { _exit(status); }

namespace {

int ExitDeadlineSignal() { return SIGRTMIN + 5; }
timer_t g_exit_timer;
std::atomic<bool> g_exit_timer_ready{false};
std::atomic<bool> g_exit_timer_armed{false};
volatile sig_atomic_t g_exit_deadline_status = 0;

void OnExitDeadline(int) { _exit(g_exit_deadline_status); }

}  // namespace

bool PrepareExitDeadline() {
  static std::atomic<bool> once{false};
  if (once.exchange(true)) return g_exit_timer_ready.load();
  struct sigaction sa {};
  sa.sa_handler = OnExitDeadline;
  sigemptyset(&sa.sa_mask);
  if (sigaction(ExitDeadlineSignal(), &sa, nullptr) != 0) return false;
  sigevent ev{};
  ev.sigev_notify = SIGEV_SIGNAL;
  ev.sigev_signo = ExitDeadlineSignal();
  if (timer_create(CLOCK_MONOTONIC, &ev, &g_exit_timer) != 0) return false;
  g_exit_timer_ready.store(true);
  return true;
}

void ReturnFreeMemory() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

bool ArmExitDeadline(int ms, int status) {
  if (!g_exit_timer_ready.load() || g_exit_timer_armed.exchange(true)) return false;
  g_exit_deadline_status = status;
  // The arming thread takes the signal even if the application blocked it
  // before this thread was started.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, ExitDeadlineSignal());
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  itimerspec when{};
  when.it_value.tv_sec = ms / 1000;
  when.it_value.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  return timer_settime(g_exit_timer, 0, &when, nullptr) == 0;
}

void DefaultBrokenPipeToIgnore() {
  struct sigaction old {};
  if (sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
    signal(SIGPIPE, SIG_IGN);
  }
}

bool ChangeDirectory(const char* dir) { return chdir(dir) == 0; }

bool CurrentDirectory(char* buf, std::size_t size) { return getcwd(buf, size) != nullptr; }

}  // namespace varn::platform
