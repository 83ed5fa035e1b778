// A running hub for one test: quon started with the bridge as its first
// client, so that the test speaks packets as that client (address()).
// Standard error of the hub (its log, shared by the clients) is readable
// line by line. Every wait has a deadline.
#ifndef VARN_TESTS_QUON_HUB_SESSION_H_
#define VARN_TESTS_QUON_HUB_SESSION_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/launcher.h"
#include "tests/support/packet_io.h"

namespace varn::quon_test {

using test_support::BuildPacket;
using test_support::Packet;
using test_support::PacketReader;

// Generous: the sanitizer build is several times slower.
inline constexpr int kWaitMs = 20000;

class HubSession {
 public:
  HubSession() = default;
  ~HubSession();
  HubSession(const HubSession&) = delete;
  HubSession& operator=(const HubSession&) = delete;

  // Starts `quon OPTIONS... bridge` and reads the bridge's address.
  ::testing::AssertionResult Start(const std::vector<std::string>& options = {});

  const std::string& address() const { return address_; }
  const std::string& host() const { return host_; }

  bool Send(const std::string& destination, const std::string& word,
            const std::string& payload = "");
  bool SendBytes(const std::string& bytes);

  // The next packet; fails the test on timeout or end.
  ::testing::AssertionResult Next(Packet* packet, int timeout_ms = kWaitMs);
  // The next packet must have this word and source ("" for any source).
  ::testing::AssertionResult Expect(const std::string& word, const std::string& source,
                                    Packet* packet = nullptr);
  // The next packet must be exactly this word, source and payload.
  ::testing::AssertionResult ExpectPayload(const std::string& word, const std::string& source,
                                           const std::string& payload);

  // INVOKE (or another start word) from "quon"; returns the new address or
  // "" after a failed expectation.
  std::string Invoke(const std::string& command_and_args, const std::string& word = "INVOKE");

  // Reads log lines until one contains text.
  ::testing::AssertionResult WaitLog(const std::string& text, std::string* line = nullptr);

  // Sends the signal to the hub.
  void Signal(int signo);
  // Ends the session: closes the bridge's input (the bridge ends), then
  // waits for the hub to exit. Returns its exit code, or -1 on timeout.
  int Finish(int timeout_ms = kWaitMs);
  // Waits for the hub to exit without touching the bridge.
  int WaitExit(int timeout_ms = kWaitMs);

  // Descriptors the hub has open now.
  std::vector<std::string> HubFds() const;

 private:
  test_support::Child hub_;
  int to_bridge_ = -1;
  int from_bridge_ = -1;
  int log_ = -1;
  PacketReader packets_;
  PacketReader log_lines_;
  std::string address_;
  std::string host_;
};

// Runs quon with the given arguments (no bridge) to its end: its exit
// code, -1 on timeout.
int RunHub(const std::vector<std::string>& args, int timeout_ms = kWaitMs);

std::string QclientDir();

}  // namespace varn::quon_test

#endif  // VARN_TESTS_QUON_HUB_SESSION_H_
