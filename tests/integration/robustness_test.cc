// The library against peers and hubs that misbehave: floods, long notices,
// deaths in the middle of a stream, queries while it sleeps, congestion
// while it writes. A scripted hub drives a real program over real pipes.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/integration/peer_test.h"
#include "tests/support/output.h"
#include "transport/wire_format.h"

namespace varn::testing {
namespace {

using RobustnessTest = PeerTest;

TEST_F(RobustnessTest, LongExitNoticeEndsTheRowWithItsFirst1023Bytes) {
  StartPeer("long-exit");
  EXPECT_EQ(hub_.Report(), "ready");
  std::string notice = "exit " + std::string(2000, 'n');
  ASSERT_TRUE(hub_.Send(self_, kS1, "SRVR_ERR", notice));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=SRVR_ERR len=1023 text=exit nnn state=0");
  // The row is free: a kill refuses at once instead of waiting for a
  // notice that already came.
  EXPECT_EQ(hub_.Report(), "kill 0 err=31");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(RobustnessTest, FloodIsHeldBackWhileTheProgramDoesNotReadAndNothingIsLost) {
  StartPeer("stall");
  EXPECT_EQ(hub_.Report(), "ready");
  std::string packet = test_support::BuildPacket(self_, kS1, "DATA", std::string(1000, 'd'));
  ASSERT_FALSE(packet.empty());
  // 64000 packets (about 64 MiB) offered; the program takes a bounded
  // amount and then stops reading its channel until it reads itself.
  constexpr std::size_t kPackets = 64000;
  const std::size_t offered = kPackets * packet.size();
  std::size_t taken = hub_.Flood(packet, offered, 1000);
  EXPECT_LT(taken, 16u << 20) << "the program kept reading into memory";
  ASSERT_GT(taken, 0u);
  ASSERT_TRUE(hub_.Signal(SIGUSR1));
  std::size_t rest = hub_.Flood(packet, offered - taken, 10000);
  ASSERT_EQ(taken + rest, offered);
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "all"));
  EXPECT_EQ(hub_.Report(30000), "got " + std::to_string(kPackets) + " then DONE all");
  AckExitNotice();
}

TEST_F(RobustnessTest, RoundTripsStayCheapWithManyMessagesQueuedFromAnotherPeer) {
  // Each wait used to walk the whole queue: these round trips took far
  // longer than the deadline below.
  constexpr int kRounds = 3000;
  FakeHub::Options options;
  options.tail = {std::to_string(kRounds)};
  StartPeer("queued-many", options);
  Expect("CMD");
  // While the program waits for S1's ACK, S2 sends 100000 messages: all are
  // queued for later.
  std::string flood;
  for (int i = 0; i < 100000; ++i) {
    flood += test_support::BuildPacket(self_, kS2, "DATA", "n" + std::to_string(i));
  }
  ASSERT_TRUE(hub_.SendRaw(flood));
  for (int i = 0; i < kRounds; ++i) {
    if (i > 0) Expect("CMD");
    ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
    ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "pong"));
  }
  EXPECT_EQ(hub_.Report(20000), "rounds 3000 queued=1");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(RobustnessTest, RequestToTheHubFromACallbackDuringAWaitGetsItsAnswer) {
  StartPeer("intr-request");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "I@h", "INTR"));
  Packet request = Expect("QUERYP?");
  EXPECT_EQ(request.destination, "quon");
  ASSERT_TRUE(hub_.Send(self_, "quon", "QUERYP", "srv S1@h quon@h 0"));
  EXPECT_EQ(hub_.Report(), "callback list 1 text=srv S1@h quon@h 0");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "over"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=over");
  AckExitNotice();
}

TEST_F(RobustnessTest, MessagePutBackDuringAWaitWaitsForALaterCall) {
  StartPeer("put-back");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1");
  // A stray message comes before the answer: the loop puts it back and
  // waits on, instead of taking it again for ever.
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", "stray"));
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "opened 7"));
  EXPECT_EQ(hub_.Report(), "done opened 7 put_back=1");
  EXPECT_EQ(hub_.Report(), "later DATA stray");
  AckExitNotice();
}

TEST_F(RobustnessTest, DataBatchesStayBelowThePacketLimitWithTheirPadding) {
  StartPeer("batch-edge");
  Expect("BEGIN");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "begin 1");
  EXPECT_EQ(hub_.Report(), "alone 0 err=34");
  EXPECT_EQ(hub_.Report(), "fits 1 err=0");
  std::vector<std::size_t> records;
  auto read_batch = [&] {
    Packet p;
    ASSERT_TRUE(hub_.Read(&p, 30000));
    ASSERT_EQ(p.word, "DATA");
    EXPECT_LT(p.bytes.size(), wire::kPacketLimit);
    // Payload: six-digit lengths, each followed by its record.
    std::size_t at = 0;
    while (at + 6 <= p.payload.size()) {
      std::size_t n = std::stoul(p.payload.substr(at, 6));
      records.push_back(n);
      at += 6 + n;
    }
  };
  read_batch();  // the record that fits, sent when the next one came
  EXPECT_EQ(hub_.Report(30000), "pair 1 1 err=0");
  read_batch();  // the small record, alone
  read_batch();  // the large one
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[1], 10u);
  Expect("END");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "end 1");
  AckExitNotice();
}

TEST_F(RobustnessTest, PeerThatEndsInTheMiddleOfItsStreamFailsTheReadWith13) {
  StartPeer("stream");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1");
  ASSERT_TRUE(hub_.Send(self_, kS1, "BEGIN", "rows"));
  Expect("ACK");
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=BEGIN text=rows");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", "000003abc"));
  ASSERT_TRUE(hub_.Send(self_, kS1, "SRVR_ERR", "exit 1"));
  EXPECT_EQ(hub_.Report(), "record 3 abc");
  EXPECT_EQ(hub_.Report(), "data 0 err=13 cat=SRVR_ERR");
}

TEST_F(RobustnessTest, ErrorOutputAfterTheHubIsGoneLeavesError43Alone) {
  FakeHub::Options options;
  options.socket = true;
  StartPeer("stderr-after-loss", options);
  EXPECT_EQ(hub_.Report(), "ready");
  hub_.CloseChannel();
  EXPECT_EQ(hub_.Report(), "wait 0 err=43 cat=- text=");
  // The error-forwarding thread's send fails now; its error is its own.
  EXPECT_EQ(hub_.Report(), "after lines err=43");
  EXPECT_EQ(hub_.Report(), "at exit err=43");
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(RobustnessTest, StatusQueryDoesNotDisturbTheApplication) {
  StartPeer("sleeper");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "X@h", "STATUS?"));
  Packet status = Expect("STATUS");
  EXPECT_EQ(status.destination, "X@h");
  EXPECT_EQ(status.payload, "BUSY thinking");
  // The sleep was not cut short by the answer.
  EXPECT_EQ(hub_.Report(), "slept rc=0");
  AckExitNotice();
}

TEST_F(RobustnessTest, InterruptAndKillReachAProgramBlockedWritingToACongestedPeer) {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
  // The thread sanitizer holds a signal back until the system call it
  // arrived in returns; a write blocked on a full pipe never does.
  GTEST_SKIP() << "signals to a blocked write are held back by the thread sanitizer";
#endif
#endif
  StartPeer("flood-out");
  EXPECT_EQ(hub_.Report(), "ready");
  // Nothing the program writes is read: its writes block once the pipe is
  // full. The interrupt still reaches its callback, and a kill ends it.
  ASSERT_TRUE(hub_.Send(self_, "I@h", "INTR"));
  EXPECT_EQ(hub_.Report(), "callback INTR held=1");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  EXPECT_EQ(hub_.Report(), "callback KILL ");
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(RobustnessTest, AKilledProgramEndsWhenItsExitNoticeIsNeverAcknowledged) {
  StartPeer("spin");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  EXPECT_EQ(hub_.Report(), "callback KILL ");
  Packet notice;
  ASSERT_TRUE(hub_.ReadUntil("SRVR_ERR", &notice));
  // No ACK: the program ends on its own a little later.
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(RobustnessTest, KillFlushesWhatTheApplicationWroteToItsFiles) {
  std::string file = test_support::TestOutputDir("files") + "/flushed.txt";
  FakeHub::Options options;
  options.tail = {file};
  StartPeer("kill-flush", options);
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "written before the kill\n");
}

TEST_F(RobustnessTest, NoConsoleFlagGoesOnWithoutAnErrorStream) {
  FakeHub::Options options;
  options.close_stderr = true;
  options.extra = {"-quon_noconsole"};
  ASSERT_TRUE(hub_.Start("args", options));
  EXPECT_EQ(hub_.Report().rfind("init parent=-1", 0), 0u);
  FakeHub without;
  FakeHub::Options refused;
  refused.close_stderr = true;
  ASSERT_TRUE(without.Start("args", refused));
  EXPECT_EQ(without.Report(), "init failed err=6");
  EXPECT_EQ(without.WaitExit(), 3);
}

}  // namespace
}  // namespace varn::testing
