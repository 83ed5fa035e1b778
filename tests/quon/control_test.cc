// The hub's control endpoint, through the real hub: the process table,
// the trace, the cycle warning, and a control client that misbehaves.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "platform/io.h"
#include "platform/spawn.h"
#include "platform/system.h"
#include "platform/unix_socket.h"
#include "quon/control_endpoint.h"
#include "tests/quon/hub_session.h"
#include "tests/support/launcher.h"

namespace varn::quon_test {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> WithPath(std::vector<std::string> options) {
  options.insert(options.end(), {"--path", QclientDir()});
  return options;
}

int PidOf(const std::string& address) { return std::stoi(address.substr(0, address.find('@'))); }

// Socket paths must stay short; the build tree's are too long.
std::string SocketPath(const std::string& tag) {
  return "/tmp/quon-ctl-test-" + std::to_string(platform::ProcessId()) + "-" + tag;
}

std::vector<std::string> SplitTabs(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (;;) {
    std::size_t tab = line.find('\t', start);
    fields.push_back(line.substr(start, tab - start));
    if (tab == std::string::npos) return fields;
    start = tab + 1;
  }
}

// "HH:MM:SS.mmm"
bool IsTimeOfDay(const std::string& text) {
  const std::string form = "00:00:00.000";
  if (text.size() != form.size()) return false;
  for (std::size_t i = 0; i < form.size(); ++i) {
    bool digit = text[i] >= '0' && text[i] <= '9';
    if (form[i] == '0' ? !digit : text[i] != form[i]) return false;
  }
  return true;
}

// The `ps` answer: rows by address, each field by its header name.
struct Table {
  std::map<std::string, std::map<std::string, std::string>> rows;
  std::vector<std::string> warnings;  // the fields after "warning", tab-joined
  std::vector<std::string> links;     // the fields after "link", tab-joined
  const std::string& Field(const std::string& address, const std::string& name) {
    return rows[address][name];
  }
};

// One connection to the control socket.
class Control {
 public:
  Control() = default;
  ~Control() { platform::Close(fd_); }
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  ::testing::AssertionResult Connect(const std::string& path) {
    int error = 0;
    fd_ = platform::ConnectUnixSocket(path, &error);
    if (fd_ < 0) return ::testing::AssertionFailure() << "connect: " << platform::ErrorText(error);
    reader_ = PacketReader(fd_);
    return ::testing::AssertionSuccess();
  }

  // Without SIGPIPE: the hub may have dropped this connection.
  bool Send(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
      long n = platform::SocketSend(fd_, text.data() + done, text.size() - done);
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

  ::testing::AssertionResult Line(std::string* line, int timeout_ms = kWaitMs) {
    switch (reader_.ReadLine(timeout_ms, line)) {
      case PacketReader::Result::kOk:
        return ::testing::AssertionSuccess();
      case PacketReader::Result::kEnd:
        return ::testing::AssertionFailure() << "the hub closed the control connection";
      default:
        return ::testing::AssertionFailure() << "no line within " << timeout_ms << " ms";
    }
  }

  // Reads until the hub closes the connection; false on timeout.
  bool ReadToEnd() {
    std::string line;
    for (;;) {
      PacketReader::Result r = reader_.ReadLine(kWaitMs, &line);
      if (r == PacketReader::Result::kEnd) return true;
      if (r != PacketReader::Result::kOk) return false;
    }
  }

  ::testing::AssertionResult Ps(Table* table) {
    *table = Table();
    if (!Send("ps\n")) return ::testing::AssertionFailure() << "cannot ask";
    std::string line;
    auto r = Line(&line);
    if (!r) return r;
    std::vector<std::string> names = SplitTabs(line);
    if (names.empty() || names[0] != "ps")
      return ::testing::AssertionFailure() << "header " << line;
    for (;;) {
      r = Line(&line);
      if (!r) return r;
      if (line == "end") return ::testing::AssertionSuccess();
      std::vector<std::string> f = SplitTabs(line);
      if (f[0] == "warning") {
        table->warnings.push_back(line.substr(8));
      } else if (f[0] == "link") {
        table->links.push_back(line.substr(5));
      } else if (f[0] == "process" && f.size() == names.size()) {
        for (std::size_t i = 1; i < f.size(); ++i) table->rows[f[1]][names[i]] = f[i];
      } else {
        return ::testing::AssertionFailure() << "unexpected line " << line;
      }
    }
  }

  // Asks `ps` until `done` holds for the table; fails at the deadline.
  template <typename Done>
  ::testing::AssertionResult PsUntil(Table* table, Done done) {
    std::int64_t deadline = platform::MonotonicMillis() + kWaitMs;
    while (platform::MonotonicMillis() < deadline) {
      auto r = Ps(table);
      if (!r) return r;
      if (done(*table)) return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "the table never came out as expected";
  }

  // Starts a trace and reads its header.
  ::testing::AssertionResult Trace(const std::string& filters) {
    if (!Send("trace" + (filters.empty() ? "" : " " + filters) + "\n")) {
      return ::testing::AssertionFailure() << "cannot ask";
    }
    std::string line;
    auto r = Line(&line);
    if (!r) return r;
    if (line != "trace\ttime\tsource\tdestination\tcategory\tsize\ttext") {
      return ::testing::AssertionFailure() << "trace header " << line;
    }
    return ::testing::AssertionSuccess();
  }

  // The next "packet" line as "SOURCE DESTINATION WORD TEXT"; checks the
  // time's form.
  ::testing::AssertionResult Packet(std::string* text) {
    std::string line;
    auto r = Line(&line);
    if (!r) return r;
    std::vector<std::string> f = SplitTabs(line);
    if (f.size() != 7 || f[0] != "packet" || !IsTimeOfDay(f[1])) {
      return ::testing::AssertionFailure() << "not a packet line: " << line;
    }
    *text = f[2] + " " + f[3] + " " + f[4] + " " + f[6];
    return ::testing::AssertionSuccess();
  }

  int fd() const { return fd_; }

 private:
  int fd_ = -1;
  PacketReader reader_;
};

class QuonControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = SocketPath("hub");
    ASSERT_TRUE(session_.Start(WithPath({"--control", path_})));
    ASSERT_TRUE(control_.Connect(path_));
    me_ = session_.address();
  }
  void TearDown() override { fs::remove(path_); }

  std::string path_;
  HubSession session_;
  Control control_;
  std::string me_;
};

TEST_F(QuonControlTest, ListsProcessesWithParentsStatesAndCounters) {
  HubSession& s = session_;
  std::string a = s.Invoke("qclient send quon STATUS \"BUSY loading\tthe model\" serve");
  ASSERT_FALSE(a.empty());
  Table t;
  ASSERT_TRUE(control_.PsUntil(&t, [&](Table& t) { return t.Field(a, "state") == "BUSY"; }));
  EXPECT_EQ(t.Field(me_, "program"), BRIDGE_BINARY);
  EXPECT_EQ(t.Field(me_, "parent"), "quon");
  EXPECT_EQ(t.Field(me_, "state"), "NEW");
  EXPECT_EQ(t.Field(me_, "in"), "1");   // INVOKE
  EXPECT_EQ(t.Field(me_, "out"), "1");  // ACCEPT
  EXPECT_EQ(t.Field(a, "program"), "qclient");
  EXPECT_EQ(t.Field(a, "parent"), me_);
  EXPECT_EQ(t.Field(a, "status"), "loading\\tthe model");
  EXPECT_EQ(t.Field(a, "in"), "1");
  EXPECT_EQ(t.Field(a, "out"), "0");
  EXPECT_EQ(t.Field(a, "wait_ms"), "-");

  // A command and its answers move the counters and the state; the status
  // text stays the last one reported.
  ASSERT_TRUE(s.Send(a, "CMD", "hi"));
  EXPECT_TRUE(s.Expect("ACK", a));
  EXPECT_TRUE(s.ExpectPayload("DONE", a, "echo:hi"));
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_EQ(t.Field(a, "in"), "3");
  EXPECT_EQ(t.Field(a, "out"), "1");
  EXPECT_EQ(t.Field(a, "state"), "IDLE");
  EXPECT_EQ(t.Field(a, "status"), "loading\\tthe model");
  EXPECT_EQ(t.Field(me_, "in"), "2");
  EXPECT_EQ(t.Field(me_, "out"), "3");

  // A program without the protocol: lines in, lines out.
  std::string p = s.Invoke("sh -c 'read l; echo got:$l; read l'", "INVOKER");
  ASSERT_TRUE(s.Send(p, "DATA", "x"));
  EXPECT_TRUE(s.ExpectPayload("DATA", p, "got:x"));
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_EQ(t.Field(p, "state"), "PROG");
  EXPECT_EQ(t.Field(p, "parent"), me_);
  EXPECT_EQ(t.Field(p, "in"), "1");
  EXPECT_EQ(t.Field(p, "out"), "1");
  EXPECT_TRUE(t.warnings.empty());

  ASSERT_TRUE(s.Send(p, "DATA", "bye"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", p, "exit 0"));
  ASSERT_TRUE(s.Send(a, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "killed"));
  ASSERT_TRUE(control_.PsUntil(&t, [&](Table& t) { return t.rows.size() == 1; }));
  EXPECT_EQ(s.Finish(), 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(path_)));
}

TEST_F(QuonControlTest, ShowsBytesQueuedTowardAClientThatStopsReading) {
  HubSession& s = session_;
  std::string r = s.Invoke("qclient stall count 3");
  ASSERT_TRUE(s.ExpectPayload("DATA", r, "stalled"));
  // More than its pipe takes, even grown: the rest waits in the hub.
  for (int i = 0; i < 3; ++i) {
    std::string payload = "0000000" + std::to_string(i);
    payload.resize(900000, 'x');
    ASSERT_TRUE(s.Send(r, "DATA", payload));
  }
  Table t;
  ASSERT_TRUE(control_.PsUntil(&t, [&](Table& t) {
    return std::atol(t.Field(r, "queued").c_str()) > 1000000 && t.Field(r, "out") == "3";
  }));
  EXPECT_EQ(t.Field(me_, "queued"), "0");

  platform::SignalProcess(PidOf(r), SIGUSR1, false);
  EXPECT_TRUE(s.ExpectPayload("DATA", r, "counted 3"));
  ASSERT_TRUE(control_.PsUntil(
      &t, [&](Table& t) { return t.rows.count(r) == 0 || t.Field(r, "queued") == "0"; }));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", r, "exit 0"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST_F(QuonControlTest, AgesAnUnansweredCommandUntilItIsAnswered) {
  HubSession& s = session_;
  std::string q = s.Invoke(
      "qclient send parent CMD work expect ACK parent expect DONE parent "
      "send parent DATA finished exit 0");
  ASSERT_TRUE(s.ExpectPayload("CMD", q, "work"));
  ASSERT_TRUE(s.Send(q, "ACK"));  // an ACK answers nothing

  Table t;
  ASSERT_TRUE(control_.PsUntil(&t, [&](Table& t) { return t.Field(me_, "out") == "2"; }));
  ASSERT_NE(t.Field(me_, "wait_ms"), "-");
  long first = std::atol(t.Field(me_, "wait_ms").c_str());
  EXPECT_EQ(t.Field(me_, "state"), "BUSY");
  EXPECT_EQ(t.Field(q, "wait_ms"), "-");
  ASSERT_TRUE(control_.PsUntil(
      &t, [&](Table& t) { return std::atol(t.Field(me_, "wait_ms").c_str()) >= first + 50; }));

  ASSERT_TRUE(s.Send(q, "DONE", "ok"));
  EXPECT_TRUE(s.ExpectPayload("DATA", q, "finished"));
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_EQ(t.Field(me_, "wait_ms"), "-");
  EXPECT_EQ(t.Field(me_, "state"), "IDLE");
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", q, "exit 0"));

  // A command whose sender died waits for nobody any more.
  std::string d = s.Invoke("qclient send parent CMD doomed expect ACK parent crash");
  ASSERT_TRUE(s.ExpectPayload("CMD", d, "doomed"));
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_NE(t.Field(me_, "wait_ms"), "-");
  ASSERT_TRUE(s.Send(d, "ACK"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", d, "signal 9"));
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_EQ(t.Field(me_, "wait_ms"), "-");
  EXPECT_EQ(s.Finish(), 0);
}

TEST_F(QuonControlTest, WarnsOfProcessesThatWaitOnEachOther) {
  HubSession& s = session_;
  std::string q = s.Invoke(
      "qclient expect CMD parent send parent ACK - send parent CMD back expect ACK parent "
      "expect DONE parent send parent DONE finished exit 0");
  Control tracer;
  ASSERT_TRUE(tracer.Connect(path_));
  ASSERT_TRUE(tracer.Trace("category=DONE"));  // the warning passes any filter

  ASSERT_TRUE(s.Send(q, "CMD", "go"));
  ASSERT_TRUE(s.Expect("ACK", q));
  ASSERT_TRUE(s.ExpectPayload("CMD", q, "back"));
  // Each holds a command of the other: the bridge (started first) waits on
  // q, q on the bridge.
  std::string line;
  ASSERT_TRUE(tracer.Line(&line));
  EXPECT_EQ(line, "warning\tcycle\t" + me_ + "\t" + q);
  Table t;
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_EQ(t.warnings, std::vector<std::string>{"cycle\t" + me_ + "\t" + q});
  std::string bridge = BRIDGE_BINARY "[" + std::to_string(PidOf(me_)) + "] " + me_;
  std::string qclient = "qclient[" + std::to_string(PidOf(q)) + "] " + q;
  EXPECT_TRUE(s.WaitLog("quon: processes wait on each other in a cycle: " + bridge + " -> " +
                        qclient + " -> " + bridge));

  // Answering one command breaks the cycle.
  ASSERT_TRUE(s.Send(q, "ACK"));
  ASSERT_TRUE(s.Send(q, "DONE", "back done"));
  EXPECT_TRUE(s.ExpectPayload("DONE", q, "finished"));
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_TRUE(t.warnings.empty());
  EXPECT_EQ(t.Field(me_, "wait_ms"), "-");
  std::string text;
  ASSERT_TRUE(tracer.Packet(&text));
  EXPECT_EQ(text, me_ + " " + q + " DONE back done");
  ASSERT_TRUE(tracer.Packet(&text));
  EXPECT_EQ(text, q + " " + me_ + " DONE finished");
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", q, "exit 0"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST_F(QuonControlTest, TracesRelayedPacketsFilteredByAddressAndCategory) {
  HubSession& s = session_;
  std::string q = s.Invoke("qclient serve");
  Control commands;
  Control around_q;
  ASSERT_TRUE(commands.Connect(path_));
  ASSERT_TRUE(around_q.Connect(path_));
  ASSERT_TRUE(commands.Trace("category=CMD"));
  ASSERT_TRUE(around_q.Trace(q));

  std::string odd = std::string("a\tb\\\n\x01", 6) + std::string(100, 'z');
  ASSERT_TRUE(s.Send(q, "CMD", odd));
  EXPECT_TRUE(s.Expect("ACK", q));
  EXPECT_TRUE(s.Expect("DONE", q));
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  EXPECT_TRUE(s.Expect("EDONE", "quon"));
  ASSERT_TRUE(s.Send(q, "DATA", "last"));
  EXPECT_TRUE(s.ExpectPayload("DATA", q, "last"));

  // Text escaped and cut to 64 bytes.
  std::string shown = "a\\tb\\\\\\n\\x01" + std::string(58, 'z') + "...";
  std::string text;
  ASSERT_TRUE(commands.Packet(&text));
  EXPECT_EQ(text, me_ + " " + q + " CMD " + shown);
  ASSERT_TRUE(commands.Packet(&text));
  EXPECT_EQ(text, me_ + " quon CMD list");

  std::vector<std::string> expected = {
      me_ + " " + q + " CMD " + shown,
      q + " " + me_ + " ACK ",
      q + " " + me_ + " DONE echo:a\\tb\\\\\\n\\x01" + std::string(53, 'z') + "...",
      me_ + " " + q + " DATA last",
      q + " " + me_ + " DATA last",
  };
  for (const std::string& want : expected) {
    ASSERT_TRUE(around_q.Packet(&text));
    EXPECT_EQ(text, want);
  }

  // The size field is the whole packet's.
  ASSERT_TRUE(s.Send(q, "DATA", "sized"));
  EXPECT_TRUE(s.ExpectPayload("DATA", q, "sized"));
  std::string line;
  ASSERT_TRUE(around_q.Line(&line));
  EXPECT_EQ(SplitTabs(line).at(5), std::to_string(BuildPacket(q, me_, "DATA", "sized").size()));

  ASSERT_TRUE(s.Send(q, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", q, "killed"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST_F(QuonControlTest, ControlClientsThatDoNotReadNeverHoldTheHubUp) {
  HubSession& s = session_;
  std::string q = s.Invoke("qclient serve");
  // One traces and never reads; one asks and asks and never reads.
  Control tracer;
  Control asker;
  ASSERT_TRUE(tracer.Connect(path_));
  ASSERT_TRUE(asker.Connect(path_));
  ASSERT_TRUE(tracer.Send("trace\n"));
  std::string requests;
  for (int i = 0; i < 20000; ++i) requests += "ps\n";
  asker.Send(requests);

  // Far more trace than the tracer's buffer and socket hold.
  std::string payload(200, 'd');
  for (int round = 0; round < 40; ++round) {
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(s.Send(q, "DATA", payload));
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(s.ExpectPayload("DATA", q, payload));
  }
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  EXPECT_TRUE(s.Expect("EDONE", "quon"));

  // The asker was disconnected; the tracer hears how much it missed.
  EXPECT_TRUE(asker.ReadToEnd());
  EXPECT_TRUE(s.WaitLog("control client does not read its answers, disconnected"));
  std::string line;
  long dropped = 0;
  while (dropped == 0) {
    ASSERT_TRUE(tracer.Line(&line));
    if (line.rfind("dropped\t", 0) == 0) dropped = std::atol(line.c_str() + 8);
  }
  EXPECT_GT(dropped, 0);
  // Still tracing once it reads again.
  ASSERT_TRUE(s.Send(q, "DATA", "after"));
  EXPECT_TRUE(s.ExpectPayload("DATA", q, "after"));
  std::string text;
  do {
    ASSERT_TRUE(tracer.Packet(&text));
  } while (text != q + " " + me_ + " DATA after");

  ASSERT_TRUE(s.Send(q, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", q, "killed"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST_F(QuonControlTest, AnswersABadRequestWithAnErrorAndStaysUsable) {
  std::string line;
  ASSERT_TRUE(control_.Send("frobnicate now\n"));
  ASSERT_TRUE(control_.Line(&line));
  EXPECT_EQ(line, "error\tunknown request: frobnicate");
  ASSERT_TRUE(control_.Send("ps all\r\n"));
  ASSERT_TRUE(control_.Line(&line));
  EXPECT_EQ(line, "error\tps takes no arguments");
  ASSERT_TRUE(control_.Send("trace category=SHOUT\n"));
  ASSERT_TRUE(control_.Line(&line));
  EXPECT_EQ(line, "error\tunknown category: SHOUT");
  ASSERT_TRUE(control_.Send(std::string(10000, 'x') + "\n\n"));
  ASSERT_TRUE(control_.Line(&line));
  EXPECT_EQ(line, "error\trequest line too long");
  // Answered once, and the next line is a request again.
  Table t;
  ASSERT_TRUE(control_.Ps(&t));
  EXPECT_EQ(t.rows.size(), 1u);
  EXPECT_EQ(t.Field(me_, "parent"), "quon");
  EXPECT_EQ(session_.Finish(), 0);
}

// The socket's default place, its mode, its removal, the sockets killed
// hubs left, and quonctl itself.
TEST(QuonControlSocketTest, DefaultSocketServesQuonctlAndGoesAwayWithTheHub) {
  std::string runtime = SocketPath("xdg");
  fs::remove_all(runtime);
  fs::create_directory(runtime);
  ASSERT_EQ(setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1), 0);
  // Sockets nobody listens on: one of a process that is gone, one of a
  // process that still runs (this one).
  std::string gone = runtime + "/quon-999999999.ctl";
  std::string running = runtime + "/quon-" + std::to_string(platform::ProcessId()) + ".ctl";
  for (const std::string& stale : {gone, running}) {
    platform::SocketFileId id;
    int error = 0;
    int fd = platform::ListenUnixSocket(stale, &id, &error);
    ASSERT_GE(fd, 0) << platform::ErrorText(error);
    platform::Close(fd);
  }
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string line;
  ASSERT_TRUE(s.WaitLog("quon: control endpoint ", &line));
  EXPECT_FALSE(fs::exists(fs::symlink_status(gone)));
  EXPECT_TRUE(fs::is_socket(running));
  std::string path = line.substr(line.find(" endpoint ") + 10);
  // Named after the hub: the bridge's parent.
  std::ifstream stat("/proc/" + std::to_string(PidOf(s.address())) + "/stat");
  std::string pid, name, state, ppid;
  stat >> pid >> name >> state >> ppid;
  EXPECT_EQ(path, runtime + "/quon-" + ppid + ".ctl");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_TRUE(fs::is_socket(path));

  // quonctl finds the one hub in the directory by itself.
  test_support::RunResult ps = test_support::RunProgram({QUONCTL_BINARY, "ps"}, "");
  EXPECT_EQ(ps.status, 0) << ps.err;
  EXPECT_EQ(ps.out.rfind("ADDRESS ", 0), 0u) << ps.out;
  EXPECT_NE(ps.out.find("\n" + s.address() + "  "), std::string::npos) << ps.out;
  test_support::RunResult watch =
      test_support::RunProgram({QUONCTL_BINARY, "--control", path, "watch", "--count", "2"}, "");
  EXPECT_EQ(watch.status, 0) << watch.err;
  std::size_t first = watch.out.find("\x1b[H\x1b[2J");
  EXPECT_EQ(first, 0u);
  EXPECT_NE(watch.out.find("\x1b[H\x1b[2J", first + 1), std::string::npos);
  test_support::RunResult bad = test_support::RunProgram(
      {QUONCTL_BINARY, "--control", path, "trace", "--category", "NO"}, "");
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "quonctl: unknown category: NO\n");

  // A second hub cannot take a socket that is in use.
  EXPECT_EQ(RunHub({"--control", path, "--path", QclientDir(), "qclient", "exit", "0"}), 1);
  EXPECT_TRUE(fs::is_socket(path));

  EXPECT_EQ(s.Finish(), 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(path)));
  fs::remove_all(runtime);
}

TEST(QuonControlSocketTest, ReplacesTheSocketOfAHubThatIsGoneAndNothingElse) {
  std::string path = SocketPath("stale");
  platform::SocketFileId id;
  int error = 0;
  int fd = platform::ListenUnixSocket(path, &id, &error);
  ASSERT_GE(fd, 0) << platform::ErrorText(error);
  platform::Close(fd);  // the file stays, and nobody listens on it
  EXPECT_EQ(RunHub({"--control", path, "--path", QclientDir(), "qclient", "exit", "0"}), 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(path)));

  std::ofstream(path) << "not a socket";
  EXPECT_EQ(RunHub({"--control", path, "--path", QclientDir(), "qclient", "exit", "0"}), 1);
  EXPECT_TRUE(fs::is_regular_file(path));
  fs::remove(path);
}

// A listener that accepts nothing: once its backlog is full, neither the
// check for a live socket nor a tool that connects waits for it for good.
TEST(QuonControlSocketTest, AFullBacklogHoldsNoProbeAndNoTool) {
  std::string path = SocketPath("full");
  platform::SocketFileId id;
  int error = 0;
  int listener = platform::ListenUnixSocket(path, &id, &error);
  ASSERT_GE(listener, 0) << platform::ErrorText(error);
  std::vector<int> connected;
  for (int i = 0; i < 64; ++i) {
    int fd = platform::ConnectUnixSocket(path, &error);
    if (fd < 0) break;
    connected.push_back(fd);
  }
  EXPECT_EQ(error, EAGAIN) << platform::ErrorText(error);
  EXPECT_FALSE(platform::RemoveStaleSocket(path));
  EXPECT_EQ(platform::ListenUnixSocket(path, &id, &error), -1);
  EXPECT_EQ(error, EADDRINUSE);
  test_support::RunResult ps =
      test_support::RunProgram({QUONCTL_BINARY, "--control", path, "ps"}, "");
  EXPECT_NE(ps.status, 0);
  for (int fd : connected) platform::Close(fd);
  platform::Close(listener);
  platform::RemoveSocketFile(path, id);
}

TEST_F(QuonControlTest, ShowsLinkedPairsWhileBothLive) {
  HubSession& s = session_;
  // A pair that sets up a link by hand: the client asks, and is ready.
  std::string q = s.Invoke("qclient send quon PING \"link want " + me_ +
                           "\" expect PING quon send quon PING \"link ready " + me_ +
                           " ok\" expect PING quon expect KILL parent exit 0");
  ASSERT_FALSE(q.empty());
  ASSERT_TRUE(s.Send("quon", "PING", "link want " + q));
  ASSERT_TRUE(s.Expect("PING", "quon"));  // link open
  ASSERT_TRUE(s.Send("quon", "PING", "link ready " + q + " ok"));
  ASSERT_TRUE(s.Expect("PING", "quon"));  // link go
  Table table;
  ASSERT_TRUE(control_.Ps(&table));
  EXPECT_EQ(table.links, std::vector<std::string>{me_ + "\t" + q});
  std::string screen = test_support::RunProgram({QUONCTL_BINARY, "--control", path_, "ps"}, "").out;
  EXPECT_NE(screen.find("linked: " + me_ + " <-> " + q), std::string::npos) << screen;

  // Once one of them ended the line goes.
  ASSERT_TRUE(s.Send(q, "KILL"));
  ASSERT_TRUE(s.ExpectPayload("SRVR_ERR", q, "exit 0"));
  ASSERT_TRUE(control_.Ps(&table));
  EXPECT_TRUE(table.links.empty());
}

TEST_F(QuonControlTest, WhatATracerSendsIsIgnoredEvenAnOverlongLine) {
  HubSession& s = session_;
  ASSERT_TRUE(control_.Trace("category=CMD"));
  // Past the request line limit and without a line feed, then a request:
  // neither is answered, the trace goes on.
  ASSERT_TRUE(control_.Send(std::string(3 * quon::ControlEndpoint::kMaxRequestLine, 'x')));
  ASSERT_TRUE(control_.Send("\nps\n"));
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  EXPECT_TRUE(s.Expect("EDONE", "quon"));
  std::string text;
  ASSERT_TRUE(control_.Packet(&text));
  EXPECT_EQ(text, me_ + " quon CMD list");
}

}  // namespace
}  // namespace varn::quon_test
