#include "tests/support/launcher.h"

#include <cerrno>
#include <csignal>
#include <cstdint>

#include "platform/event_loop.h"
#include "platform/io.h"
#include "platform/system.h"

namespace varn::test_support {

Child::~Child() {
  if (pid_ > 0 && !ended_) {
    platform::SignalProcess(pid_, SIGKILL, false);
    Wait(-1);
  }
}

bool Child::Start(platform::SpawnRequest request) {
  if (pid_ > 0 && !ended_) {
    error_ = "a child is still running";
    return false;
  }
  request.die_with_parent = true;
  platform::SpawnResult s = platform::Spawn(request);
  if (s.pid < 0) {
    error_ = "cannot start " + request.program + ": " + platform::ErrorText(s.error_number);
    return false;
  }
  pid_ = s.pid;
  ended_ = false;
  code_ = -1;
  error_.clear();
  return true;
}

int Child::Wait(int timeout_ms) {
  if (pid_ <= 0) return -1;
  if (ended_) return code_;
  platform::ChildStatus status;
  if (!platform::WaitForChild(pid_, timeout_ms, &status)) return -1;
  ended_ = true;
  code_ = status.signaled ? 128 + status.value : status.value;
  return code_;
}

int Child::WaitOrKill(int timeout_ms) {
  int code = Wait(timeout_ms);
  if (code >= 0 || pid_ <= 0 || ended_) return code;
  platform::SignalProcess(pid_, SIGKILL, false);
  Wait(-1);
  return -1;
}

bool Child::Signal(int signo) {
  return pid_ > 0 && !ended_ && platform::SignalProcess(pid_, signo, false);
}

RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input,
                     const std::string& workdir, int timeout_ms) {
  constexpr int kReportFd = 3;
  RunResult result;
  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1}, rep[2] = {-1, -1};
  bool piped = platform::CreatePipe(in) && platform::CreatePipe(out) && platform::CreatePipe(err) &&
               platform::CreatePipe(rep);
  platform::SpawnRequest request;
  request.program = argv.empty() ? "" : argv[0];
  request.argv = argv;
  for (auto& a : request.argv) {
    if (a == "{report}") a = std::to_string(kReportFd);
  }
  request.working_directory = workdir;
  request.fds = {{in[0], 0}, {out[1], 1}, {err[1], 2}, {rep[1], kReportFd}};
  request.new_process_group = false;
  Child child;
  bool started = piped && child.Start(request);
  for (int fd : {in[0], out[1], err[1], rep[1]}) platform::Close(fd);
  if (!started) {
    for (int fd : {in[1], out[0], err[0], rep[0]}) platform::Close(fd);
    result.err = piped ? child.error() : "cannot create pipes";
    return result;
  }

  // A program that ends without reading its input must not end the test.
  platform::IgnoreBrokenPipeSignal();
  platform::EventLoop loop;
  struct Sink {
    int fd;
    std::string* text;
  };
  Sink sinks[] = {{out[0], &result.out}, {err[0], &result.err}, {rep[0], &result.report}};
  int open_count = 0;
  for (Sink& sink : sinks) {
    ++open_count;
    loop.Watch(sink.fd, true, false, [&loop, &sink, &open_count](platform::IoEvents) {
      char buf[65536];
      long n = platform::ReadSome(sink.fd, buf, sizeof buf);
      if (n > 0) {
        sink.text->append(buf, static_cast<std::size_t>(n));
        return;
      }
      loop.Unwatch(sink.fd);
      platform::Close(sink.fd);
      sink.fd = -1;
      --open_count;
    });
  }
  int in_fd = in[1];
  std::size_t written = 0;
  auto close_input = [&] {
    loop.Unwatch(in_fd);
    platform::Close(in_fd);
    in_fd = -1;
  };
  if (input.empty()) {
    close_input();
  } else {
    platform::SetNonBlocking(in_fd, true);
    loop.Watch(in_fd, false, true, [&](platform::IoEvents) {
      long n = platform::WriteSome(in_fd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<std::size_t>(n);
      if ((n < 0 && platform::LastError() != EAGAIN) || written == input.size()) close_input();
    });
  }

  std::int64_t deadline = platform::MonotonicMillis() + timeout_ms;
  bool timed_out = false;
  while (open_count > 0 || in_fd >= 0) {
    std::int64_t left = deadline - platform::MonotonicMillis();
    if (left <= 0) {
      timed_out = true;
      break;
    }
    loop.RunOnce(static_cast<int>(left));
  }
  if (in_fd >= 0) close_input();
  for (Sink& sink : sinks) {
    loop.Unwatch(sink.fd);
    platform::Close(sink.fd);
  }
  std::int64_t left = deadline - platform::MonotonicMillis();
  int status = child.WaitOrKill(timed_out || left < 0 ? 0 : static_cast<int>(left));
  result.status = timed_out ? -1 : status;
  return result;
}

}  // namespace varn::test_support
