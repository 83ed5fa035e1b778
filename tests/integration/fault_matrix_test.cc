// The fault matrix: a client linked to the library waits on a server it
// started through the real hub, and the exchange is broken at a chosen
// moment. Faults: the server killed (SIGKILL), the server stopped (SIGSTOP,
// then either continued or the hub shut down), the hub killed (SIGKILL),
// the server's channel to the hub closed while it lives on. Moments: the
// server has the CMD but has not acknowledged it; it acknowledged and is
// busy; it is in the middle of a stream (BEGIN and some DATA sent). Each
// case runs with the hub's two pipes per client and with its sockets.
//
// All programs write their steps, the hub its trace and log, into one FIFO
// that the test reads with deadlines: the moments and the outcomes are
// events, never sleeps. Every wait of the client must end within the bound
// written below with the error number and text of the library's table, or,
// while the server is stopped, go on and still answer interrupts. Nothing
// may crash and nothing may be delivered twice.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/event_loop.h"
#include "platform/spawn.h"
#include "tests/support/launcher.h"
#include "tests/support/output.h"
#include "tests/support/packet_io.h"

namespace varn::testing {
namespace {

using Clock = std::chrono::steady_clock;
using test_support::PacketReader;

// Sanitized builds run several times slower; every bound grows with them.
constexpr int kSlowdown = VARN_FAULT_SLOWDOWN;
// From the start of the hub to each moment of the exchange.
constexpr int kStepMs = 10000 * kSlowdown;
// From the fault to the end of the client's interrupted call. The hub
// announces a peer whose channel closed while it lives on after 2 s.
constexpr int kOutcomeMs = 3000 * kSlowdown;
constexpr int kChannelClosedOutcomeMs = 2000 + 3000 * kSlowdown;
// From the last outcome to the exit of every process.
constexpr int kExitMs = 5000 * kSlowdown;
// The hub's grace after SIGTERM before it kills what is left: the stopped
// server always takes all of it, the client must never need it.
constexpr int kHubGraceMs = 1000 * kSlowdown;
// Records the server sends before its stop, and again after it.
constexpr int kRecords = 3;

constexpr char kNoError[] = "No error.";
constexpr char kClosed[] = "The connection has been closed.";
constexpr char kHubGone[] = "Daemon is either dead or has closed all it's sockets.";

enum class Fault {
  kPeerKilled,          // SIGKILL to the server
  kPeerStopped,         // SIGSTOP; an INTR reaches the client; SIGCONT, the exchange ends
  kPeerStoppedHubEnds,  // SIGSTOP; SIGTERM to the hub, whose KILL ends the client
  kHubKilled,           // SIGKILL to the hub
  kChannelClosed,       // the server closes its descriptors to the hub and lives on
};
enum class Moment { kBeforeAck, kAfterAck, kMidStream };

struct Case {
  Fault fault;
  Moment moment;
  bool socket;  // the hub's --sockets: one socket per client instead of two pipes
};

const char* FaultName(Fault f) {
  switch (f) {
    case Fault::kPeerKilled:
      return "PeerKilled";
    case Fault::kPeerStopped:
      return "PeerStopped";
    case Fault::kPeerStoppedHubEnds:
      return "PeerStoppedHubEnds";
    case Fault::kHubKilled:
      return "HubKilled";
    case Fault::kChannelClosed:
      return "ChannelClosed";
  }
  return "?";
}

// As the programs name the moments.
const char* MomentWord(Moment m) {
  switch (m) {
    case Moment::kBeforeAck:
      return "before-ack";
    case Moment::kAfterAck:
      return "after-ack";
    case Moment::kMidStream:
      return "mid-stream";
  }
  return "?";
}

void PrintTo(const Case& c, std::ostream* out) {
  *out << FaultName(c.fault) << " " << MomentWord(c.moment) << (c.socket ? " socket" : " pipes");
}

std::string CaseName(const ::testing::TestParamInfo<Case>& info) {
  std::string moment = info.param.moment == Moment::kBeforeAck  ? "BeforeAck"
                       : info.param.moment == Moment::kAfterAck ? "AfterAck"
                                                                : "MidStream";
  return std::string(FaultName(info.param.fault)) + moment + (info.param.socket ? "Socket" : "");
}

// ---- What the client reports ------------------------------------------------

std::string SendLine(int r, int err, const char* msg) {
  return "client: send r=" + std::to_string(r) + " err=" + std::to_string(err) + " msg=" + msg;
}
std::string WaitLine(const char* what, int r, int err, const std::string& category,
                     const std::string& text, const char* msg) {
  return std::string("client: ") + what + " r=" + std::to_string(r) +
         " err=" + std::to_string(err) + " cat=" + category + " text=" + text + " msg=" + msg;
}
std::string DataFailedLine(int err, const std::string& category, const char* msg) {
  return "client: data r=0 err=" + std::to_string(err) + " cat=" + category + " msg=" + msg;
}
std::string AfterLine(int err, const char* msg) {
  return "client: after r=0 err=" + std::to_string(err) + " cat=- msg=" + msg;
}
std::string RecordLine(int i) { return "client: record row " + std::to_string(i); }

// The client's lines from its CMD up to the moment of the fault.
std::vector<std::string> BeforeTheFault(Moment m) {
  std::vector<std::string> lines = {"client: sending CMD"};
  if (m == Moment::kBeforeAck) return lines;
  lines.push_back(SendLine(1, 0, kNoError));
  if (m == Moment::kAfterAck) {
    lines.push_back("client: waiting");
    return lines;
  }
  lines.push_back(WaitLine("begin", 1, 0, "BEGIN", "rows", kNoError));
  for (int i = 1; i <= kRecords; ++i) lines.push_back(RecordLine(i));
  return lines;
}

// The client's lines from the fault on: the interrupted call's result (or,
// while the server is stopped, the interrupt that reaches it), and a
// second wait on the same server.
std::vector<std::string> AfterTheFault(Fault f, Moment m) {
  // The server's end as the hub announces it. Only varn_wait takes the
  // notice as its answer; during the acknowledgement wait and the stream
  // read it goes to the callback, and the call fails with 13.
  auto peer_gone = [m](const std::string& notice) -> std::vector<std::string> {
    switch (m) {
      case Moment::kBeforeAck:
        return {"client: callback SRVR_ERR", SendLine(0, 13, kClosed), AfterLine(13, kClosed)};
      case Moment::kAfterAck:
        return {WaitLine("wait", 1, 0, "SRVR_ERR", notice, kNoError), AfterLine(13, kClosed)};
      case Moment::kMidStream:
        return {"client: callback SRVR_ERR", DataFailedLine(13, "SRVR_ERR", kClosed),
                AfterLine(13, kClosed)};
    }
    return {};
  };
  switch (f) {
    case Fault::kPeerKilled:
      return peer_gone("signal 9");
    case Fault::kChannelClosed:
      return peer_gone("channel closed");
    case Fault::kHubKilled:
      // The hub's loss reaches the callback (as -1) and fails the call;
      // from then on every call fails with 43 at once.
      switch (m) {
        case Moment::kBeforeAck:
          return {"client: callback quon", SendLine(0, 43, kHubGone), AfterLine(43, kHubGone)};
        case Moment::kAfterAck:
          return {"client: callback quon", WaitLine("wait", 0, 43, "-", "", kHubGone),
                  AfterLine(43, kHubGone)};
        case Moment::kMidStream:
          return {"client: callback quon", DataFailedLine(43, "0", kHubGone),
                  AfterLine(43, kHubGone)};
      }
      break;
    case Fault::kPeerStopped: {
      std::vector<std::string> lines = {"client: callback INTR"};
      if (m == Moment::kBeforeAck) lines.push_back(SendLine(1, 0, kNoError));
      if (m == Moment::kMidStream) {
        for (int i = kRecords + 1; i <= 2 * kRecords; ++i) lines.push_back(RecordLine(i));
        lines.push_back("client: end end");
      }
      if (m != Moment::kAfterAck) lines.push_back("client: waiting");
      lines.push_back(WaitLine("wait", 1, 0, "DONE", "done", kNoError));
      // The exit notices of the server and the pinger, killed by the client.
      lines.push_back("client: callback SRVR_ERR");
      lines.push_back("client: callback SRVR_ERR");
      lines.push_back("client: killed r=1 1 err=0");
      return lines;
    }
    case Fault::kPeerStoppedHubEnds:
      // The KILL ends the process inside its wait: no result is reported.
      return {"client: callback KILL"};
  }
  return {};
}

// The result line of the call the fault interrupted starts with this.
std::string InterruptedCall(Moment m) {
  switch (m) {
    case Moment::kBeforeAck:
      return "client: send r=";
    case Moment::kAfterAck:
      return "client: wait r=";
    case Moment::kMidStream:
      return "client: data r=";
  }
  return "";
}

// ---- The FIFO every program writes to ----------------------------------------

class Events {
 public:
  Events() = default;
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;
  ~Events() {
    if (read_fd_ >= 0) close(read_fd_);
    if (write_fd_ >= 0) close(write_fd_);
  }

  bool Open(const std::string& path) {
    if (mkfifo(path.c_str(), 0600) != 0) return false;
    read_fd_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (read_fd_ < 0) return false;
    // The test's own writer: the FIFO never reads as ended while programs
    // come and go.
    write_fd_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (write_fd_ < 0) return false;
    fcntl(read_fd_, F_SETFL, fcntl(read_fd_, F_GETFL) & ~O_NONBLOCK);
    // The hub writes its log synchronously: room enough that it never
    // waits for the test.
    fcntl(read_fd_, F_SETPIPE_SZ, 1 << 20);
    reader_ = PacketReader(read_fd_);
    return true;
  }

  // Reads lines until one of all read so far satisfies `match`; false at
  // the deadline.
  template <typename Match>
  bool Await(Match match, int timeout_ms, std::string* found = nullptr) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (std::size_t i = 0;; ++i) {
      while (i == lines_.size()) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left < 0 || !ReadOne(static_cast<int>(left))) return false;
      }
      if (match(lines_[i])) {
        if (found != nullptr) *found = lines_[i];
        return true;
      }
    }
  }
  bool AwaitPrefix(const std::string& prefix, int timeout_ms, std::string* found = nullptr) {
    return Await([&](const std::string& l) { return l.rfind(prefix, 0) == 0; }, timeout_ms, found);
  }
  bool AwaitLine(const std::string& line, int timeout_ms) {
    return Await([&](const std::string& l) { return l == line; }, timeout_ms);
  }
  bool AwaitContaining(const std::string& part, int timeout_ms) {
    return Await([&](const std::string& l) { return l.find(part) != std::string::npos; },
                 timeout_ms);
  }
  bool AwaitCount(const std::string& prefix, int count, int timeout_ms) {
    int seen = 0;
    return Await([&](const std::string& l) { return l.rfind(prefix, 0) == 0 && ++seen == count; },
                 timeout_ms);
  }

  // Takes in what has been written already, without waiting.
  void Drain() {
    while (ReadOne(0)) {
    }
  }

  bool Contains(const std::string& part) const {
    for (const std::string& l : lines_) {
      if (l.find(part) != std::string::npos) return true;
    }
    return false;
  }
  int Count(const std::string& prefix) const {
    int n = 0;
    for (const std::string& l : lines_) n += l.rfind(prefix, 0) == 0 ? 1 : 0;
    return n;
  }
  // The lines that start with `prefix`, from the first that equals `from`.
  std::vector<std::string> Since(const std::string& prefix, const std::string& from) const {
    std::vector<std::string> out;
    bool on = false;
    for (const std::string& l : lines_) {
      if (l == from) on = true;
      if (on && l.rfind(prefix, 0) == 0) out.push_back(l);
    }
    return out;
  }
  const std::vector<std::string>& lines() const { return lines_; }
  std::string Transcript() const {
    std::string text;
    for (const std::string& l : lines_) text += "  | " + l + "\n";
    return text;
  }

 private:
  bool ReadOne(int timeout_ms) {
    std::string line;
    if (reader_.ReadLine(timeout_ms, &line) != PacketReader::Result::kOk) return false;
    lines_.push_back(line);
    return true;
  }

  int read_fd_ = -1;
  int write_fd_ = -1;
  PacketReader reader_;
  std::vector<std::string> lines_;
};

// "... pid=123 ..." -> 123; "... address=123@h ..." -> "123@h".
std::string Field(const std::string& line, const std::string& name) {
  std::size_t at = line.find(" " + name + "=");
  if (at == std::string::npos) return "";
  at += name.size() + 2;
  return line.substr(at, line.find(' ', at) - at);
}

int Elapsed(Clock::time_point since) {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

bool Alive(int pid) { return pid > 0 && kill(pid, 0) == 0; }

// The state letter of /proc/PID/stat ('T' when stopped), '?' when gone.
char ProcessState(int pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::size_t paren = text.rfind(')');
  return paren == std::string::npos || paren + 2 >= text.size() ? '?' : text[paren + 2];
}

// SIGSTOP takes effect asynchronously: looks until the kernel shows the
// process stopped, within the bound.
bool AwaitStopped(int pid, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Clock::now() < deadline) {
    char s = ProcessState(pid);
    if (s == 'T' || s == 't') return true;
    if (s == '?') return false;
    std::this_thread::yield();
  }
  return false;
}

// Reaps a process this test adopted (the hub's children, once the hub is
// gone); its exit code, 128 + signal, or -1 at the deadline.
int ReapAdopted(int pid, int timeout_ms) {
  platform::ChildStatus status;
  if (!platform::WaitForChild(pid, timeout_ms, &status)) return -1;
  return status.signaled ? 128 + status.value : status.value;
}

std::string Dir(const std::string& path) { return path.substr(0, path.rfind('/')); }

// ---- The matrix ---------------------------------------------------------------

class FaultMatrixTest : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    // The hub's children come to this process when the hub is killed, so
    // that their exit statuses can be read and nothing is left behind.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  }

  void TearDown() override {
    // Whatever a failed case left running goes; adopted children are reaped.
    for (int* pid : {&server_pid_, &pinger_pid_, &client_pid_}) {
      if (Alive(*pid)) kill(*pid, SIGKILL);
    }
    hub_.WaitOrKill(0);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
  }

  // Starts the hub with the client as its first client, and learns the
  // addresses and pids of the client, the server and the pinger.
  void Start(const Case& c) {
    std::string fifo = test_support::TestOutputDir("run") + "/events";
    ASSERT_TRUE(events_.Open(fifo)) << fifo;
    platform::SpawnRequest request;
    request.program = VARN_QUON_PATH;
    request.argv = {VARN_QUON_PATH, "--trace",
                    "--log",        fifo,
                    "--grace",      std::to_string(kHubGraceMs),
                    "--path",       Dir(VARN_FAULT_PEER_PATH)};
    if (c.socket) request.argv.push_back("--sockets");
    request.argv.insert(request.argv.end(), {VARN_FAULT_PEER_PATH, "-reportfile", fifo, "client",
                                             MomentWord(c.moment), std::to_string(kRecords)});
    if (c.fault == Fault::kPeerStopped) request.argv.push_back("pinger");
    if (c.fault == Fault::kChannelClosed) request.argv.push_back("close");
    ASSERT_TRUE(hub_.Start(request)) << hub_.error();

    std::string line;
    ASSERT_TRUE(events_.AwaitPrefix("client: ready ", kStepMs, &line)) << events_.Transcript();
    client_pid_ = std::stoi(Field(line, "pid"));
    client_address_ = Field(line, "address");
    if (c.fault == Fault::kPeerStopped) {
      ASSERT_TRUE(events_.AwaitPrefix("pinger: ready ", kStepMs, &line)) << events_.Transcript();
      pinger_pid_ = std::stoi(Field(line, "pid"));
    }
    ASSERT_TRUE(events_.AwaitPrefix("server: ready ", kStepMs, &line)) << events_.Transcript();
    server_pid_ = std::stoi(Field(line, "pid"));
    server_address_ = Field(line, "address");
  }

  // Waits until the exchange has reached the moment: the server stopped
  // there, and the client in the call that waits.
  void ReachMoment(Moment m) {
    std::string word = MomentWord(m);
    ASSERT_TRUE(events_.AwaitLine("server: stopped " + word, kStepMs)) << events_.Transcript();
    switch (m) {
      case Moment::kBeforeAck:
        // The hub has relayed the CMD to the server.
        ASSERT_TRUE(events_.AwaitContaining(
            " " + client_address_ + " -> " + server_address_ + " CMD ", kStepMs))
            << events_.Transcript();
        break;
      case Moment::kAfterAck:
        ASSERT_TRUE(events_.AwaitLine("client: waiting", kStepMs)) << events_.Transcript();
        break;
      case Moment::kMidStream:
        ASSERT_TRUE(events_.AwaitCount("client: record ", kRecords, kStepMs))
            << events_.Transcript();
        break;
    }
    // Nothing has answered the client's call yet.
    ASSERT_EQ(events_.Count(InterruptedCall(m)), 0) << events_.Transcript();
  }

  void ExpectHubExit(int code) {
    int got = hub_.Wait(kExitMs);
    EXPECT_EQ(got, code) << "hub exit\n" << events_.Transcript();
  }

  Events events_;
  test_support::Child hub_;
  int client_pid_ = -1;
  int server_pid_ = -1;
  int pinger_pid_ = -1;
  std::string client_address_;
  std::string server_address_;
};

TEST_P(FaultMatrixTest, WaitEndsWithTheTablesErrorOrStaysInterruptible) {
  const Case c = GetParam();
  ASSERT_NO_FATAL_FAILURE(Start(c));
  ASSERT_NO_FATAL_FAILURE(ReachMoment(c.moment));

  const std::vector<std::string> expected_after = AfterTheFault(c.fault, c.moment);
  const std::string& last = expected_after.back();
  Clock::time_point fault_at = Clock::now();
  int first_result_ms = -1;
  switch (c.fault) {
    case Fault::kPeerKilled: {
      ASSERT_EQ(kill(server_pid_, SIGKILL), 0);
      fault_at = Clock::now();
      ASSERT_TRUE(events_.AwaitPrefix(InterruptedCall(c.moment), kOutcomeMs))
          << events_.Transcript();
      first_result_ms = Elapsed(fault_at);
      ASSERT_TRUE(events_.AwaitLine(last, kOutcomeMs)) << events_.Transcript();
      ExpectHubExit(0);
      break;
    }
    case Fault::kChannelClosed: {
      ASSERT_EQ(kill(server_pid_, SIGUSR1), 0);
      ASSERT_TRUE(
          events_.AwaitLine(std::string("server: closed ") + MomentWord(c.moment), kOutcomeMs))
          << events_.Transcript();
      fault_at = Clock::now();
      ASSERT_TRUE(events_.AwaitPrefix(InterruptedCall(c.moment), kChannelClosedOutcomeMs))
          << events_.Transcript();
      first_result_ms = Elapsed(fault_at);
      ASSERT_TRUE(events_.AwaitLine(last, kOutcomeMs)) << events_.Transcript();
      // The server has lived on all along; now it may end.
      EXPECT_TRUE(Alive(server_pid_));
      ASSERT_EQ(kill(server_pid_, SIGUSR1), 0);
      ExpectHubExit(0);
      break;
    }
    case Fault::kHubKilled: {
      ASSERT_TRUE(hub_.Signal(SIGKILL));
      fault_at = Clock::now();
      ASSERT_TRUE(events_.AwaitPrefix(InterruptedCall(c.moment), kOutcomeMs))
          << events_.Transcript();
      first_result_ms = Elapsed(fault_at);
      ASSERT_TRUE(events_.AwaitLine(last, kOutcomeMs)) << events_.Transcript();
      EXPECT_EQ(hub_.Wait(kExitMs), 128 + SIGKILL);
      // The client ends by itself; the server, stopped in its own code,
      // does not look at its channel and is ended here.
      EXPECT_EQ(ReapAdopted(client_pid_, kExitMs), 0) << events_.Transcript();
      client_pid_ = -1;
      EXPECT_TRUE(Alive(server_pid_));
      kill(server_pid_, SIGKILL);
      EXPECT_EQ(ReapAdopted(server_pid_, kExitMs), 128 + SIGKILL);
      server_pid_ = -1;
      break;
    }
    case Fault::kPeerStopped: {
      ASSERT_EQ(kill(server_pid_, SIGSTOP), 0);
      ASSERT_TRUE(AwaitStopped(server_pid_, kOutcomeMs));
      fault_at = Clock::now();
      // The client, waiting on the stopped server, still takes an interrupt.
      ASSERT_EQ(kill(pinger_pid_, SIGUSR1), 0);
      ASSERT_TRUE(events_.AwaitLine("client: callback INTR", kOutcomeMs)) << events_.Transcript();
      first_result_ms = Elapsed(fault_at);
      ASSERT_TRUE(events_.AwaitPrefix("pinger: sent r=1 ", kOutcomeMs)) << events_.Transcript();
      // Its wait goes on: nothing has answered it.
      EXPECT_EQ(events_.Count(InterruptedCall(c.moment)), 0) << events_.Transcript();
      // Continued and released, the server finishes the exchange.
      ASSERT_EQ(kill(server_pid_, SIGCONT), 0);
      ASSERT_EQ(kill(server_pid_, SIGUSR1), 0);
      ASSERT_TRUE(events_.AwaitLine(last, kOutcomeMs)) << events_.Transcript();
      ExpectHubExit(0);
      break;
    }
    case Fault::kPeerStoppedHubEnds: {
      ASSERT_EQ(kill(server_pid_, SIGSTOP), 0);
      ASSERT_TRUE(AwaitStopped(server_pid_, kOutcomeMs));
      // The hub's shutdown reaches the waiting client; the stopped server
      // is killed after the grace.
      ASSERT_TRUE(hub_.Signal(SIGTERM));
      fault_at = Clock::now();
      ASSERT_TRUE(events_.AwaitLine(last, kOutcomeMs)) << events_.Transcript();
      first_result_ms = Elapsed(fault_at);
      ExpectHubExit(0);
      events_.Drain();
      EXPECT_TRUE(events_.Contains("did not end in time, killed")) << events_.Transcript();
      break;
    }
  }
  events_.Drain();
  std::printf("[ outcome  ] %s %s%s: first result after %d ms\n", FaultName(c.fault),
              MomentWord(c.moment), c.socket ? " socket" : "", first_result_ms);

  // The client's whole exchange, once each.
  std::vector<std::string> expected = BeforeTheFault(c.moment);
  expected.insert(expected.end(), expected_after.begin(), expected_after.end());
  EXPECT_EQ(events_.Since("client: ", "client: sending CMD"), expected) << events_.Transcript();
  // The server took the CMD at most once.
  EXPECT_LE(events_.Count("server: got "), 1) << events_.Transcript();
  // Nothing crashed: no sanitizer report, no end by a signal the test did
  // not send.
  for (const std::string& l : events_.lines()) {
    EXPECT_EQ(l.find("Sanitizer"), std::string::npos) << events_.Transcript();
    EXPECT_EQ(l.find("runtime error"), std::string::npos) << events_.Transcript();
    if (l.find(" ended: signal ") != std::string::npos) {
      bool server_killed = c.fault == Fault::kPeerKilled || c.fault == Fault::kPeerStoppedHubEnds;
      EXPECT_TRUE(server_killed &&
                  l.find("[" + std::to_string(server_pid_) + "]") != std::string::npos &&
                  l.find(" ended: signal 9") != std::string::npos)
          << l;
    }
  }
}

std::vector<Case> AllCases() {
  std::vector<Case> cases;
  for (Fault f : {Fault::kPeerKilled, Fault::kPeerStopped, Fault::kPeerStoppedHubEnds,
                  Fault::kHubKilled, Fault::kChannelClosed}) {
    for (Moment m : {Moment::kBeforeAck, Moment::kAfterAck, Moment::kMidStream}) {
      for (bool socket : {false, true}) cases.push_back({f, m, socket});
    }
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(FaultMatrix, FaultMatrixTest, ::testing::ValuesIn(AllCases()), CaseName);

}  // namespace
}  // namespace varn::testing
