// The hub as its clients see it: real quon, real pipes and sockets, and
// the bytes that come back.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

#include "platform/spawn.h"
#include "tests/quon/hub_session.h"

namespace varn::quon_test {
namespace {

namespace fs = std::filesystem;

const char kProcessQuery[] = "NULL@NULL NULL NULL AllProcess ByName";

std::vector<std::string> WithPath(std::vector<std::string> options) {
  options.insert(options.end(), {"--path", QclientDir()});
  return options;
}

int PidOf(const std::string& address) { return std::stoi(address.substr(0, address.find('@'))); }

// A packet body framed by hand, for input the wire module would not build.
std::string Frame(std::string body) {
  while ((6 + body.size()) % 4 != 0) body.push_back('\0');
  char len[8];
  std::snprintf(len, sizeof len, "%06zu", body.size());
  return len + body;
}

class QuonHubTest : public ::testing::TestWithParam<bool> {
 protected:
  std::vector<std::string> Options(std::vector<std::string> extra = {}) {
    if (GetParam()) extra.push_back("--sockets");
    return WithPath(extra);
  }
};

INSTANTIATE_TEST_SUITE_P(Channel, QuonHubTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Sockets" : "Pipes"; });

TEST_P(QuonHubTest, StartsClientsWithTheirOptionsAndAnnouncesTheirExit) {
  HubSession s;
  ASSERT_TRUE(s.Start(Options()));
  // Settle first: once the hub has answered a request it has finished
  // setting up its first client, and its descriptors stay as they are.
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  RawPacket listed;
  ASSERT_TRUE(s.Expect("EDONE", "quon", &listed));
  std::vector<std::string> fds_before = s.HubFds();

  std::string a = s.Invoke("qclient args fds cwd send parent DATA \"two  words\" exit 0");
  ASSERT_FALSE(a.empty());
  EXPECT_EQ(a, std::to_string(PidOf(a)) + "@" + s.host());
  std::string channel = GetParam() ? "-quon_sockfd|3" : "-quon_quonin|3|-quon_quonout|4";
  EXPECT_TRUE(s.ExpectPayload("DATA", a,
                              "qclient|args|fds|cwd|send|parent|DATA|two  words|exit|0|"
                              "-quon_parentid|" +
                                  s.address() + "|-quon_parentname|" BRIDGE_BINARY "|" + channel));
  // Only the standard descriptors and the channel reach the client.
  EXPECT_TRUE(s.ExpectPayload("DATA", a, GetParam() ? "fds 0 1 2 3" : "fds 0 1 2 3 4"));
  EXPECT_TRUE(s.ExpectPayload("DATA", a, "cwd " + fs::current_path().string()));
  EXPECT_TRUE(s.ExpectPayload("DATA", a, "two  words"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "exit 0"));
  // Reaped before it was announced, and nothing of it stays open in the hub.
  EXPECT_FALSE(fs::exists("/proc/" + std::to_string(PidOf(a))));
  EXPECT_EQ(s.HubFds(), fds_before);

  // A quoted working directory with a blank in it.
  std::string dir = TempDir("dir") + "/with blank";
  fs::create_directories(dir);
  ASSERT_TRUE(s.Send("quon", "INVOKE", "\"" + dir + "\" qclient cwd exit 3"));
  RawPacket accept;
  ASSERT_TRUE(s.Expect("ACCEPT", "quon", &accept));
  EXPECT_TRUE(s.ExpectPayload("DATA", accept.payload, "cwd " + dir));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", accept.payload, "exit 3"));
  fs::remove_all(fs::path(dir).parent_path());

  EXPECT_EQ(s.Finish(), 0);
}

TEST_P(QuonHubTest, RelaysBetweenClientsAndTellsPeersOfAnExit) {
  HubSession s;
  ASSERT_TRUE(s.Start(Options()));
  std::string b = s.Invoke("qclient serve");
  ASSERT_FALSE(b.empty());
  ASSERT_TRUE(s.Send(b, "CMD", "hi"));
  EXPECT_TRUE(s.Expect("ACK", b));
  EXPECT_TRUE(s.ExpectPayload("DONE", b, "echo:hi"));

  // Client to client; when A ends, its parent and its peer B both hear of it.
  std::string a = s.Invoke("qclient send " + b + " CMD ping expect ACK " + b + " expect DONE " + b +
                           " send parent DATA done notice bye");
  ASSERT_FALSE(a.empty());
  EXPECT_TRUE(s.ExpectPayload("DATA", a, "done"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "bye"));
  EXPECT_TRUE(s.ExpectPayload("DATA", b, "srvr_err " + a + " bye"));

  // A large packet passes unchanged.
  std::string big(300000, 'z');
  ASSERT_TRUE(s.Send(b, "DATA", big));
  EXPECT_TRUE(s.ExpectPayload("DATA", b, big));

  ASSERT_TRUE(s.Send(b, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", b, "killed"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST_P(QuonHubTest, ServesFilesUnderTheRootOnly) {
  std::string root = TempDir(GetParam() ? "files-s" : "files-p");
  fs::create_symlink("/etc/hostname", root + "/link");
  HubSession s;
  ASSERT_TRUE(s.Start(Options({"--files-root", root})));
  RawPacket p;

  ASSERT_TRUE(s.Send("quon", "FOPEN", "notes.txt WRITE TEXT"));
  ASSERT_TRUE(s.Expect("FACK", "quon", &p));
  std::string w = p.payload;
  ASSERT_TRUE(s.Send("quon", "FWRITE", w + " 7 " + std::string("he\0llo!", 7) + "ign"));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "7"));
  ASSERT_TRUE(s.Send("quon", "FCLOSE", w));
  EXPECT_TRUE(s.Expect("FACK", "quon"));
  std::ifstream written(root + "/notes.txt", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), std::string("he\0llo!", 7));

  ASSERT_TRUE(s.Send("quon", "FOPEN", "notes.txt READ BINARY"));
  ASSERT_TRUE(s.Expect("FACK", "quon", &p));
  std::string r = p.payload;
  EXPECT_NE(r, w);
  ASSERT_TRUE(s.Send("quon", "FSEEK", r + " 3 0"));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "3"));
  ASSERT_TRUE(s.Send("quon", "FREAD", r + " 2"));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "ll"));
  ASSERT_TRUE(s.Send("quon", "FTELL", r));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "5"));
  ASSERT_TRUE(s.Send("quon", "FEOF", r));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "0"));
  ASSERT_TRUE(s.Send("quon", "FREAD", r + " 100"));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "o!"));
  ASSERT_TRUE(s.Send("quon", "FREAD", r + " 100"));
  EXPECT_TRUE(s.ExpectPayload("FNAK", "quon", "0"));
  ASSERT_TRUE(s.Send("quon", "FEOF", r));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "1"));
  ASSERT_TRUE(s.Send("quon", "FREWIND", r));
  EXPECT_TRUE(s.Expect("FACK", "quon"));
  ASSERT_TRUE(s.Send("quon", "FREAD", r + " 2"));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "he"));
  ASSERT_TRUE(s.Send("quon", "FWRITE", r + " 1 x"));
  EXPECT_TRUE(s.Expect("FNAK", "quon"));  // opened for reading

  ASSERT_TRUE(s.Send("quon", "FSTAT", "notes.txt"));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "2"));
  ASSERT_TRUE(s.Send("quon", "FSTAT", "."));
  EXPECT_TRUE(s.ExpectPayload("FACK", "quon", "1"));
  ASSERT_TRUE(s.Send("quon", "FSTAT", "missing"));
  EXPECT_TRUE(s.ExpectPayload("FNAK", "quon", "No such file or directory"));
  ASSERT_TRUE(s.Send("quon", "FUNLINK", root + "/notes.txt"));
  EXPECT_TRUE(s.Expect("FACK", "quon"));
  EXPECT_FALSE(fs::exists(root + "/notes.txt"));

  // Ways out of the root are refused; deleting a link removes only the link.
  for (const char* path : {"../escape WRITE TEXT", "link READ TEXT", "/etc/hostname READ TEXT"}) {
    ASSERT_TRUE(s.Send("quon", "FOPEN", path));
    EXPECT_TRUE(s.ExpectPayload("FNAK", "quon", "outside the files root")) << path;
  }
  ASSERT_TRUE(s.Send("quon", "FSTAT", "/"));
  EXPECT_TRUE(s.ExpectPayload("FNAK", "quon", "outside the files root"));
  ASSERT_TRUE(s.Send("quon", "FUNLINK", "link"));
  EXPECT_TRUE(s.Expect("FACK", "quon"));
  EXPECT_FALSE(fs::is_symlink(root + "/link"));
  EXPECT_TRUE(fs::exists("/etc/hostname"));

  ASSERT_TRUE(s.Send("quon", "FREAD", "99 10"));
  EXPECT_TRUE(s.ExpectPayload("FNAK", "quon", "bad file number"));
  ASSERT_TRUE(s.Send("quon", "FOPEN", "x SIDEWAYS TEXT"));
  EXPECT_TRUE(s.ExpectPayload("FNAK", "quon", "bad file mode"));

  // A client's open files close when it ends.
  std::vector<std::string> fds_before = s.HubFds();
  std::string a = s.Invoke("qclient send quon FOPEN \"kept WRITE TEXT\" expect FACK quon exit 0");
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "exit 0"));
  EXPECT_EQ(s.HubFds(), fds_before);
  EXPECT_EQ(s.Finish(), 0);
  fs::remove_all(root);
}

TEST(QuonHubStartTest, RefusesWhatItCannotStart) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string cwd = fs::current_path().string();
  ASSERT_TRUE(s.Send("quon", "INVOKE", cwd + " no-such-program"));
  EXPECT_TRUE(s.ExpectPayload("REJECT", "quon", "program not found: no-such-program"));
  // The asynchronous start is answered from the command word.
  ASSERT_TRUE(s.Send("quon", "INVOKE_EX", cwd + " no-such-program -x"));
  EXPECT_TRUE(s.ExpectPayload("REJECT", "no-such-program", "program not found: no-such-program"));
  ASSERT_TRUE(s.Send("quon", "INVOKE_EX", cwd + " elsewhere:qclient"));
  EXPECT_TRUE(s.ExpectPayload("REJECT", "elsewhere:qclient", "unknown host elsewhere"));
  ASSERT_TRUE(s.Send("quon", "INVOKE", "/no/such/dir qclient"));
  EXPECT_TRUE(s.ExpectPayload("REJECT", "quon",
                              "cannot enter directory /no/such/dir: No such file or directory"));
  ASSERT_TRUE(s.Send("quon", "INVOKE", cwd + " qclient 'open"));
  EXPECT_TRUE(s.ExpectPayload("REJECT", "quon", "unterminated single quote in arguments"));
  // A file that is executable but no program: exec itself fails.
  std::string dir = TempDir("noexec");
  {
    std::ofstream(dir + "/junk") << "\x7f"
                                    "ELF garbage";
  }
  fs::permissions(dir + "/junk", fs::perms::owner_all);
  ASSERT_TRUE(s.Send("quon", "INVOKE", cwd + " " + dir + "/junk"));
  RawPacket p;
  ASSERT_TRUE(s.Expect("REJECT", "quon", &p));
  EXPECT_EQ(p.payload.rfind("cannot start " + dir + "/junk: ", 0), 0u) << p.payload;

  std::string ex = "INVOKE_EX";
  ASSERT_TRUE(s.Send("quon", ex, cwd + " " + s.host() + ":qclient exit 0"));
  ASSERT_TRUE(s.Expect("ACCEPT", s.host() + ":qclient", &p));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", p.payload, "exit 0"));
  EXPECT_EQ(s.Finish(), 0);
  fs::remove_all(dir);
}

TEST(QuonHubExitTest, AnnouncesCrashesAndAnswersForTheDead) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string a = s.Invoke("qclient crash");
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "signal 9"));

  std::string b = s.Invoke("qclient stall");
  EXPECT_TRUE(s.ExpectPayload("DATA", b, "stalled"));
  platform::SignalProcess(PidOf(b), SIGKILL, false);
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", b, "signal 9"));

  // Requests to an address that is gone are answered for it; answers to it
  // are dropped (the QUERYP comes next, not a reply to the ACK).
  ASSERT_TRUE(s.Send(b, "CMD", "anyone?"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", b, "not running"));
  ASSERT_TRUE(s.Send("1@nowhere", "STATUS?"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", "1@nowhere", "not running"));
  ASSERT_TRUE(s.Send(b, "ACK"));
  ASSERT_TRUE(s.Send("quon", "QUERYP?", kProcessQuery));
  EXPECT_TRUE(s.Expect("QUERYP", "quon"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubExitTest, ExitsWithTheFirstClientsStatus) {
  auto dir = QclientDir();
  EXPECT_EQ(RunHub({"--path", dir, "qclient", "exit", "7"}), 7);
  EXPECT_EQ(RunHub({"--path", dir, "--sockets", "qclient", "crash"}), 128 + SIGKILL);
  EXPECT_EQ(RunHub({"--path", dir, "no-such-program"}), 127);
  EXPECT_EQ(RunHub({"--bogus", "qclient"}), 2);
  EXPECT_EQ(RunHub({"--help"}), 0);
}

TEST(QuonHubExitTest, EndsEveryClientOnSigterm) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({"--grace", "2000"})));
  std::string a = s.Invoke("qclient serve");
  std::string b = s.Invoke("qclient send parent DATA ready ignore");
  ASSERT_TRUE(s.ExpectPayload("DATA", b, "ready"));
  s.Signal(SIGTERM);
  ASSERT_TRUE(s.Expect("KILL", "quon"));
  // A ends politely.
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "killed"));
  // Say goodbye the way a library client does, then end.
  ASSERT_TRUE(s.Send("quon", "SRVR_ERR", "bye"));
  ASSERT_TRUE(s.Expect("ACK", "quon"));
  EXPECT_EQ(s.Finish(), 0);
  // B ignored KILL and was killed once the grace time was over.
  std::string b_name = "qclient[" + std::to_string(PidOf(b)) + "]";
  EXPECT_TRUE(s.WaitLog(b_name + " did not end in time, killed"));
  EXPECT_TRUE(s.WaitLog(b_name + " " + b + " ended: signal 9"));
}

TEST(QuonHubRequestTest, ListsProcessesAndFindsServers) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string a = s.Invoke("qclient send quon STATUS IDLE send parent DATA ready serve");
  ASSERT_TRUE(s.ExpectPayload("DATA", a, "ready"));
  ASSERT_TRUE(s.Send("quon", "QUERYP?", kProcessQuery));
  EXPECT_TRUE(s.ExpectPayload("QUERYP", "quon",
                              BRIDGE_BINARY " " + s.address() + " quon@" + s.host() +
                                  " 1 qclient " + a + " " + s.address() + " 0"));
  ASSERT_TRUE(s.Send("quon", "QUERY?", s.address() + ":qclient"));
  EXPECT_TRUE(s.ExpectPayload("QUERY", "quon", a));
  ASSERT_TRUE(s.Send("quon", "QUERY?", "qclient"));
  EXPECT_TRUE(s.ExpectPayload("QUERY", "quon", a));
  RawPacket p;
  ASSERT_TRUE(s.Send("quon", "QUERY?", s.address() + ":nothing"));
  ASSERT_TRUE(s.Expect("QUERY", "quon", &p));
  EXPECT_EQ(p.payload, "");  // no payload: at most padding

  // Hub commands are answered with EDONE/EERROR only, never with ACK.
  ASSERT_TRUE(s.Send("quon", "CMD", "set_chan_mode 1"));
  EXPECT_TRUE(s.ExpectPayload("EDONE", "quon", ""));
  ASSERT_TRUE(s.Send("quon", "CMD", "set_chan_mode fast"));
  EXPECT_TRUE(s.ExpectPayload("EERROR", "quon", "set_chan_mode needs a number"));
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  ASSERT_TRUE(s.Expect("EDONE", "quon", &p));
  EXPECT_NE(p.payload.find(" qclient " + a + " "), std::string::npos) << p.payload;
  ASSERT_TRUE(s.Send("quon", "CMD", "reboot"));
  EXPECT_TRUE(s.ExpectPayload("EERROR", "quon", "unknown command"));

  // NOTIFY goes to every other client, from "quon"; not back to its sender.
  ASSERT_TRUE(s.Send("quon", "NOTIFY", "reinvoke 1@x 2@x"));
  EXPECT_TRUE(s.ExpectPayload("DATA", a, "notify quon reinvoke 1@x 2@x"));

  ASSERT_TRUE(s.Send(a, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "killed"));
  ASSERT_TRUE(s.Send("quon", "QUERYP?", kProcessQuery));
  EXPECT_TRUE(s.ExpectPayload("QUERYP", "quon",
                              BRIDGE_BINARY " " + s.address() + " quon@" + s.host() + " 1"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubRequestTest, LogsErrorLinesAndTracesPackets) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({"--trace", "--sockets"})));
  std::string pid = std::to_string(PidOf(s.address()));
  ASSERT_TRUE(s.Send("quon", "STDERR", "something odd"));
  EXPECT_TRUE(s.WaitLog(" " + s.address() + " -> quon STDERR "));
  EXPECT_TRUE(s.WaitLog("bridge[" + pid + "]: something odd"));
  // Pipe-mode error output is the hub's own error output.
  std::string a = s.Invoke("qclient stderr \"plain line\" exit 0");
  EXPECT_TRUE(s.WaitLog("plain line"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "exit 0"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubProgramTest, RunsProgramsThatDoNotSpeakTheProtocol) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string p = s.Invoke("sh -c 'read line; echo got:$line; echo tail'", "INVOKER");
  ASSERT_FALSE(p.empty());
  ASSERT_TRUE(s.Send(p, "DATA", "hello"));
  EXPECT_TRUE(s.ExpectPayload("DATA", p, "got:hello"));
  EXPECT_TRUE(s.ExpectPayload("DATA", p, "tail"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", p, "exit 0"));

  p = s.Invoke("sh -c 'echo oops >&2; exit 2'", "INVOKERE");
  EXPECT_TRUE(s.ExpectPayload("DATA", p, "oops"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", p, "exit 2"));

  p = s.Invoke("sh -c 'echo quiet; exit 0'", "INVOKERN");
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", p, "exit 0"));

  p = s.Invoke("sh -c 'trap \"echo caught; exit 7\" INT; echo ready; while :; do sleep 1; done'",
               "INVOKER");
  ASSERT_TRUE(s.ExpectPayload("DATA", p, "ready"));
  ASSERT_TRUE(s.Send(p, "CMD", "run"));
  EXPECT_TRUE(s.ExpectPayload("NAK", p, "not a protocol program"));
  ASSERT_TRUE(s.Send("quon", "QUERYP?", kProcessQuery));
  RawPacket list;
  ASSERT_TRUE(s.Expect("QUERYP", "quon", &list));
  EXPECT_EQ(list.payload.find(p), std::string::npos);
  ASSERT_TRUE(s.Send(p, "INTR"));
  EXPECT_TRUE(s.ExpectPayload("DATA", p, "caught"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", p, "exit 7"));

  p = s.Invoke("sleep 60", "INVOKER");
  ASSERT_TRUE(s.Send(p, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", p, "signal 15"));
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubFlowTest, KeepsServingWhileAReaderStallsAndLosesNothing) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({"--queue-limit", "65536"})));
  constexpr int kPackets = 2000;  // 8 MB: far more than the pipes and the queue hold
  std::string r = s.Invoke("qclient stall count " + std::to_string(kPackets));
  ASSERT_TRUE(s.ExpectPayload("DATA", r, "stalled"));
  std::string f = s.Invoke("qclient flood " + r + " " + std::to_string(kPackets) + " 4096");
  ASSERT_FALSE(f.empty());

  // The hub answers this client while the flooder waits for the reader.
  bool flooder_paused = false;
  while (!flooder_paused) {
    ASSERT_TRUE(s.Send("quon", "CMD", "queues"));
    RawPacket p;
    ASSERT_TRUE(s.Expect("EDONE", "quon", &p));  // "flooded" would fail this
    flooder_paused = p.payload.find(f + " 0 paused") != std::string::npos;
    if (flooder_paused) {
      std::size_t at = p.payload.find(r + " ");
      ASSERT_NE(at, std::string::npos);
      EXPECT_GT(std::stol(p.payload.substr(at + r.size() + 1)), 65536);
    }
  }
  ASSERT_TRUE(s.Send("quon", "QUERYP?", kProcessQuery));
  EXPECT_TRUE(s.Expect("QUERYP", "quon"));

  platform::SignalProcess(PidOf(r), SIGUSR1, false);
  // Both finish; the order between the two clients is theirs.
  std::set<std::string> done;
  while (done.size() < 4) {
    RawPacket p;
    ASSERT_TRUE(s.Next(&p));
    done.insert(p.word + " " + p.source + " " + p.payload);
  }
  std::string n = std::to_string(kPackets);
  EXPECT_EQ(done,
            (std::set<std::string>{"DATA " + r + " counted " + n, "DATA " + f + " flooded " + n,
                                   "SRVR_ERR " + r + " exit 0", "SRVR_ERR " + f + " exit 0"}));
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubInputTest, DropsBadInputAndDisconnectsAClientThatKeepsSendingIt) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string pid = std::to_string(PidOf(s.address()));
  ASSERT_TRUE(s.SendBytes("hello, hub!\n"));
  EXPECT_TRUE(s.WaitLog("[" + pid + "]: bad packet dropped: length field is not six digits"));
  ASSERT_TRUE(s.SendBytes(Frame("quon")));
  EXPECT_TRUE(s.WaitLog("bad packet dropped: fewer than three header tokens"));
  ASSERT_TRUE(s.SendBytes(Frame("quon " + s.address() + " SHOUT loud")));
  EXPECT_TRUE(s.WaitLog("bad packet dropped: unknown category word \"SHOUT\""));
  ASSERT_TRUE(s.SendBytes("999999" + std::string(999999, 'a')));
  EXPECT_TRUE(s.WaitLog("bad packet dropped: packet of 1000005 bytes is over the size limit"));
  // Framing picks up again right after the skipped packet.
  ASSERT_TRUE(s.Send("quon", "QUERYP?", kProcessQuery));
  EXPECT_TRUE(s.Expect("QUERYP", "quon"));

  std::string g = s.Invoke("qclient garbage 10 expect ACK quon");
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", g, "disconnected: bad input"));
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  EXPECT_TRUE(s.ExpectPayload("EDONE", "quon",
                              BRIDGE_BINARY " " + s.address() + " quon@" + s.host() + " 1"));
  EXPECT_EQ(s.Finish(), 0);
}

}  // namespace
}  // namespace varn::quon_test
