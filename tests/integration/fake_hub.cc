#include "tests/integration/fake_hub.h"

#include <sys/socket.h>

#include <cerrno>

#include "platform/event_loop.h"
#include "platform/io.h"
#include "platform/system.h"

namespace varn::testing {
namespace {

// Where the program finds its channel and report pipe.
constexpr int kProgramIn = 3;
constexpr int kProgramOut = 4;
constexpr int kProgramSocket = 3;

int MsLeft(std::int64_t deadline) {
  std::int64_t left = deadline - platform::MonotonicMillis();
  return left < 0 ? 0 : static_cast<int>(left);
}

}  // namespace

FakeHub::~FakeHub() {
  if (!socket_) platform::Close(to_program_);
  platform::Close(from_program_);
  platform::Close(report_);
}

bool FakeHub::Start(const std::string& mode, const Options& options) {
  // A program that died must fail the test by its checks, not kill it by a
  // write to its closed input.
  platform::IgnoreBrokenPipeSignal();
  socket_ = options.socket;
  platform::SpawnRequest request;
  request.program = options.program;
  request.argv = {options.program};
  request.environment = options.env;
  request.new_process_group = false;
  if (!options.parent.empty()) {
    request.argv.insert(request.argv.end(), {"-quon_parentid", options.parent});
  }
  int report_fd;
  std::vector<int> program_ends;
  if (socket_) {
    int sock[2];
    if (!platform::CreateSocketPair(sock)) return false;
    to_program_ = from_program_ = sock[0];
    program_ends = {sock[1]};
    request.fds.push_back({sock[1], kProgramSocket});
    request.argv.insert(request.argv.end(), {"-quon_sockfd", std::to_string(kProgramSocket)});
    report_fd = kProgramSocket + 1;
  } else {
    int in[2], out[2];
    if (!platform::CreatePipe(in)) return false;
    if (!platform::CreatePipe(out)) {
      platform::Close(in[0]);
      platform::Close(in[1]);
      return false;
    }
    to_program_ = in[1];
    from_program_ = out[0];
    program_ends = {in[0], out[1]};
    request.fds.push_back({in[0], kProgramIn});
    request.fds.push_back({out[1], kProgramOut});
    // The descriptor options are hexadecimal; these are single digits.
    request.argv.insert(request.argv.end(), {"-quon_quonin", std::to_string(kProgramIn),
                                             "-quon_quonout", std::to_string(kProgramOut)});
    report_fd = kProgramOut + 1;
  }
  int rep[2];
  if (!platform::CreatePipe(rep)) {
    for (int fd : program_ends) platform::Close(fd);
    return false;
  }
  report_ = rep[0];
  program_ends.push_back(rep[1]);
  request.fds.push_back({rep[1], report_fd});
  if (options.close_stderr) request.fds.push_back({-1, platform::kStderr});
  request.argv.insert(request.argv.end(), options.extra.begin(), options.extra.end());
  request.argv.insert(request.argv.end(), {"-report", std::to_string(report_fd), mode});
  request.argv.insert(request.argv.end(), options.tail.begin(), options.tail.end());

  bool started = program_.Start(request);
  for (int fd : program_ends) platform::Close(fd);
  packets_ = test_support::PacketReader(from_program_);
  reports_ = test_support::PacketReader(report_);
  return started;
}

bool FakeHub::SendRaw(const std::string& bytes) {
  return platform::WriteAll(to_program_, bytes.data(), bytes.size());
}

bool FakeHub::Send(const std::string& destination, const std::string& source,
                   const std::string& word, const std::string& payload) {
  std::string bytes = test_support::BuildPacket(destination, source, word, payload);
  return !bytes.empty() && SendRaw(bytes);
}

bool FakeHub::Read(Packet* packet, int timeout_ms) {
  return packets_.Read(timeout_ms, packet) == test_support::PacketReader::Result::kOk;
}

bool FakeHub::ReadUntil(const std::string& word, Packet* packet, int timeout_ms) {
  std::int64_t deadline = platform::MonotonicMillis() + timeout_ms;
  while (Read(packet, MsLeft(deadline))) {
    if (packet->word == word) return true;
  }
  return false;
}

std::string FakeHub::Report(int timeout_ms) {
  std::string line;
  if (reports_.ReadLine(timeout_ms, &line) != test_support::PacketReader::Result::kOk) return "";
  return line;
}

std::string FakeHub::ReportStarting(const std::string& prefix, int timeout_ms) {
  std::int64_t deadline = platform::MonotonicMillis() + timeout_ms;
  for (;;) {
    std::string line = Report(MsLeft(deadline));
    if (line.empty() || line.rfind(prefix, 0) == 0) return line;
  }
}

void FakeHub::CloseInput() {
  if (to_program_ < 0) return;
  if (socket_) {
    // The socket carries the program's output too: end our sending side only.
    shutdown(to_program_, SHUT_WR);
  } else {
    platform::Close(to_program_);
  }
  to_program_ = -1;
}

void FakeHub::CloseChannel() {
  CloseInput();
  platform::Close(from_program_);
  from_program_ = -1;
  packets_ = test_support::PacketReader();
}

std::size_t FakeHub::Flood(const std::string& packet, std::size_t max_bytes, int stall_ms) {
  platform::EventLoop loop;
  bool writable = false;
  loop.Watch(to_program_, false, true, [&writable](platform::IoEvents) { writable = true; });
  auto wait_writable = [&] {
    writable = false;
    loop.RunOnce(stall_ms);
    return writable;
  };
  std::size_t total = 0;
  std::size_t offset = 0;  // into the packet being written
  platform::SetNonBlocking(to_program_, true);
  while (total + packet.size() <= max_bytes || offset > 0) {
    long n = platform::WriteSome(to_program_, packet.data() + offset, packet.size() - offset);
    if (n > 0) {
      offset += static_cast<std::size_t>(n);
      if (offset == packet.size()) {
        total += packet.size();
        offset = 0;
      }
      continue;
    }
    if (n < 0 && platform::LastError() != EAGAIN) break;
    // Nothing taken for stall_ms: the program stopped reading. A packet
    // begun is still finished (its reader is inside it), within the same
    // bound.
    if (!wait_writable() && (offset == 0 || !wait_writable())) break;
  }
  platform::SetNonBlocking(to_program_, false);
  loop.Unwatch(to_program_);
  return total;
}

int FakeHub::WaitExit(int timeout_ms) { return program_.WaitOrKill(timeout_ms); }

std::string FakeHub::ProgramAddress() const {
  return std::to_string(program_.pid()) + "@" + test_support::HostName();
}

}  // namespace varn::testing
