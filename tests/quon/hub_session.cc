#include "tests/quon/hub_session.h"

#include <algorithm>
#include <filesystem>

#include "platform/io.h"

namespace varn::quon_test {
namespace {

std::string Describe(const Packet& p) {
  return p.destination + " " + p.source + " " + p.word + " [" + p.payload + "]";
}

}  // namespace

HubSession::~HubSession() {
  platform::Close(to_bridge_);
  platform::Close(from_bridge_);
  platform::Close(log_);
}

::testing::AssertionResult HubSession::Start(const std::vector<std::string>& options) {
  int in[2], out[2], err[2];
  if (!platform::CreatePipe(in) || !platform::CreatePipe(out) || !platform::CreatePipe(err)) {
    return ::testing::AssertionFailure() << "pipes";
  }
  platform::SpawnRequest r;
  r.program = QUON_BINARY;
  r.argv.push_back("quon");
  r.argv.insert(r.argv.end(), options.begin(), options.end());
  r.argv.push_back(BRIDGE_BINARY);
  r.fds = {{in[0], 0}, {out[1], 1}, {err[1], 2}};
  bool started = hub_.Start(r);
  platform::Close(in[0]);
  platform::Close(out[1]);
  platform::Close(err[1]);
  to_bridge_ = in[1];
  from_bridge_ = out[0];
  log_ = err[0];
  packets_ = PacketReader(from_bridge_);
  log_lines_ = PacketReader(log_);
  if (!started) return ::testing::AssertionFailure() << hub_.error();
  std::string line;
  if (packets_.ReadLine(kWaitMs, &line) != PacketReader::Result::kOk ||
      line.compare(0, 5, "ADDR ") != 0) {
    return ::testing::AssertionFailure() << "no address from the bridge: " << line;
  }
  address_ = line.substr(5);
  host_ = address_.substr(address_.find('@') + 1);
  return ::testing::AssertionSuccess();
}

bool HubSession::Send(const std::string& destination, const std::string& word,
                      const std::string& payload) {
  return test_support::WritePacket(to_bridge_, destination, address_, word, payload);
}

bool HubSession::SendBytes(const std::string& bytes) {
  return platform::WriteAll(to_bridge_, bytes.data(), bytes.size());
}

::testing::AssertionResult HubSession::Next(Packet* packet, int timeout_ms) {
  switch (packets_.Read(timeout_ms, packet)) {
    case PacketReader::Result::kOk:
      return ::testing::AssertionSuccess();
    case PacketReader::Result::kTimeout:
      return ::testing::AssertionFailure() << "no packet within " << timeout_ms << " ms";
    case PacketReader::Result::kEnd:
      return ::testing::AssertionFailure() << "the bridge ended";
    case PacketReader::Result::kBad:
      break;
  }
  return ::testing::AssertionFailure() << "bad packet";
}

::testing::AssertionResult HubSession::Expect(const std::string& word, const std::string& source,
                                              Packet* packet) {
  Packet p;
  auto r = Next(&p);
  if (!r) return r << " (expected " << word << ")";
  if (p.word != word || (!source.empty() && p.source != source) || p.destination != address_) {
    return ::testing::AssertionFailure()
           << "expected " << word << " from " << source << ", got " << Describe(p);
  }
  if (packet != nullptr) *packet = p;
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult HubSession::ExpectPayload(const std::string& word,
                                                     const std::string& source,
                                                     const std::string& payload) {
  Packet p;
  auto r = Expect(word, source, &p);
  if (!r) return r;
  if (p.payload != payload) {
    return ::testing::AssertionFailure()
           << "expected payload [" << payload << "], got " << Describe(p);
  }
  return ::testing::AssertionSuccess();
}

std::string HubSession::Invoke(const std::string& command_and_args, const std::string& word) {
  std::string cwd = std::filesystem::current_path().string();
  if (!Send("quon", word, cwd + " " + command_and_args)) return "";
  Packet p;
  auto r = Expect("ACCEPT", "quon", &p);
  EXPECT_TRUE(r) << "starting " << command_and_args;
  return r ? p.payload : "";
}

::testing::AssertionResult HubSession::WaitLog(const std::string& text, std::string* line) {
  std::string l;
  for (;;) {
    if (log_lines_.ReadLine(kWaitMs, &l) != PacketReader::Result::kOk) {
      return ::testing::AssertionFailure() << "log line with \"" << text << "\" never came";
    }
    if (l.find(text) != std::string::npos) {
      if (line != nullptr) *line = l;
      return ::testing::AssertionSuccess();
    }
  }
}

void HubSession::Signal(int signo) { hub_.Signal(signo); }

int HubSession::WaitExit(int timeout_ms) { return hub_.Wait(timeout_ms); }

int HubSession::Finish(int timeout_ms) {
  platform::Close(to_bridge_);
  to_bridge_ = -1;
  return WaitExit(timeout_ms);
}

std::vector<std::string> HubSession::HubFds() const {
  std::vector<std::string> fds;
  std::error_code ec;
  auto dir = "/proc/" + std::to_string(hub_.pid()) + "/fd";
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    fds.push_back(e.path().filename().string());
  }
  std::sort(fds.begin(), fds.end());
  return fds;
}

int RunHub(const std::vector<std::string>& args, int timeout_ms) {
  std::vector<std::string> argv = {QUON_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return test_support::RunProgram(argv, "", "", timeout_ms).status;
}

std::string QclientDir() { return std::filesystem::path(QCLIENT_BINARY).parent_path().string(); }

}  // namespace varn::quon_test
