// The transport as it fails in real use: a scripted hub drives a real
// program over real pipes (or a socket) and checks the bytes it writes.
#include <gtest/gtest.h>

#include <string>

#include "tests/integration/peer_test.h"

namespace varn::testing {
namespace {

using TransportTest = PeerTest;

TEST_F(TransportTest, CommandExchangeIsByteExact) {
  StartPeer("command");
  Packet cmd = Expect("CMD");
  std::string body = std::string(kS1) + " " + self_ + " CMD run 1";
  std::size_t padded = body.size() + (body.size() % 4 == 2 ? 0 : 4 - (body.size() - 2) % 4);
  char digits[8];
  std::snprintf(digits, sizeof digits, "%06zu", padded);
  EXPECT_EQ(cmd.bytes, std::string(digits) + body + std::string(padded - body.size(), '\0'));
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1 err=0");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "finished"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=finished");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, DoneBeforeAckIsQueuedForTheNextWait) {
  StartPeer("command");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "early"));
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1 err=0");
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=early");
  AckExitNotice();
}

TEST_F(TransportTest, ServerAcknowledgesEachCommandAtOnce) {
  StartPeer("serve");
  EXPECT_EQ(hub_.Report(), "ready");
  Expect("STATUS");  // the main loop announces itself
  // A CMD from S1 is served at once.
  ASSERT_TRUE(hub_.Send(self_, kS1, "CMD", "first"));
  AnswerProcessList("client S1@h quon@h 0");
  Packet ack = Expect("ACK");
  EXPECT_EQ(ack.destination, kS1);
  EXPECT_EQ(hub_.Report(), "callback CMD first");
  ASSERT_TRUE(hub_.Send(self_, kS2, "CMD", "second"));
  AnswerProcessList("client S1@h quon@h 0 other S2@h quon@h 1");
  ack = Expect("ACK");
  EXPECT_EQ(ack.destination, kS2);
  EXPECT_EQ(hub_.Report(), "callback CMD second");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, CommandIsAcknowledgedWhileTheServerIsStillBusyWithIt) {
  StartPeer("serve");
  EXPECT_EQ(hub_.Report(), "ready");
  Expect("STATUS");
  ASSERT_TRUE(hub_.Send(self_, kS1, "CMD", "busy 1500"));
  AnswerProcessList("client S1@h quon@h 0");
  // The acknowledgement does not wait for the answer: it arrives long
  // before the 1.5 s of work are over, and the answer follows it.
  Packet ack;
  ASSERT_TRUE(hub_.Read(&ack, 700));
  EXPECT_EQ(ack.word, "ACK");
  EXPECT_EQ(ack.destination, kS1);
  Packet done = Expect("DONE");
  EXPECT_EQ(done.payload, "rested");
  EXPECT_EQ(hub_.Report(), "callback CMD busy 1500");
  // A quick answer leaves right behind its acknowledgement.
  ASSERT_TRUE(hub_.Send(self_, kS1, "CMD", "where S1@h"));
  EXPECT_EQ(Expect("ACK").destination, kS1);
  EXPECT_EQ(Expect("DONE").destination, kS1);
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, PacketsCutAnywhereAndLargerThanOneReadArriveWhole) {
  StartPeer("big-answer");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1");
  std::string text;
  long sum = 0;
  for (int i = 0; i < 200000; ++i) {
    text += static_cast<char>('a' + i % 26);
    sum += 'a' + i % 26;
  }
  // The answer (larger than what the library reads at once) is written in
  // pieces cut inside the length digits and inside the body, behind a
  // status query in the same write as its first piece.
  std::string big = test_support::BuildPacket(self_, kS1, "DONE", text);
  std::string query = test_support::BuildPacket(self_, "X@h", "STATUS?", "");
  ASSERT_TRUE(hub_.SendRaw(query + big.substr(0, 3)));
  EXPECT_EQ(Expect("STATUS").destination, "X@h");
  ASSERT_TRUE(hub_.SendRaw(big.substr(3, 70000)));
  ASSERT_TRUE(hub_.SendRaw(big.substr(70003)));
  // The length counts the padding NULs behind the text (0 to 3 of them).
  std::string report = hub_.Report();
  EXPECT_EQ(report.rfind("wait 1 cat=DONE length=20000", 0), 0u) << report;
  EXPECT_NE(report.find(" sum=" + std::to_string(sum)), std::string::npos) << report;
  AckExitNotice();
}

TEST_F(TransportTest, QueuedCommandDuringAckWaitGetsOneAck) {
  StartPeer("command");
  Expect("CMD");
  // While the program waits for S1's ACK, S2 sends a command.
  ASSERT_TRUE(hub_.Send(self_, kS2, "CMD", "meanwhile"));
  Packet ack = Expect("ACK");
  EXPECT_EQ(ack.destination, kS2);
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1 err=0");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=");
  // The queued command is handled at exit time at the latest, without a
  // second ACK: the next packet is the exit notice.
  Packet next;
  ASSERT_TRUE(hub_.Read(&next));
  EXPECT_EQ(next.word, "SRVR_ERR");
  ASSERT_TRUE(hub_.Send(self_, "quon", "ACK"));
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, BatchedStreamReadsBackRecordByRecordAcrossPackets) {
  StartPeer("stream");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1");
  ASSERT_TRUE(hub_.Send(self_, kS1, "BEGIN", "rows"));
  EXPECT_EQ(Expect("ACK").destination, kS1);
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=BEGIN text=rows");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", "000003abc000002de"));
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", std::string("000005f g h", 11)));
  ASSERT_TRUE(hub_.Send(self_, kS1, "END", "done"));
  EXPECT_EQ(hub_.Report(), "record 3 abc");
  EXPECT_EQ(hub_.Report(), "record 2 de");
  EXPECT_EQ(hub_.Report(), "record 5 f g h");
  Expect("ACK");  // for the END
  EXPECT_EQ(hub_.Report(), "end done");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "ok"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=ok");
  AckExitNotice();
}

// Records to two streams in turn: each peer's batch goes out when records
// turn to the other, byte for byte; and a buffered stream is read only
// through its own row.
TEST_F(TransportTest, RecordsToTwoStreamsInTurnKeepTheirPeersAndOrder) {
  StartPeer("two-streams");
  EXPECT_EQ(Expect("BEGIN").destination, kS1);
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(Expect("BEGIN").destination, kS2);
  ASSERT_TRUE(hub_.Send(self_, kS2, "ACK"));
  EXPECT_EQ(hub_.Report(), "begin 1 1");
  EXPECT_EQ(hub_.Report(), "records 5");
  const std::pair<const char*, std::string> batches[] = {
      {kS1, "000003abc000005hello"}, {kS2, "000002xy"}, {kS1, "000001z"}, {kS2, "000000"}};
  for (const auto& [peer, payload] : batches) {
    Packet p = Expect("DATA");
    EXPECT_EQ(p.destination, peer);
    EXPECT_EQ(p.payload, payload);
  }
  EXPECT_EQ(Expect("END").destination, kS1);
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(Expect("END").destination, kS2);
  ASSERT_TRUE(hub_.Send(self_, kS2, "ACK"));
  EXPECT_EQ(hub_.Report(), "end 1 1");

  ASSERT_TRUE(hub_.Send(self_, kS1, "BEGIN", "t"));
  Expect("ACK");
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=BEGIN text=t");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", "000002r1000002r2"));
  EXPECT_EQ(hub_.Report(), "record 1 r1");
  EXPECT_EQ(hub_.Report(), "other 0 err=41");
  ASSERT_TRUE(hub_.Send(self_, kS1, "END"));
  EXPECT_EQ(hub_.Report(), "record 2 r2");
  Expect("ACK");
  EXPECT_EQ(hub_.Report(), "end ");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

// A call's acknowledgement that comes during its status query at the
// deadline: the call waits on only until that query's answer is due (no
// second query), and takes the answer as its reason when it comes first.
TEST_F(TransportTest, AcknowledgementDuringTheDeadlineQueryAsksNoSecondTime) {
  StartPeer("call-deadline");
  Expect("CMD");
  EXPECT_EQ(Expect("STATUS?").destination, kS1);
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  EXPECT_EQ(hub_.Report(), "call 0 err=79 detail=");
  // That query's answer, late: dropped, it answers nothing later.
  ASSERT_TRUE(hub_.Send(self_, kS1, "STATUS", "BUSY late"));
  // The next packet is the second call's command, not another query.
  Expect("CMD");
  Expect("STATUS?");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  ASSERT_TRUE(hub_.Send(self_, kS1, "STATUS", "BUSY working"));
  EXPECT_EQ(hub_.Report(), "call 0 err=77 detail=working");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, StatusAndQueryAreAnsweredByTheLibrary) {
  StartPeer("serve");
  EXPECT_EQ(hub_.Report(), "ready");
  Expect("STATUS");
  ASSERT_TRUE(hub_.Send(self_, "X@h", "STATUS?"));
  Packet status = Expect("STATUS");
  EXPECT_EQ(status.destination, "X@h");
  EXPECT_EQ(status.payload, "IDLE");
  ASSERT_TRUE(hub_.Send(self_, "X@h", "QUERY?", "X@h:nobody"));
  Packet query = Expect("QUERY");
  EXPECT_EQ(query.payload, "");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, BusyNakRefusesBegin) {
  StartPeer("begin");
  Expect("BEGIN");
  ASSERT_TRUE(hub_.Send(self_, kS1, "NAK", "BUSY"));
  EXPECT_EQ(hub_.Report(), "begin 0 err=42 send_stream=1");
  AckExitNotice();
}

TEST_F(TransportTest, PlainNakLeavesStreamOpen) {
  StartPeer("begin");
  Expect("BEGIN");
  ASSERT_TRUE(hub_.Send(self_, kS1, "NAK"));
  EXPECT_EQ(hub_.Report(), "begin 0 err=0 send_stream=2");
  AckExitNotice();
}

TEST_F(TransportTest, ExitNoticeDuringAckWaitClosesTheConnection) {
  StartPeer("command");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "SRVR_ERR", "exit 1"));
  EXPECT_EQ(hub_.Report(), "send 0 err=13");
  // The row is free now: a wait on it cannot be answered and fails at once.
  EXPECT_EQ(hub_.Report(), "wait 0 err=13 cat=- text=");
  AckExitNotice();
}

TEST_F(TransportTest, HubClosingTheChannelEndsTheWaitWith43) {
  StartPeer("sticky");
  hub_.CloseInput();
  EXPECT_EQ(hub_.Report(), "wait 0 err=43 cat=- text=");
  EXPECT_EQ(hub_.Report(), "after send=0 err=43");
  EXPECT_EQ(hub_.Report(), "after wait=0 err=43");
  EXPECT_EQ(hub_.Report(), "after kill=0 err=43");
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, HubLossDuringWaitOnPeerEndsWith43) {
  StartPeer("sticky");
  ASSERT_TRUE(hub_.Send(self_, "quon", "SRVR_ERR"));
  EXPECT_EQ(hub_.Report(), "wait 0 err=43 cat=- text=");
  EXPECT_EQ(hub_.Report(), "after send=0 err=43");
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, IntrWhileSpinningHoldsTheApplicationThread) {
  StartPeer("spin");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "I@h", "INTR", "stop"));
  EXPECT_EQ(hub_.Report(), "callback INTR held=1");
  // And again: the thread carried on after the first one.
  ASSERT_TRUE(hub_.Send(self_, "I@h", "INTR"));
  EXPECT_EQ(hub_.Report(), "callback INTR held=1");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  EXPECT_EQ(hub_.Report(), "callback KILL ");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, StatusQueryIsAnsweredWhileBusyInOwnCode) {
  StartPeer("spin");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "X@h", "STATUS?"));
  Packet status = Expect("STATUS");
  EXPECT_EQ(status.destination, "X@h");
  EXPECT_EQ(status.source, self_);
  EXPECT_EQ(status.payload, "BUSY spinning");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, IntrDuringBlockedWaitLetsTheWaitGoOn) {
  StartPeer("block");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "I@h", "INTR", "poke"));
  EXPECT_EQ(hub_.Report(), "callback INTR held=1");
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "after"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=after");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, KillWhileWaitingEndsWithStatusZeroAfterExitNotice) {
  StartPeer("block");
  EXPECT_EQ(hub_.Report(), "ready");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  Packet notice;
  ASSERT_TRUE(hub_.ReadUntil("SRVR_ERR", &notice));
  EXPECT_EQ(notice.destination, "quon");
  EXPECT_EQ(notice.source, self_);
  ASSERT_TRUE(hub_.Send(self_, "quon", "ACK"));
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, PingNeverReachesTheApplication) {
  StartPeer("serve");
  EXPECT_EQ(hub_.Report(), "ready");
  Expect("STATUS");
  ASSERT_TRUE(hub_.Send(self_, "quon", "PING"));
  ASSERT_TRUE(hub_.Send(self_, "X@h", "DATA", "after ping"));
  AnswerProcessList("x X@h quon@h 0");
  EXPECT_EQ(hub_.Report(), "callback DATA after ping");
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  AckExitNotice();
}

TEST_F(TransportTest, TwoPeersInterleavedAreEachReadInTurn) {
  StartPeer("two");
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
  Expect("CMD");
  ASSERT_TRUE(hub_.Send(self_, kS2, "ACK"));
  EXPECT_EQ(hub_.Report(), "send 1");
  EXPECT_EQ(hub_.Report(), "send 1");
  // While the program waits on S2, S1 sends a whole stream and its DONE.
  ASSERT_TRUE(hub_.Send(self_, kS1, "BEGIN", "t"));
  EXPECT_EQ(Expect("ACK").destination, kS1);
  ASSERT_TRUE(hub_.Send(self_, kS1, "DATA", "000002r1000002r2"));
  ASSERT_TRUE(hub_.Send(self_, kS1, "END"));
  EXPECT_EQ(Expect("ACK").destination, kS1);
  ASSERT_TRUE(hub_.Send(self_, kS1, "DONE", "one"));
  ASSERT_TRUE(hub_.Send(self_, kS2, "DONE", "two"));
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=two");
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=BEGIN text=t");
  EXPECT_EQ(hub_.Report(), "record 2 r1");
  EXPECT_EQ(hub_.Report(), "record 2 r2");
  EXPECT_EQ(hub_.Report(), "end ");
  EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=DONE text=one");
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

TEST_F(TransportTest, OptionsAreRemovedAndScanStopsAtMissingArgument) {
  FakeHub::Options options;
  options.parent = "12@h";
  options.extra = {"-x"};
  options.tail = {"-quon_sleep"};  // its argument is missing: the scan stops there
  ASSERT_TRUE(hub_.Start("args", options));
  EXPECT_EQ(hub_.Report(), "init parent=0");
  std::string line = hub_.Report();
  EXPECT_NE(line.find(" -x -report "), std::string::npos) << line;
  EXPECT_NE(line.find(" args -quon_sleep argc=6"), std::string::npos) << line;
  EXPECT_EQ(line.find("-quon_quonin"), std::string::npos) << line;
  EXPECT_EQ(hub_.Report(), "parent=12@h chan=1");
}

TEST_F(TransportTest, InvalidDescriptorArgumentFailsInit) {
  FakeHub::Options options;
  options.extra = {"-quon_quonin", "1a4x"};  // the later one wins
  ASSERT_TRUE(hub_.Start("args", options));
  EXPECT_EQ(hub_.Report(), "init failed err=6");
  EXPECT_EQ(hub_.WaitExit(), 3);
}

TEST_F(TransportTest, SocketModeForwardsLongErrorLineInTwoPackets) {
  FakeHub::Options options;
  options.socket = true;
  StartPeer("stderr", options);
  EXPECT_EQ(hub_.Report(), "written");
  Packet first, second;
  ASSERT_TRUE(hub_.ReadUntil("STDERR", &first));
  ASSERT_TRUE(hub_.ReadUntil("STDERR", &second));
  EXPECT_EQ(first.destination, "quon");
  EXPECT_EQ(first.payload, std::string(511, 'x'));
  EXPECT_EQ(second.payload, std::string(89, 'x'));
  ASSERT_TRUE(hub_.Send(self_, "quon", "KILL"));
  AckExitNotice();
  EXPECT_EQ(hub_.WaitExit(), 0);
}

}  // namespace
}  // namespace varn::testing
