#include "platform/spawn.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "platform/event_loop.h"
#include "platform/system.h"

extern char** environ;

namespace varn::platform {
namespace {

enum Step : int { kStepDup = 1, kStepChdir = 2, kStepExec = 3 };

struct ChildReport {
  int step;
  int error_number;
};

bool IsExecutableFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string JoinPath(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  return dir.back() == '/' ? dir + name : dir + "/" + name;
}

// Full path of the program, or "" when none is found.
std::string FindProgram(const SpawnRequest& r) {
  if (r.program.empty()) return "";
  if (r.program.find('/') != std::string::npos) {
    std::string path = r.program;
    if (path[0] != '/' && !r.working_directory.empty()) path = JoinPath(r.working_directory, path);
    return IsExecutableFile(path) ? path : "";
  }
  std::vector<std::string> dirs = r.extra_path;
  const char* env = std::getenv("PATH");
  std::string path_var = env != nullptr ? env : "/usr/local/bin:/usr/bin:/bin";
  std::size_t start = 0;
  for (;;) {
    std::size_t colon = path_var.find(':', start);
    std::string dir = path_var.substr(start, colon == std::string::npos ? colon : colon - start);
    dirs.push_back(dir.empty() ? "." : dir);
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  for (const auto& dir : dirs) {
    std::string d = dir;
    if (d[0] != '/' && !r.working_directory.empty()) d = JoinPath(r.working_directory, d);
    std::string candidate = JoinPath(d, r.program);
    if (IsExecutableFile(candidate)) return candidate;
  }
  return "";
}

// The caller's environment with the request's entries added, each one
// replacing a variable of its name.
std::vector<std::string> ChildEnvironment(const std::vector<std::string>& added) {
  auto name_of = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
  std::vector<std::string> names;
  for (const auto& entry : added) names.push_back(name_of(entry));
  std::vector<std::string> env;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    std::string entry = *e;
    bool replaced = false;
    for (const auto& name : names) replaced = replaced || name == name_of(entry);
    if (!replaced) env.push_back(std::move(entry));
  }
  env.insert(env.end(), added.begin(), added.end());
  return env;
}

[[noreturn]] void ChildFail(int report_fd, int step) {
  ChildReport report{step, errno};
  ssize_t ignored = write(report_fd, &report, sizeof report);
  (void)ignored;
  _exit(127);
}

// Runs in the child between fork and exec: only async-signal-safe calls.
[[noreturn]] void RunChild(const SpawnRequest& r, const char* path, char* const* argv,
                           char* const* envp, pid_t parent, int report_fd) {
  if (r.die_with_parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have ended before the line above took effect.
    if (getppid() != parent) _exit(127);
  }
  sigset_t empty;
  sigemptyset(&empty);
  sigprocmask(SIG_SETMASK, &empty, nullptr);
  signal(SIGPIPE, SIG_DFL);
  if (r.new_process_group) setpgid(0, 0);

  // Move every source above every target first, so that no mapping
  // overwrites a descriptor that a later mapping still reads.
  int top = report_fd;
  for (const auto& m : r.fds) {
    if (m.to > top) top = m.to;
    if (m.from > top) top = m.from;
  }
  int moved[64];
  std::size_t count = r.fds.size() < 64 ? r.fds.size() : 64;
  for (std::size_t i = 0; i < count; ++i) {
    moved[i] = -1;
    if (r.fds[i].from < 0) continue;
    moved[i] = fcntl(r.fds[i].from, F_DUPFD_CLOEXEC, top + 1);
    if (moved[i] < 0) ChildFail(report_fd, kStepDup);
  }
  int report = fcntl(report_fd, F_DUPFD_CLOEXEC, top + 1);
  if (report < 0) ChildFail(report_fd, kStepDup);
  report_fd = report;
  for (std::size_t i = 0; i < count; ++i) {
    if (moved[i] < 0) {
      close(r.fds[i].to);
    } else if (dup2(moved[i], r.fds[i].to) < 0) {
      ChildFail(report_fd, kStepDup);
    }
  }
  // Everything above the targets is either close-on-exec or not ours to pass.
  int max_target = 2;
  for (std::size_t i = 0; i < count; ++i) {
    if (r.fds[i].to > max_target) max_target = r.fds[i].to;
  }
  for (int fd = 3; fd <= max_target; ++fd) {
    bool keep = false;
    for (std::size_t i = 0; i < count; ++i) keep = keep || (r.fds[i].to == fd && moved[i] >= 0);
    if (!keep) close(fd);
  }
  // Close what lies above the targets except the report pipe, which closes
  // itself on exec.
  if (report_fd > max_target + 1) {
    syscall(SYS_close_range, static_cast<unsigned>(max_target + 1),
            static_cast<unsigned>(report_fd - 1), 0u);
  }
  syscall(SYS_close_range, static_cast<unsigned>(report_fd + 1), ~0u, 0u);

  if (!r.working_directory.empty() && chdir(r.working_directory.c_str()) != 0) {
    ChildFail(report_fd, kStepChdir);
  }
  execve(path, argv, envp);
  ChildFail(report_fd, kStepExec);
}

}  // namespace

SpawnResult Spawn(const SpawnRequest& request) {
  SpawnResult result;
  if (request.fds.size() > 64) {
    result.error = SpawnError::kSystem;
    result.error_number = EINVAL;
    return result;
  }
  std::string path = FindProgram(request);
  if (path.empty()) {
    result.error = SpawnError::kNotFound;
    result.error_number = ENOENT;
    return result;
  }
  // Build everything the child needs before forking.
  std::vector<std::string> args = request.argv;
  if (args.empty()) args.push_back(request.program);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> env_entries;
  std::vector<char*> envp;
  if (!request.environment.empty()) {
    env_entries = ChildEnvironment(request.environment);
    for (auto& e : env_entries) envp.push_back(e.data());
    envp.push_back(nullptr);
  }
  pid_t parent = getpid();

  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    result.error = SpawnError::kSystem;
    result.error_number = errno;
    return result;
  }
  pid_t pid = fork();
  if (pid < 0) {
    result.error = SpawnError::kSystem;
    result.error_number = errno;
    close(report[0]);
    close(report[1]);
    return result;
  }
  if (pid == 0) {
    close(report[0]);
    RunChild(request, path.c_str(), argv.data(), envp.empty() ? environ : envp.data(), parent,
             report[1]);
  }
  close(report[1]);
  ChildReport child{};
  ssize_t n;
  do {
    n = read(report[0], &child, sizeof child);
  } while (n < 0 && errno == EINTR);
  close(report[0]);
  if (n == static_cast<ssize_t>(sizeof child)) {
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.error_number = child.error_number;
    result.error = child.step == kStepChdir  ? SpawnError::kNoDirectory
                   : child.step == kStepExec ? SpawnError::kExecFailed
                                             : SpawnError::kSystem;
    return result;
  }
  result.pid = static_cast<int>(pid);
  return result;
}

bool WaitForChild(int pid, int timeout_ms, ChildStatus* status) {
  if (pid <= 0) return false;
  std::int64_t deadline = MonotonicMillis() + timeout_ms;
  auto left = [&]() -> int {
    if (timeout_ms < 0) return -1;
    std::int64_t ms = deadline - MonotonicMillis();
    return ms < 0 ? 0 : static_cast<int>(ms);
  };
  int wstatus = 0;
  bool reaped = false;
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    // Readable once the child has ended; the reap below then cannot block.
    pollfd p{pidfd, POLLIN, 0};
    int r;
    do {
      r = poll(&p, 1, left());
    } while (r < 0 && errno == EINTR);
    close(pidfd);
    if (r <= 0) return false;
  } else if (errno == ESRCH) {
    return false;
  } else {
    // No process descriptors (an old kernel): look every few milliseconds.
    while (!reaped) {
      pid_t got = waitpid(pid, &wstatus, WNOHANG);
      if (got < 0 && errno != EINTR) return false;
      reaped = got == pid;
      int ms = left();
      if (!reaped && ms == 0) return false;
      if (!reaped) SleepMilliseconds(ms < 0 || ms > 5 ? 5 : static_cast<std::uint64_t>(ms));
    }
  }
  while (!reaped) {
    pid_t got = waitpid(pid, &wstatus, 0);
    if (got < 0 && errno != EINTR) return false;
    reaped = got == pid;
  }
  status->signaled = WIFSIGNALED(wstatus);
  status->value = status->signaled ? WTERMSIG(wstatus) : WEXITSTATUS(wstatus);
  return true;
}

bool SignalProcess(int pid, int signo, bool group) {
  if (pid <= 0) return false;
  return kill(group ? -pid : pid, signo) == 0;
}

std::string ErrorText(int error_number) {
  char buf[256];
  // GNU strerror_r returns the text, which may or may not be in buf.
  return strerror_r(error_number, buf, sizeof buf);
}

}  // namespace varn::platform
