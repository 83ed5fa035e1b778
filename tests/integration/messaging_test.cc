// The messaging calls against a scripted hub, and debug mode run as a user
// runs it: lines in on standard input, lines out on standard output.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/integration/peer_test.h"
#include "tests/support/launcher.h"
#include "tests/support/output.h"

namespace varn::testing {
namespace {

using MessagingTest = PeerTest;
using test_support::RunProgram;
using test_support::RunResult;

TEST_F(MessagingTest, WaitEndedByEndFailsWithInvalidCategory) {
  StartPeer("end-wait");
  AcknowledgeCommandAndBeginStream();
  ASSERT_TRUE(hub_.Send(self_, kS1, "END", "fin"));
  Expect("ACK");
  EXPECT_EQ(hub_.Report(), "wait 0 err=4 cat=- text=");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(MessagingTest, ImmediateIntrReachesCallbackWithoutEndingTheWait) {
  StartPeer("immediate");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, kS1, "INTR", "now"));
  EXPECT_EQ(hub_.Report(), "callback INTR held=1");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "later"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=later");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(MessagingTest, WaitForAnyTakesTheQueuedMessageFirstAndLengthCountsTheNul) {
  StartPeer("any");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS2, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1");
  EXPECT_EQ(hub_.Report(), "send 1");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "ok"));  // queued during the wait on S2
  ASSERT_TRUE(hub_.Send(self_, kS2, "DONE", "b"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=b");
  EXPECT_EQ(hub_.Report(), "any 1 cat=DONE text=ok");
  // The length counts the NUL; a received payload keeps the sender's NUL
  // padding, which depends on the two addresses.
  std::size_t c = self_.size() + std::string(kS1).size() + 4 + 3 + 2;
  std::size_t padding = c % 4 == 2 ? 0 : 4 - (c - 2) % 4;
  EXPECT_EQ(hub_.Report(), "recv_msg_len 1 len=" + std::to_string(2 + padding + 1) + " text=ok");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(MessagingTest, HubCommandsAnsweredDoneAndRefused) {
  StartPeer("quon-cmd");
  Packet cmd = Expect("CMD");
  EXPECT_EQ(cmd.destination, "quon");
  EXPECT_EQ(cmd.payload, "list");
  ASSERT_TRUE(hub_.Send(self_, "quon", "EDONE", "a b c"));
  EXPECT_EQ(hub_.Report(), "cmd 1 err=0");
  cmd = Expect("CMD");
  EXPECT_EQ(cmd.payload, "set_chan_mode 3");
  ASSERT_TRUE(hub_.Send(self_, "quon", "EERROR", "no"));
  EXPECT_EQ(hub_.Report(), "chan 0 err=69 mode=0");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(MessagingTest, RecordTooLargeForBufferStaysReadable) {
  StartPeer("small-buffer");
  AcknowledgeCommandAndBeginStream();
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", "000006abcdef000001g"));
  EXPECT_EQ(hub_.Report(), "small 0 err=34");
  EXPECT_EQ(hub_.Report(), "record 6 abcdef");
  EXPECT_EQ(hub_.Report(), "record 1 g");
  ASSERT_TRUE(hub_.Send(self_, kS1, "END", "all"));
  Expect("ACK");
  EXPECT_EQ(hub_.Report(), "end all");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(MessagingTest, ReadDataAfterTheStreamEndedReturnsItsRecordsThenEnd) {
  StartPeer("read-after-end");
  AcknowledgeCommandAndBeginStream();
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", "000002ab000001c"));
  EXPECT_EQ(hub_.Report().rfind("wait 1 err=0 cat=DATA", 0), 0u);
  ASSERT_TRUE(hub_.Send(self_, kS1, "END", "tail"));
  Expect("ACK");
  EXPECT_EQ(hub_.Report(), "wait 0 err=4 cat=- text=");
  EXPECT_EQ(hub_.Report(), "read_data 1 err=0 cat=DATA len=2 text=ab");
  EXPECT_EQ(hub_.Report(), "read_data 1 err=0 cat=DATA len=1 text=c");
  EXPECT_EQ(hub_.Report().rfind("read_data 1 err=0 cat=END len=4 text=tail", 0), 0u);
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

// ---- Debug mode ----------------------------------------------------------

RunResult RunDebug(const std::string& mode, const std::string& input,
                   const std::vector<std::string>& extra = {}, const std::string& workdir = "") {
  std::vector<std::string> argv = {VARN_PEER_PATH, "-quon_debug"};
  for (const auto& a : extra) argv.push_back(a);
  argv.push_back("-report");
  argv.push_back("{report}");
  argv.push_back(mode);
  return RunProgram(argv, input, workdir);
}

TEST(DebugModeTest, CommandsStreamsAndSkippedLines) {
  RunResult r = RunDebug("echo",
                         "# a comment\n"
                         "\n"
                         "   \n"
                         "INTR\n"
                         "BOGUS x\n"
                         "CMD load x.dat\n"
                         "BEGIN title\n"
                         "1 2 3\n"
                         "END done\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "DONE ok\nSRVR_ERR\n");
  EXPECT_NE(r.err.find("category INTR does not apply in debug mode line ignored\n"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("invalid category BOGUS, line ignored\n"), std::string::npos) << r.err;
  // The first data read offers 999999 bytes: refused with 34 and the size
  // to offer, without consuming the line.
  EXPECT_NE(r.report.find("data failed err=34 length=1000000\nrecord 1 2 3\n"
                          "data failed err=34 length=1000000\nend done\n"),
            std::string::npos)
      << r.report;
}

TEST(DebugModeTest, SweepServerAnswersFromTheTerminal) {
  RunResult r = RunProgram({VARN_SWEEP_SERVER_PATH, "-quon_debug"}, "CMD sweep 1 10 3\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "BEGIN sweep 1 Hz .. 10 Hz, 3 points, corner 10000 Hz\n"
            "f=1 gain_db=-0.0000 phase_deg=-0.006\n"
            "f=3.16228 gain_db=-0.0000 phase_deg=-0.018\n"
            "f=10 gain_db=-0.0000 phase_deg=-0.057\n"
            "END 3 rows\n"
            "DONE ok\n"
            "SRVR_ERR\n");
  r = RunProgram({VARN_SWEEP_SERVER_PATH, "-quon_debug"}, "CMD sweep 10 1 x\nCMD frobnicate\n");
  EXPECT_EQ(r.out.rfind("ERROR usage: sweep START STOP COUNT [DELAY_MS]\nERROR unknown command: "
                        "frobnicate",
                        0),
            0u)
      << r.out;
}

TEST(DebugModeTest, StartedProgramWritesItsDebugInputFile) {
  std::string dir = test_support::TestOutputDir("work");
  RunResult r = RunDebug("debug-invoke", "", {"-quon_outfile", "run1"}, dir);
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("Program sim's input goes to file: run1.sim"), std::string::npos) << r.err;
  EXPECT_NE(r.report.find("invoke 1\ncmd 1\ncmd 1\nlast=DONE\nquon 0 err=65\n"), std::string::npos)
      << r.report;
  std::ifstream file(dir + "/run1.sim");
  std::stringstream content;
  content << file.rdbuf();
  EXPECT_EQ(content.str(), "CMD load a\nCMD run\n");
  EXPECT_EQ(r.out, "CMD load a\nCMD run\nSRVR_ERR\n");
}

}  // namespace
}  // namespace varn::testing
