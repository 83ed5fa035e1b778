#include "tests/integration/run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>

namespace varn::testing {

RunResult RunProgram(const std::vector<std::string>& argv_in, const std::string& input,
                     const std::string& workdir, int timeout_ms) {
  RunResult result;
  int in[2], out[2], err[2], rep[2];
  if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC) ||
      pipe2(rep, O_CLOEXEC)) {
    return result;
  }
  std::vector<std::string> args = argv_in;
  for (auto& a : args) {
    if (a == "{report}") a = std::to_string(rep[1]);
  }
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    fcntl(rep[1], F_SETFD, 0);
    if (!workdir.empty() && chdir(workdir.c_str()) != 0) _exit(126);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  close(rep[1]);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::size_t written = 0;
  int in_fd = in[1];
  if (input.empty()) {
    close(in_fd);
    in_fd = -1;
  }
  int fds[3] = {out[0], err[0], rep[0]};
  std::string* sinks[3] = {&result.out, &result.err, &result.report};
  int open_count = 3;
  bool timed_out = false;
  while (open_count > 0 || in_fd >= 0) {
    pollfd p[4];
    int n = 0;
    for (int fd : fds) {
      if (fd >= 0) p[n++] = {fd, POLLIN, 0};
    }
    if (in_fd >= 0) p[n++] = {in_fd, POLLOUT, 0};
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timed_out = true;
      break;
    }
    int r = poll(p, n, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    for (int i = 0; i < n; ++i) {
      if (p[i].revents == 0) continue;
      if (p[i].fd == in_fd) {
        ssize_t w = write(in_fd, input.data() + written, input.size() - written);
        if (w > 0) written += static_cast<std::size_t>(w);
        if (w < 0 || written == input.size()) {
          close(in_fd);
          in_fd = -1;
        }
        continue;
      }
      for (int k = 0; k < 3; ++k) {
        if (fds[k] != p[i].fd) continue;
        char buf[65536];
        ssize_t got = read(fds[k], buf, sizeof buf);
        if (got > 0) {
          sinks[k]->append(buf, static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EINTR) {
          close(fds[k]);
          fds[k] = -1;
          --open_count;
        }
      }
    }
  }
  if (in_fd >= 0) close(in_fd);
  for (int fd : fds) {
    if (fd >= 0) close(fd);
  }
  if (timed_out) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  if (timed_out) {
    result.status = -1;
  } else if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.status = 128 + WTERMSIG(status);
  }
  return result;
}

}  // namespace varn::testing
