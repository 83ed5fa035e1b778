// Starting, listing, querying and connecting processes through the real
// hub, with real child processes. The first client is the test peer; it
// reports what it sees into a file.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/launcher.h"
#include "tests/support/output.h"

namespace varn::testing {
namespace {

using test_support::RunProgram;
using test_support::RunResult;

std::string Dir(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Runs the peer's scenario as the hub's first client; returns its report.
std::string UnderHub(const std::string& mode, bool sockets = false, int* status = nullptr) {
  // One file per test: tests of the same scenario may run at the same time.
  std::string report = test_support::TestOutputDir("hub") + "/report.txt";
  std::vector<std::string> argv = {VARN_QUON_PATH, "--path", Dir(VARN_SWEEP_SERVER_PATH), "--path",
                                   Dir(VARN_PEER_PATH)};
  if (sockets) argv.push_back("--sockets");
  argv.insert(argv.end(), {VARN_PEER_PATH, "-reportfile", report, mode});
  RunResult r = RunProgram(argv, "");
  if (status != nullptr) *status = r.status;
  EXPECT_EQ(r.status, 0) << r.err;
  std::ifstream in(report);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(ThroughHubTest, StartListRefuseAndKill) {
  std::string report = UnderHub("hub-start");
  EXPECT_NE(report.find("invoke 1 err=0 state=1\n"), std::string::npos) << report;
  EXPECT_NE(report.find("list 1\n"), std::string::npos) << report;
  EXPECT_NE(report.find("process sweep_server server\n"), std::string::npos) << report;
  EXPECT_NE(report.find("missing 0 err=11 text=program not found: no_such_program_x freed=1\n"),
            std::string::npos)
      << report;
  // KILL frees the row even though it was started with keep_entry.
  EXPECT_NE(report.find("kill 1 state=0\n"), std::string::npos) << report;
}

TEST(ThroughHubTest, StartAndKillInSocketMode) {
  std::string report = UnderHub("hub-start", true);
  EXPECT_NE(report.find("invoke 1 err=0 state=1\n"), std::string::npos) << report;
  EXPECT_NE(report.find("kill 1 state=0\n"), std::string::npos) << report;
}

TEST(ThroughHubTest, AsynchronousStartCompletedByWait) {
  std::string report = UnderHub("hub-async");
  EXPECT_NE(report.find("invoke_ex 1 state=4\ninvoked 1 state=1\n"), std::string::npos) << report;
  EXPECT_NE(report.find("bad 0 err=11 text=program not found: no_such_program_x\n"),
            std::string::npos)
      << report;
  EXPECT_NE(report.find("kill 1\n"), std::string::npos) << report;
}

TEST(ThroughHubTest, NonProtocolProgramLinesArriveAsDataAndItsEndAsExitNotice) {
  std::string report = UnderHub("hub-nonvelor");
  EXPECT_NE(report.find("invoke 1\n"
                        "wait 1 err=0 cat=DATA text=one\n"
                        "wait 1 err=0 cat=DATA text=two words\n"
                        "wait 1 err=0 cat=SRVR_ERR text=exit 0\n"),
            std::string::npos)
      << report;
  // An unknown kind of program fails at once instead of waiting.
  EXPECT_NE(report.find("kind7 0 err=11\n"), std::string::npos) << report;
}

TEST(ThroughHubTest, StatusIdleBusySendingDataAndDead) {
  std::string report = UnderHub("hub-status");
  EXPECT_NE(report.find("status 1 0 \n"), std::string::npos) << report;
  // BUSY from the moment the command is parsed; the progress text follows.
  EXPECT_NE(report.find("busy 1 1 "), std::string::npos) << report;
  EXPECT_NE(report.find("end 4 rows\nwait 1 err=0 cat=DONE text=ok\n"), std::string::npos)
      << report;
  EXPECT_NE(report.find("streaming 1 1 sending data\n"), std::string::npos) << report;
  EXPECT_NE(report.find("dead 1 2 "), std::string::npos) << report;
}

TEST(ThroughHubTest, ConnectServerStartedByAnotherProcess) {
  std::string report = UnderHub("hub-connect");
  EXPECT_NE(report.find("helper says 1 started\n"), std::string::npos) << report;
  EXPECT_NE(report.find("connect 1 err=0\nstatus 1 0\nagain 1 same=1\n"), std::string::npos)
      << report;
  EXPECT_NE(report.find("unknown 0 err=27\n"), std::string::npos) << report;
}

TEST(ThroughHubTest, KeptServerIsRestartedAndEveryoneFollowsItsNewAddress) {
  std::string report = UnderHub("hub-restart");
  EXPECT_NE(report.find("wait 1 err=0 cat=DONE text=bye\n"
                        "wait 1 err=0 cat=SRVR_ERR text=\n"
                        "exited state=2\n"),
            std::string::npos)
      << report;
  EXPECT_NE(report.find("kill exited 1 state=0\n"), std::string::npos) << report;
  EXPECT_NE(report.find("restarted 1 moved=1\nfollower knows new=1\n"), std::string::npos)
      << report;
}

TEST(ThroughHubTest, DisabledNameSwallowsSendsAndStartsOnEnable) {
  std::string report = UnderHub("hub-disabled");
  EXPECT_NE(report.find("invoke 1 state=3\nsend 1 wait 1 cat=DONE text=\n"
                        "enable 1 state=1 started=1\n"
                        "wait 1 err=0 cat=DONE text=commands:"),
            std::string::npos)
      << report;
}

TEST(ThroughHubTest, ErrorLinesWrittenJustBeforeTheEndReachTheLogInSocketMode) {
  std::string log = test_support::TestOutputDir("hub") + "/log.txt";
  RunResult r =
      RunProgram({VARN_QUON_PATH, "--sockets", "--log", log, VARN_PEER_PATH, "stderr-burst"}, "");
  EXPECT_EQ(r.status, 0) << r.err;
  std::ifstream in(log);
  std::string line;
  int lines = 0;
  bool ended = false;
  int after_end = 0;
  while (std::getline(in, line)) {
    if (line.find("]: burst line ") != std::string::npos) {
      ++lines;
      if (ended) ++after_end;
    }
    if (line.find(" ended: ") != std::string::npos) ended = true;
  }
  // Every line arrives, and before the exit notice.
  EXPECT_EQ(lines, 200);
  EXPECT_TRUE(ended);
  EXPECT_EQ(after_end, 0);
}

TEST(ThroughHubTest, DemoConversation) {
  RunResult r = RunProgram({VARN_QUON_PATH, "--path", Dir(VARN_SWEEP_SERVER_PATH),
                            Dir(VARN_SWEEP_SERVER_PATH) + "/demo_client"},
                           "");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("demo: server A row 12: f=1e+06"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("demo: server B ended its stream: 8 rows"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("demo: server A says ERROR usage"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("demo: done"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace varn::testing
