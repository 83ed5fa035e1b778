// Files beside the hub: the remote file requests, the remote streams and
// the file wrappers, through the real hub with the client on a socket (its
// files live beside the hub) and on pipes (the wrappers use local files,
// the requests still go to the hub), and the cases a real hub cannot
// produce under a scripted one.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/integration/fake_hub.h"
#include "tests/support/launcher.h"
#include "tests/support/output.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace varn::testing {
namespace {

using test_support::RunProgram;
using test_support::RunResult;

std::string Dir(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs a scenario of the file peer as the hub's first client, in a
// directory that is both the hub's files root and the client's working
// directory; returns its report.
std::string UnderHub(const std::string& mode, bool sockets, std::string* files = nullptr) {
  std::string tag = mode + (sockets ? "-socket" : "-pipes");
  std::string dir = test_support::TestOutputDir(tag);
  std::string report = test_support::TestOutputDir(tag + "-report") + "/report.txt";
  std::vector<std::string> argv = {VARN_QUON_PATH, "--files-root", dir, "--path",
                                   Dir(VARN_FILE_PEER_PATH)};
  if (sockets) argv.push_back("--sockets");
  argv.insert(argv.end(), {VARN_FILE_PEER_PATH, "-reportfile", report, mode});
  RunResult r = RunProgram(argv, "", dir, 60000);
  EXPECT_EQ(r.status, 0) << r.err;
  if (files != nullptr) *files = dir;
  return ReadFile(report);
}

constexpr char kRequestsReport[] =
    "big write 1\n"
    "big read 1048576 same=1 end=57\n"
    "nul files done\n"
    "open 1\n"
    "seek set 0 10\n"
    "seek cur 0 15\n"
    "seek end 0 1048572 tell 1048572 eof 0\n"
    "tail 4 same=1\n"
    "after end 0 err=57 eof 1\n"
    "rewind 1 tell 0\n"
    "close 1\n"
    "stat file 1 2\n"
    "stat folder 1 1\n"
    "stat missing 0 err=71\n"
    "unlink 1\n"
    "stat gone 0 err=71\n"
    "open missing 0 err=44\n"
    "open outside 0 err=44\n"
    "open bad type 0 err=46\n"
    "open bad mode 0 err=47\n"
    "close free 0 err=48\n"
    "read free 0 err=48\n"
    "read writer 0 err=50\n"
    "unlink missing 0 err=56\n";

TEST(RemoteFileTest, RequestsThroughTheHubOnASocketAndOnPipes) {
  EXPECT_EQ(UnderHub("requests", true), std::string("init chan=0\n") + kRequestsReport);
  EXPECT_EQ(UnderHub("requests", false), std::string("init chan=1\n") + kRequestsReport);
}

constexpr char kWrappersReport[] =
    "fopen 1\n"
    "fclose 0\n"
    "readline 6: [first 1] [second] 1024 1024 1024 952\n"
    "readline after the end 0\n"
    "readlineP 4: 1024 3000\n"
    "fgets 8\n"
    "ftell 8\n"
    "last 1 one 1 last 0\n"
    "stat 1 2\n"
    "unlink 1\n"
    "stat gone 0\n"
    "scan 4 12 34 25 word\n";

// The same calls give the same results on a remote stream (socket) and on a
// local file (pipes); on a socket the files are written beside the hub.
TEST(RemoteFileTest, WrappersAndLineCallsOnRemoteAndLocalStreams) {
  std::string dir;
  EXPECT_EQ(UnderHub("wrappers", true, &dir), std::string("init chan=0\n") + kWrappersReport);
  std::string text = ReadFile(dir + "/text.txt");
  EXPECT_EQ(text.substr(0, 16), "first 1\nsecond\r\n");
  EXPECT_EQ(text.size(), 16u + 1025 + 3001 + 15);
  EXPECT_EQ(UnderHub("wrappers", false, &dir), std::string("init chan=1\n") + kWrappersReport);
  EXPECT_EQ(ReadFile(dir + "/numbers.txt"), "12 34 2.5e1 word\n");
}

TEST(RemoteFileTest, TwoClientsWithFilesOpenAtOnce) {
  std::string dir;
  std::string report = UnderHub("two", true, &dir);
  EXPECT_NE(report.find("open A 1\nhelper 1\nhelper says opened\nwrite A 6\nclose A 1\n"
                        "helper closed closed\n"),
            std::string::npos)
      << report;
  EXPECT_EQ(ReadFile(dir + "/a.txt"), "from A");
  EXPECT_EQ(ReadFile(dir + "/b.txt"), "from B");
}

class ScriptedFileTest : public ::testing::Test {
 protected:
  void Start(const std::string& mode) {
    FakeHub::Options options;
    options.program = VARN_FILE_PEER_PATH;
    ASSERT_TRUE(hub_.Start(mode, options));
    ASSERT_EQ(hub_.Report(), "init chan=1");
    self_ = hub_.ProgramAddress();
  }
  Packet Expect(const std::string& word) {
    Packet p;
    EXPECT_TRUE(hub_.Read(&p)) << "waiting for " << word;
    EXPECT_EQ(p.word, word) << p.bytes;
    EXPECT_EQ(p.destination, "quon");
    return p;
  }
  FakeHub hub_;
  std::string self_;
};

TEST_F(ScriptedFileTest, HubGoneWhileAnOpenWaitsEndsItWith43) {
  Start("waiting");
  EXPECT_EQ(hub_.Report(), "ready");
  EXPECT_EQ(Expect("FOPEN").payload, "x.txt WRITE TEXT");
  hub_.CloseChannel();
  EXPECT_EQ(hub_.Report(), "open 0 err=43");
  EXPECT_EQ(hub_.Report(), "again 0 err=43");
  EXPECT_EQ(hub_.WaitExit(), 0);
}

// An answer longer than asked is never copied past what was asked for; a
// short answer whose padding hides its length is settled by asking the
// position.
TEST_F(ScriptedFileTest, ReadAnswersAreTakenByTheirTrueLength) {
  Start("shaped");
  EXPECT_EQ(Expect("FOPEN").payload, "s.bin READ BINARY");
  ASSERT_TRUE(hub_.Send(self_, "quon", "FACK", "7"));
  EXPECT_EQ(hub_.Report(), "open 1");
  Packet read = Expect("FREAD");
  long long number = 0, asked = 0;
  ASSERT_TRUE(wire::ParseReadRequest(read.payload, &number, &asked));
  EXPECT_EQ(number, 7);
  EXPECT_LE(asked, 10);
  EXPECT_GE(asked, 7);
  ASSERT_TRUE(hub_.Send(self_, "quon", "FACK", "ABCDEFGHIJKLMNOPQRST"));
  std::string copied = std::string("ABCDEFGHIJKLMNOPQRST").substr(0, asked);
  copied += std::string(12 - asked, '#');
  EXPECT_EQ(hub_.Report(), "more than asked " + std::to_string(asked) + " [" + copied + "]");
  Expect("FREAD");
  ASSERT_TRUE(hub_.Send(self_, "quon", "FACK", "ab"));
  EXPECT_EQ(Expect("FTELL").payload, "7");
  ASSERT_TRUE(hub_.Send(self_, "quon", "FACK", std::to_string(asked + 2)));
  EXPECT_EQ(hub_.Report(), "short 2");
}

}  // namespace
}  // namespace varn::testing
