#include "tests/integration/fake_hub.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "transport/wire_format.h"

namespace varn::testing {
namespace {

using Clock = std::chrono::steady_clock;

int MsLeft(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

bool WaitReadable(int fd, Clock::time_point deadline) {
  pollfd p{fd, POLLIN, 0};
  for (;;) {
    int r = poll(&p, 1, MsLeft(deadline));
    if (r > 0) return true;
    if (r == 0) return false;
    if (errno != EINTR) return false;
  }
}

std::string Hex(int fd) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%x", fd);
  return buf;
}

}  // namespace

FakeHub::~FakeHub() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (int fd : {to_child_, from_child_, report_}) {
    if (fd >= 0) close(fd);
  }
}

bool FakeHub::Start(const std::string& mode, const Options& options) {
  // A program that died must fail the test by its checks, not kill it by a
  // write to its closed input.
  signal(SIGPIPE, SIG_IGN);
  int in[2], out[2], rep[2];
  int sock[2];
  if (pipe2(rep, O_CLOEXEC) != 0) return false;
  int child_in = -1, child_out = -1, child_sock = -1;
  if (options.socket) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sock) != 0) return false;
    to_child_ = from_child_ = -1;
    to_child_ = sock[0];
    from_child_ = fcntl(sock[0], F_DUPFD_CLOEXEC, 0);
    child_sock = sock[1];
  } else {
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return false;
    to_child_ = in[1];
    child_in = in[0];
    from_child_ = out[0];
    child_out = out[1];
  }
  report_ = rep[0];
  std::vector<std::string> args = {VARN_PEER_PATH};
  if (!options.parent.empty()) {
    args.push_back("-quon_parentid");
    args.push_back(options.parent);
  }
  if (options.socket) {
    args.push_back("-quon_sockfd");
    args.push_back(std::to_string(child_sock));
  } else {
    args.push_back("-quon_quonin");
    args.push_back(Hex(child_in));
    args.push_back("-quon_quonout");
    args.push_back(Hex(child_out));
  }
  for (const auto& a : options.extra) args.push_back(a);
  args.push_back("-report");
  args.push_back(std::to_string(rep[1]));
  args.push_back(mode);
  for (const auto& a : options.tail) args.push_back(a);

  pid_ = fork();
  if (pid_ < 0) return false;
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (options.close_stderr) close(2);
    for (int fd : {child_in, child_out, child_sock, rep[1]}) {
      if (fd >= 0) fcntl(fd, F_SETFD, 0);
    }
    for (const auto& e : options.env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  for (int fd : {child_in, child_out, child_sock, rep[1]}) {
    if (fd >= 0) close(fd);
  }
  return true;
}

bool FakeHub::SendRaw(const std::string& bytes) {
  const char* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    ssize_t n = write(to_child_, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return true;
}

bool FakeHub::Send(const std::string& destination, const std::string& source,
                   const std::string& word, const std::string& payload) {
  int code = 0;
  if (!wire::CategoryFromWord(word, &code)) return false;
  std::vector<char> buf(wire::kPacketLimit);
  std::size_t size = 0;
  if (wire::BuildPacket(buf.data(), buf.size(), destination, source, code,
                        payload.empty() ? nullptr : payload.data(), payload.size(),
                        &size) != wire::WireError::kOk) {
    return false;
  }
  return SendRaw(std::string(buf.data(), size));
}

bool FakeHub::ReadBytes(std::string* out, std::size_t count, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  out->clear();
  while (out->size() < count) {
    if (!WaitReadable(from_child_, deadline)) return false;
    char buf[65536];
    std::size_t want = count - out->size();
    ssize_t n = read(from_child_, buf, want < sizeof buf ? want : sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out->append(buf, static_cast<std::size_t>(n));
  }
  return true;
}

bool FakeHub::Read(Packet* packet, int timeout_ms) {
  std::string digits;
  if (!ReadBytes(&digits, wire::kLengthDigits, timeout_ms)) return false;
  std::size_t length = 0;
  if (wire::ParseLength(digits.data(), &length) != wire::WireError::kOk) return false;
  std::string body;
  if (!ReadBytes(&body, length, timeout_ms)) return false;
  packet->raw = digits + body;
  wire::Header header;
  if (wire::SplitBody(body.data(), body.size(), &header) != wire::WireError::kOk) return false;
  packet->destination = std::string(header.destination);
  packet->source = std::string(header.source);
  packet->word = std::string(header.word);
  packet->payload.clear();
  if (header.has_payload) {
    packet->payload = body.substr(header.payload_offset, header.payload_length);
    while (!packet->payload.empty() && packet->payload.back() == '\0') packet->payload.pop_back();
  }
  return true;
}

bool FakeHub::ReadUntil(const std::string& word, Packet* packet, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Read(packet, MsLeft(deadline))) {
    if (packet->word == word) return true;
  }
  return false;
}

std::string FakeHub::Report(int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::size_t nl = report_buffer_.find('\n');
    if (nl != std::string::npos) {
      std::string line = report_buffer_.substr(0, nl);
      report_buffer_.erase(0, nl + 1);
      return line;
    }
    if (!WaitReadable(report_, deadline)) return "";
    char buf[4096];
    ssize_t n = read(report_, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return "";
    report_buffer_.append(buf, static_cast<std::size_t>(n));
  }
}

std::string FakeHub::ReportStarting(const std::string& prefix, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::string line = Report(MsLeft(deadline));
    if (line.empty() || line.rfind(prefix, 0) == 0) return line;
  }
}

void FakeHub::CloseInput() {
  if (to_child_ >= 0) {
    if (to_child_ != from_child_) {
      if (from_child_ >= 0) {
        // Socket mode shares one connection: shut down our sending side only.
        shutdown(to_child_, SHUT_WR);
      }
    }
    close(to_child_);
    to_child_ = -1;
  }
}

void FakeHub::CloseChannel() {
  CloseInput();
  if (from_child_ >= 0) {
    close(from_child_);
    from_child_ = -1;
  }
}

std::size_t FakeHub::Flood(const std::string& packet, std::size_t max_bytes, int stall_ms) {
  std::size_t total = 0;
  std::size_t offset = 0;  // into the packet being written
  int flags = fcntl(to_child_, F_GETFL);
  fcntl(to_child_, F_SETFL, flags | O_NONBLOCK);
  while (total + packet.size() <= max_bytes || offset > 0) {
    ssize_t n = write(to_child_, packet.data() + offset, packet.size() - offset);
    if (n > 0) {
      offset += static_cast<std::size_t>(n);
      if (offset == packet.size()) {
        total += packet.size();
        offset = 0;
      }
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) break;
    pollfd p{to_child_, POLLOUT, 0};
    if (poll(&p, 1, stall_ms) == 0) {
      // The program stopped taking input. A packet begun is finished (its
      // reader is inside it), within the same bound.
      if (offset == 0 || poll(&p, 1, stall_ms) == 0) break;
    }
  }
  fcntl(to_child_, F_SETFL, flags);
  return total;
}

int FakeHub::WaitExit(int timeout_ms) {
  if (pid_ <= 0) return -1;
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  if (pidfd >= 0) {
    bool ended = WaitReadable(pidfd, deadline);
    close(pidfd);
    if (!ended) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      exited_ = true;
      return -1;
    }
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  exited_ = true;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

std::string FakeHub::ProgramAddress() const {
  char host[256] = "";
  gethostname(host, sizeof host);
  return std::to_string(pid_) + "@" + host;
}

}  // namespace varn::testing
