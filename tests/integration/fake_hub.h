// A scripted hub for the transport tests: starts a program linked to the
// library on two pipes (or one socket), writes packets into its input and
// reads its output packet by packet. Every read has a deadline.
#ifndef VARN_TESTS_INTEGRATION_FAKE_HUB_H_
#define VARN_TESTS_INTEGRATION_FAKE_HUB_H_

#include <string>
#include <vector>

#include "tests/support/launcher.h"
#include "tests/support/packet_io.h"

namespace varn::testing {

using test_support::Packet;

class FakeHub {
 public:
  struct Options {
    bool socket = false;                   // one socketpair end instead of two pipes
    std::string parent = "quon";           // value of -quon_parentid ("" for none)
    std::vector<std::string> extra;        // further arguments before the mode
    std::vector<std::string> tail;         // arguments after the mode
    std::vector<std::string> env;          // NAME=value added to the environment
    bool close_stderr = false;             // start the program without descriptor 2
    std::string program = VARN_PEER_PATH;  // the program linked to the library
  };

  FakeHub() = default;
  ~FakeHub();
  FakeHub(const FakeHub&) = delete;
  FakeHub& operator=(const FakeHub&) = delete;

  // Starts the peer program in the given scenario mode.
  bool Start(const std::string& mode, const Options& options);
  bool Start(const std::string& mode) { return Start(mode, Options{}); }

  // Writes one packet to the program.
  bool Send(const std::string& destination, const std::string& source, const std::string& word,
            const std::string& payload = "");
  bool SendRaw(const std::string& bytes);
  // Reads one packet from the program; false on timeout or end.
  bool Read(Packet* packet, int timeout_ms = 10000);
  // Reads packets until one with this word comes; false on timeout.
  bool ReadUntil(const std::string& word, Packet* packet, int timeout_ms = 10000);
  // Next line the program reported; "" on timeout or end.
  std::string Report(int timeout_ms = 10000);
  // Reports until one starts with prefix; "" on timeout.
  std::string ReportStarting(const std::string& prefix, int timeout_ms = 10000);
  // Closes the program's input channel (the hub goes away).
  void CloseInput();
  // Closes both directions: the program's writes fail from now on.
  void CloseChannel();
  // Writes `packet` again and again without blocking, up to max_bytes in
  // all; stops early once the program has taken nothing for stall_ms.
  // Returns the bytes written (whole packets only).
  std::size_t Flood(const std::string& packet, std::size_t max_bytes, int stall_ms);
  // Waits for the program to end; its exit status, or -1 on timeout
  // (then it is killed), or 128 + signal.
  int WaitExit(int timeout_ms = 10000);
  bool Signal(int signo) { return program_.Signal(signo); }
  // The address the program uses for itself.
  std::string ProgramAddress() const;

 private:
  test_support::Child program_;
  bool socket_ = false;
  int to_program_ = -1;  // in socket mode the same descriptor as from_program_
  int from_program_ = -1;
  int report_ = -1;
  test_support::PacketReader packets_;
  test_support::PacketReader reports_;
};

}  // namespace varn::testing

#endif  // VARN_TESTS_INTEGRATION_FAKE_HUB_H_
