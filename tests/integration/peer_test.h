// The fixture shared by the tests that drive the peer program under a
// scripted hub.
#ifndef VARN_TESTS_INTEGRATION_PEER_TEST_H_
#define VARN_TESTS_INTEGRATION_PEER_TEST_H_

#include <gtest/gtest.h>

#include <string>

#include "tests/integration/fake_hub.h"

namespace varn::testing {

inline constexpr char kS1[] = "S1@h";
inline constexpr char kS2[] = "S2@h";

class PeerTest : public ::testing::Test {
 protected:
  void StartPeer(const std::string& mode, FakeHub::Options options = {}) {
    ASSERT_TRUE(hub_.Start(mode, options));
    ASSERT_EQ(hub_.Report().rfind("init parent=", 0), 0u);
    self_ = hub_.ProgramAddress();
  }
  Packet Expect(const std::string& word) {
    Packet p;
    EXPECT_TRUE(hub_.Read(&p)) << "waiting for " << word;
    EXPECT_EQ(p.word, word) << p.bytes;
    return p;
  }
  // A message from an unknown source makes the library ask the hub for the
  // process list to name it; answers that request.
  void AnswerProcessList(const std::string& records) {
    Packet request = Expect("QUERYP?");
    EXPECT_EQ(request.destination, "quon");
    EXPECT_EQ(request.payload, "NULL@NULL NULL NULL AllProcess ByName");
    ASSERT_TRUE(hub_.Send(self_, "quon", "QUERYP", records));
  }
  // The program sent S1 a command: acknowledge it, and open S1's stream
  // (the program acknowledges the BEGIN and its wait returns it).
  void AcknowledgeCommandAndBeginStream() {
    Expect("CMD");
    ASSERT_TRUE(hub_.Send(self_, kS1, "ACK"));
    EXPECT_EQ(hub_.Report().rfind("send 1", 0), 0u);
    ASSERT_TRUE(hub_.Send(self_, kS1, "BEGIN"));
    EXPECT_EQ(Expect("ACK").destination, kS1);
    EXPECT_EQ(hub_.Report(), "wait 1 err=0 cat=BEGIN text=");
  }
  // Answers the exit notice so the program can end.
  void AckExitNotice() {
    Packet p;
    ASSERT_TRUE(hub_.ReadUntil("SRVR_ERR", &p));
    EXPECT_EQ(p.destination, "quon");
    ASSERT_TRUE(hub_.Send(self_, "quon", "ACK"));
  }

  FakeHub hub_;
  std::string self_;
};

}  // namespace varn::testing

#endif  // VARN_TESTS_INTEGRATION_PEER_TEST_H_
