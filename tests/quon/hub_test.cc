// The hub as its clients see it: real quon, real pipes and sockets, and
// the bytes that come back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "platform/io.h"
#include "platform/spawn.h"
#include "tests/quon/hub_session.h"
#include "tests/support/output.h"
#include "transport/wire_requests.h"

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

// One request to the hub and its answer as "WORD payload".
std::string Ask(HubSession& s, const std::string& word, const std::string& payload) {
  Packet p;
  if (!s.Send("quon", word, payload)) return "not sent";
  auto r = s.Next(&p);
  if (!r) return r.message();
  return p.word + " " + p.payload;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
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
  Packet listed;
  ASSERT_TRUE(s.Expect("EDONE", "quon", &listed));
  std::vector<std::string> fds_before = s.HubFds();

  std::string a = s.Invoke("qclient args fds cwd send parent DATA \"two  words\" exit 0");
  ASSERT_FALSE(a.empty());
  EXPECT_EQ(a, std::to_string(PidOf(a)) + "@" + s.host());
  std::string channel = GetParam() ? "-quon_sockfd|3" : "-quon_quonin|3|-quon_quonout|4";
  EXPECT_TRUE(s.ExpectPayload("DATA", a,
                              "qclient|args|fds|cwd|send|parent|DATA|two  words|exit|0|"
                              "-quon_parentid|" +
                                  s.address() + "|-quon_parentname|" BRIDGE_BINARY "|-quon_links|" +
                                  channel));
  // Only the standard descriptors and the channel reach the client.
  EXPECT_TRUE(s.ExpectPayload("DATA", a, GetParam() ? "fds 0 1 2 3" : "fds 0 1 2 3 4"));
  EXPECT_TRUE(s.ExpectPayload("DATA", a, "cwd " + fs::current_path().string()));
  EXPECT_TRUE(s.ExpectPayload("DATA", a, "two  words"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", a, "exit 0"));
  // Reaped before it was announced, and nothing of it stays open in the hub.
  EXPECT_FALSE(fs::exists("/proc/" + std::to_string(PidOf(a))));
  EXPECT_EQ(s.HubFds(), fds_before);

  // A quoted working directory with a blank in it.
  std::string dir = test_support::TestOutputDir("dir") + "/with blank";
  fs::create_directories(dir);
  ASSERT_TRUE(s.Send("quon", "INVOKE", "\"" + dir + "\" qclient cwd exit 3"));
  Packet accept;
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
  std::string root = test_support::TestOutputDir("files");
  fs::create_symlink("/etc/hostname", root + "/link");
  HubSession s;
  ASSERT_TRUE(s.Start(Options({"--files-root", root})));
  Packet p;

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

TEST(QuonHubFileTest, RefusesWhatIsNotARegularFileWithoutWaitingForIt) {
  std::string root = test_support::TestOutputDir("fifo");
  ASSERT_EQ(mkfifo((root + "/queue").c_str(), 0600), 0);
  fs::create_directory(root + "/folder");
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({"--files-root", root})));
  ASSERT_EQ(Ask(s, "CMD", "list").substr(0, 6), "EDONE ");  // settled
  std::vector<std::string> fds_before = s.HubFds();

  // Nobody has the FIFO open: a blocking open would wait for ever, in
  // every mode, and the hub with it.
  for (const char* mode : {"READ TEXT", "WRITE TEXT", "APPEND BINARY"}) {
    ASSERT_EQ(Ask(s, "FOPEN", std::string("queue ") + mode), "FNAK not a regular file") << mode;
  }
  EXPECT_EQ(Ask(s, "FOPEN", "folder READ TEXT"), "FNAK Is a directory");
  EXPECT_EQ(Ask(s, "FOPEN", "folder WRITE TEXT"), "FNAK Is a directory");
  EXPECT_EQ(Ask(s, "FSTAT", "queue"), "FACK 0");
  // Still serving, and nothing of the refused opens stays open.
  EXPECT_EQ(Ask(s, "FOPEN", "plain WRITE TEXT"), "FACK 1");
  EXPECT_EQ(Ask(s, "FCLOSE", "1"), "FACK ");
  EXPECT_EQ(s.HubFds(), fds_before);
  EXPECT_EQ(s.Finish(), 0);
  fs::remove_all(root);
}

// Links and paths that lead out of the root, next to ones that stay inside.
class QuonHubConfineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = test_support::TestOutputDir("confine");
    // Starts with the root's own path: only a textual check would let it in.
    outside_ = root_ + "-out";
    fs::remove_all(outside_);
    fs::create_directories(outside_);
    std::ofstream(outside_ + "/secret") << "secret";
    std::ofstream(root_ + "/data") << "inside";
    fs::create_directory(root_ + "/sub");
    std::string out_name = fs::path(outside_).filename().string();
    fs::create_symlink(outside_ + "/made-abs", root_ + "/dangling");
    fs::create_symlink("../" + out_name + "/made-rel", root_ + "/dangling-rel");
    fs::create_directory_symlink(outside_, root_ + "/door");
    fs::create_directory_symlink("../" + out_name, root_ + "/door-rel");
    fs::create_symlink("sub/new", root_ + "/inner");
    fs::create_symlink("../data", root_ + "/sub/up");
    fs::create_symlink("loop-b", root_ + "/loop-a");
    fs::create_symlink("loop-a", root_ + "/loop-b");
  }
  void TearDown() override {
    fs::remove_all(root_);
    fs::remove_all(outside_);
  }
  std::vector<std::string> OutsideEntries() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(outside_)) {
      names.push_back(e.path().filename().string());
    }
    return names;
  }
  std::string root_;
  std::string outside_;
};

TEST_F(QuonHubConfineTest, RefusesEveryWayOutAndFollowsLinksThatStayInside) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({"--files-root", root_})));
  std::string out_name = fs::path(outside_).filename().string();
  const std::string kOutside = "FNAK outside the files root";

  for (const std::string& request : std::vector<std::string>{
           "dangling WRITE TEXT", "dangling APPEND BINARY", "dangling-rel WRITE TEXT",
           "door/secret READ TEXT", "door/new WRITE TEXT", "door-rel/secret READ TEXT",
           "door-rel/new WRITE TEXT", "../x WRITE TEXT", "sub/../../x WRITE TEXT",
           outside_ + "/secret READ TEXT", outside_ + "/new WRITE TEXT",
           root_ + "/../" + out_name + "/secret READ TEXT", "/etc/hostname READ TEXT"}) {
    EXPECT_EQ(Ask(s, "FOPEN", request), kOutside) << request;
  }
  for (const std::string& path :
       std::vector<std::string>{"dangling", "door", "door/secret", "door-rel", outside_, "/"}) {
    EXPECT_EQ(Ask(s, "FSTAT", path), kOutside) << path;
  }
  for (const std::string& path :
       std::vector<std::string>{"door/secret", "door-rel/secret", outside_ + "/secret"}) {
    EXPECT_EQ(Ask(s, "FUNLINK", path), kOutside) << path;
  }
  EXPECT_EQ(OutsideEntries(), std::vector<std::string>{"secret"});
  EXPECT_EQ(ReadFile(outside_ + "/secret"), "secret");

  // Relative links that stay beneath the root work, to a new file too.
  EXPECT_EQ(Ask(s, "FOPEN", "inner WRITE TEXT"), "FACK 1");
  EXPECT_EQ(Ask(s, "FWRITE", "1 3 new"), "FACK 3");
  EXPECT_EQ(Ask(s, "FOPEN", "sub/up READ TEXT"), "FACK 2");
  EXPECT_EQ(Ask(s, "FREAD", "2 100"), "FACK inside");
  EXPECT_EQ(Ask(s, "FOPEN", root_ + "/sub/../data READ TEXT"), "FACK 3");
  EXPECT_EQ(ReadFile(root_ + "/sub/new"), "new");

  EXPECT_EQ(Ask(s, "FSTAT", "data"), "FACK 2");
  EXPECT_EQ(Ask(s, "FSTAT", "sub"), "FACK 1");
  EXPECT_EQ(Ask(s, "FSTAT", root_), "FACK 1");
  EXPECT_EQ(Ask(s, "FSTAT", root_ + "/sub/up"), "FACK 2");
  EXPECT_EQ(Ask(s, "FSTAT", "missing"), "FNAK No such file or directory");
  EXPECT_EQ(Ask(s, "FSTAT", "loop-a"), "FNAK Too many levels of symbolic links");

  // Removing a link removes the link, wherever it points.
  EXPECT_EQ(Ask(s, "FUNLINK", "door"), "FACK ");
  EXPECT_EQ(Ask(s, "FUNLINK", "sub/up"), "FACK ");
  EXPECT_EQ(Ask(s, "FUNLINK", "dangling"), "FACK ");
  EXPECT_FALSE(fs::exists(fs::symlink_status(root_ + "/door")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(root_ + "/dangling")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(root_ + "/sub/up")));
  EXPECT_EQ(ReadFile(outside_ + "/secret"), "secret");
  EXPECT_EQ(ReadFile(root_ + "/data"), "inside");
  EXPECT_EQ(Ask(s, "FUNLINK", root_), "FNAK Invalid argument");
  EXPECT_EQ(s.Finish(), 0);
}

// The open itself refuses: a directory that turns into a link to the
// outside between a look at the path and the open has nowhere to lead.
TEST_F(QuonHubConfineTest, ADirectorySwappedForALinkNeverLeadsOut) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({"--files-root", root_})));
  std::string flip = root_ + "/flip";
  std::string flop = root_ + "/flop";
  fs::create_directory(flip);
  fs::create_directory_symlink(outside_, flop);
  std::atomic<bool> stop{false};
  std::atomic<long> swaps{0};
  std::thread swapper([&] {
    while (!stop) {
      if (renameat2(AT_FDCWD, flip.c_str(), AT_FDCWD, flop.c_str(), RENAME_EXCHANGE) != 0) return;
      ++swaps;
    }
  });
  int opened = 0;
  for (int i = 0; i < 1000; ++i) {
    std::string answer = Ask(s, "FOPEN", "flip/f" + std::to_string(i) + " WRITE TEXT");
    if (answer.rfind("FACK ", 0) == 0) {
      ++opened;
      EXPECT_EQ(Ask(s, "FCLOSE", answer.substr(5)), "FACK ");
    } else {
      EXPECT_EQ(answer, "FNAK outside the files root");
    }
  }
  stop = true;
  swapper.join();
  EXPECT_GT(swaps, 0);
  EXPECT_GT(opened, 0);  // the directory was met too
  EXPECT_EQ(OutsideEntries(), std::vector<std::string>{"secret"});
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubFileTest, RefusesMagicLinks) {
  // /proc/PID links to the process's root and descriptors lead anywhere.
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({"--files-root", "/proc/self"})));
  EXPECT_EQ(Ask(s, "FSTAT", "status"), "FACK 2");
  EXPECT_EQ(Ask(s, "FSTAT", "root"), "FNAK outside the files root");
  EXPECT_EQ(Ask(s, "FOPEN", "root/etc/hostname READ TEXT"), "FNAK outside the files root");
  EXPECT_EQ(Ask(s, "FOPEN", "cwd/x WRITE TEXT"), "FNAK outside the files root");
  EXPECT_EQ(Ask(s, "FSTAT", "fd/0"), "FNAK outside the files root");
  EXPECT_EQ(s.Finish(), 0);
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
  std::string dir = test_support::TestOutputDir("noexec");
  {
    std::ofstream(dir + "/junk") << "\x7f"
                                    "ELF garbage";
  }
  fs::permissions(dir + "/junk", fs::perms::owner_all);
  ASSERT_TRUE(s.Send("quon", "INVOKE", cwd + " " + dir + "/junk"));
  Packet p;
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
  Packet p;
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
  Packet list;
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
    Packet p;
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
    Packet p;
    ASSERT_TRUE(s.Next(&p));
    done.insert(p.word + " " + p.source + " " + p.payload);
  }
  std::string n = std::to_string(kPackets);
  EXPECT_EQ(done,
            (std::set<std::string>{"DATA " + r + " counted " + n, "DATA " + f + " flooded " + n,
                                   "SRVR_ERR " + r + " exit 0", "SRVR_ERR " + f + " exit 0"}));
  EXPECT_EQ(s.Finish(), 0);
}

// Four bad clients at once: one stops reading, one floods it, one asks the
// hub without reading the answers, one sends garbage. An unrelated pair is
// still served, and what the hub keeps for each is bounded by its queue
// limit plus the one packet that crossed it.
TEST(QuonHubFlowTest, BadClientsNeitherBlockNorGrowTheHubForOthers) {
  HubSession s;
  constexpr long kLimit = 65536;
  ASSERT_TRUE(s.Start(WithPath({"--queue-limit", std::to_string(kLimit)})));
  std::string e = s.Invoke("qclient serve");
  std::string r = s.Invoke("qclient stall count 1000");
  ASSERT_TRUE(s.ExpectPayload("DATA", r, "stalled"));
  std::string f = s.Invoke("qclient flood " + r + " 1000 4096");
  std::string a = s.Invoke("qclient ask 100000");
  std::string g = s.Invoke("qclient garbage 1000");
  ASSERT_FALSE(e.empty() || f.empty() || a.empty() || g.empty());
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", g, "disconnected: bad input"));

  // The pair's round trips go on while the flooder and the asker are held.
  bool held = false;
  for (int round = 0; round < 200 || !held; ++round) {
    ASSERT_LT(round, 20000) << "the flooder and the asker were never held";
    std::string text = "round " + std::to_string(round);
    ASSERT_TRUE(s.Send(e, "CMD", text));
    ASSERT_TRUE(s.Expect("ACK", e));
    ASSERT_TRUE(s.ExpectPayload("DONE", e, "echo:" + text));
    if (held) continue;
    ASSERT_TRUE(s.Send("quon", "CMD", "queues"));
    Packet p;
    ASSERT_TRUE(s.Expect("EDONE", "quon", &p));
    // "ADDRESS BYTES STATE" for each client.
    std::map<std::string, std::pair<long, std::string>> queues;
    std::istringstream report(p.payload);
    std::string address, state;
    long bytes = 0;
    while (report >> address >> bytes >> state) queues[address] = {bytes, state};
    held = queues[f].second == "paused" && queues[a].second == "paused";
    if (!held) continue;
    // Past the limit by at most one packet: a 4 KiB DATA, a process list.
    // (Below it too: a pipe that fills is grown and takes some of the queue.)
    EXPECT_LE(queues[r].first, kLimit + 4096 + 100);
    EXPECT_LE(queues[a].first, kLimit + 1024);
    EXPECT_EQ(queues[e].first, 0);
  }

  platform::SignalProcess(PidOf(r), SIGUSR1, false);
  platform::SignalProcess(PidOf(a), SIGKILL, false);
  std::set<std::string> done;
  while (done.size() < 5) {
    Packet p;
    ASSERT_TRUE(s.Next(&p));
    done.insert(p.word + " " + p.source + " " + p.payload);
  }
  EXPECT_EQ(done,
            (std::set<std::string>{"DATA " + r + " counted 1000", "DATA " + f + " flooded 1000",
                                   "SRVR_ERR " + r + " exit 0", "SRVR_ERR " + f + " exit 0",
                                   "SRVR_ERR " + a + " signal 9"}));
  ASSERT_TRUE(s.Send(e, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", e, "killed"));
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

// A client that mixes garbage with valid packets is never disconnected; its
// bad packets are logged one by one only at first, then counted.
TEST(QuonHubInputTest, GarbageBetweenValidPacketsIsCountedInTheLogNotWrittenEachTime) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string steps;
  // 100 bad packets, never ten in a row: an answer to an address that is
  // gone is valid and dropped without a reply.
  for (int i = 0; i < 11; ++i) steps += " garbage 9 send 1@nowhere STATUS IDLE";
  std::string g = s.Invoke("qclient" + steps + " garbage 1 send parent DATA sent");
  ASSERT_TRUE(s.ExpectPayload("DATA", g, "sent"));
  std::string line;
  int one_by_one = 0;
  for (;;) {
    ASSERT_TRUE(s.WaitLog("[" + std::to_string(PidOf(g)) + "]: ", &line));
    if (line.find("bad packet dropped: unknown category word") != std::string::npos) {
      ++one_by_one;
      continue;
    }
    if (line.find("disconnected") != std::string::npos) FAIL() << line;
    if (line.find("bad packets dropped so far") != std::string::npos) break;
  }
  EXPECT_EQ(one_by_one, 10);
  EXPECT_NE(line.find(": 100 bad packets dropped so far, the last: unknown category word"),
            std::string::npos)
      << line;
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubSourceTest, DropsPacketsThatClaimAnotherSender) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string pid = std::to_string(PidOf(s.address()));
  std::string b = s.Invoke("qclient serve");
  std::string c = s.Invoke("qclient serve");
  ASSERT_FALSE(b.empty());
  ASSERT_FALSE(c.empty());
  auto forge = [&s](const std::string& source, const std::string& destination,
                    const std::string& word, const std::string& payload) {
    return s.SendBytes(BuildPacket(destination, source, word, payload));
  };
  // B takes SRVR_ERR from "quon" for the hub going away and ends; from a
  // peer it reports it to its parent (this client). Either would show.
  std::vector<std::string> sources = {
      "quon",           c, "4242@" + s.host(), "!x" + c, "!xy" + s.address(), "x!" + s.address(),
      s.address() + "0"};
  for (const std::string& source : sources) {
    ASSERT_TRUE(forge(source, b, "SRVR_ERR", "forged"));
  }
  // A request to the hub would be answered to this client.
  ASSERT_TRUE(forge("4242@" + s.host(), "quon", "QUERYP?", kProcessQuery));

  // Nothing of it reached anyone: B answers this first, and nothing else
  // came before it.
  ASSERT_TRUE(s.Send(b, "CMD", "after"));
  ASSERT_TRUE(s.Expect("ACK", b));
  EXPECT_TRUE(s.ExpectPayload("DONE", b, "echo:after"));
  for (std::size_t i = 0; i <= sources.size(); ++i) {
    ASSERT_TRUE(s.WaitLog("[" + pid + "]: bad packet dropped: source \""));
  }
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  EXPECT_TRUE(s.ExpectPayload("EDONE", "quon",
                              BRIDGE_BINARY " " + s.address() + " quon@" + s.host() +
                                  " 1 qclient " + b + " " + s.address() + " 1 qclient " + c + " " +
                                  s.address() + " 1"));

  // The own address behind a "!" prefix is the sender's, and is answered.
  std::string prefixed = "!x" + s.address();
  ASSERT_TRUE(forge(prefixed, b, "CMD", "prefixed"));
  Packet p;
  ASSERT_TRUE(s.Next(&p));
  EXPECT_EQ(p.destination + " " + p.source + " " + p.word, prefixed + " " + b + " ACK");
  ASSERT_TRUE(s.Next(&p));
  EXPECT_EQ(p.destination + " " + p.word + " " + p.payload, prefixed + " DONE echo:prefixed");
  ASSERT_TRUE(forge(prefixed, "quon", "QUERY?", "qclient"));
  EXPECT_TRUE(s.Expect("QUERY", "quon"));

  for (const std::string& client : {b, c}) {
    ASSERT_TRUE(s.Send(client, "KILL"));
    EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", client, "killed"));
  }
  EXPECT_EQ(s.Finish(), 0);
}

TEST(QuonHubSourceTest, DisconnectsAClientThatKeepsForgingAndServesTheOthers) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  std::string b = s.Invoke("qclient serve");
  ASSERT_FALSE(b.empty());
  std::string steps;
  for (int i = 0; i < 10; ++i) steps += " sendas quon " + b + " SRVR_ERR gone";
  std::string f = s.Invoke("qclient" + steps + " expect ACK quon");
  ASSERT_TRUE(s.ExpectPayload("SRVR_ERR", f, "disconnected: bad input"));
  EXPECT_TRUE(
      s.WaitLog("[" + std::to_string(PidOf(f)) + "]: disconnected after 10 bad packets in a row"));
  // B heard none of it and is still served.
  ASSERT_TRUE(s.Send(b, "CMD", "still there?"));
  EXPECT_TRUE(s.Expect("ACK", b));
  EXPECT_TRUE(s.ExpectPayload("DONE", b, "echo:still there?"));
  ASSERT_TRUE(s.Send(b, "KILL"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", b, "killed"));
  EXPECT_EQ(s.Finish(), 0);
}

// The hub's part of direct links, spoken by hand: a pair is set up only when
// both sides asked, a side that cannot open its ends makes the hub drop the
// link on both sides, and the pipes' names never outlive the setting-up.
TEST(QuonHubLinkTest, LinksAPairThatAskedAndRemovesThePipesEveryWay) {
  HubSession s;
  ASSERT_TRUE(s.Start(WithPath({})));
  auto control = [](const Packet& p) {
    wire::LinkControl c;
    EXPECT_TRUE(wire::ParseLinkControl(p.payload, &c)) << p.payload;
    return c;
  };

  // A side that fails: both are told to drop it, and the pipes go.
  std::string want_me = "\"link want " + s.address() + "\"";
  std::string b = s.Invoke("qclient send quon PING " + want_me +
                           " expect PING quon send quon PING \"link ready " + s.address() +
                           " fail\" expect PING quon exit 0");
  ASSERT_FALSE(b.empty());
  ASSERT_TRUE(s.Send("quon", "PING", "link want " + b));
  Packet p;
  ASSERT_TRUE(s.Expect("PING", "quon", &p));
  wire::LinkControl open = control(p);
  EXPECT_EQ(open.verb, wire::LinkVerb::kOpen);
  EXPECT_EQ(open.peer, b);
  std::string in(open.in_path), out(open.out_path);
  ASSERT_TRUE(s.Expect("PING", "quon", &p));
  EXPECT_EQ(control(p).verb, wire::LinkVerb::kDrop);
  EXPECT_FALSE(fs::exists(in));
  EXPECT_FALSE(fs::exists(out));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", b, "exit 0"));

  // Both ready: both are told to go, and the names are gone already.
  std::string c = s.Invoke("qclient send quon PING " + want_me +
                           " expect PING quon send quon PING \"link ready " + s.address() +
                           " ok\" expect PING quon exit 0");
  ASSERT_TRUE(s.Send("quon", "PING", "link want " + c));
  ASSERT_TRUE(s.Expect("PING", "quon", &p));
  open = control(p);
  in = std::string(open.in_path);
  out = std::string(open.out_path);
  // Until this side is ready too, the pipes are there to be opened, and a
  // write end opens at once: the hub holds a read end of each.
  EXPECT_TRUE(fs::exists(in));
  int writer = platform::OpenFifoEnd(out.c_str(), true);
  EXPECT_GE(writer, 0);
  if (writer >= 0) platform::Close(writer);
  ASSERT_TRUE(s.Send("quon", "PING", "link ready " + c + " ok"));
  ASSERT_TRUE(s.Expect("PING", "quon", &p));
  EXPECT_EQ(control(p).verb, wire::LinkVerb::kGo);
  EXPECT_FALSE(fs::exists(in));
  EXPECT_FALSE(fs::exists(out));
  EXPECT_TRUE(s.WaitLog(" linked"));
  EXPECT_TRUE(s.ExpectPayload("SRVR_ERR", c, "exit 0"));

  // Controls that make no sense are dropped; the hub goes on serving.
  for (const std::string& bad :
       std::vector<std::string>{"link want quon", "link want " + s.address(), "link open a b c",
                                "link ready 1@nowhere ok", "link go " + c, "link", "link over"}) {
    ASSERT_TRUE(s.Send("quon", "PING", bad));
  }
  ASSERT_TRUE(s.Send("quon", "CMD", "list"));
  EXPECT_TRUE(s.Expect("EDONE", "quon"));
  EXPECT_EQ(s.Finish(), 0);
}

}  // namespace
}  // namespace varn::quon_test
