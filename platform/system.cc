#include "platform/system.h"

#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace varn::platform {

unsigned ProcessId() { return static_cast<unsigned>(getpid()); }

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

void DefaultBrokenPipeToIgnore() {
  struct sigaction old {};
  if (sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
    signal(SIGPIPE, SIG_IGN);
  }
}

bool ChangeDirectory(const char* dir) { return chdir(dir) == 0; }

bool CurrentDirectory(char* buf, std::size_t size) { return getcwd(buf, size) != nullptr; }

}  // namespace varn::platform
