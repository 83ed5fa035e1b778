// Packets as the tests see them on a pipe or socket: building and writing
// whole packets, and reading packets or lines back with a deadline. Used by
// the scripted hub of the library tests, by the hub tests and by the small
// clients those start.
#ifndef VARN_TESTS_SUPPORT_PACKET_IO_H_
#define VARN_TESTS_SUPPORT_PACKET_IO_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace varn::test_support {

struct Packet {
  std::string destination;
  std::string source;
  std::string word;
  std::string payload;  // without the sender's NUL padding
  std::string bytes;    // the whole packet as it came, length digits included
};

// Whole packet bytes; empty for an unknown word or an oversized packet.
std::string BuildPacket(std::string_view destination, std::string_view source,
                        std::string_view word, std::string_view payload = {});
bool WritePacket(int fd, std::string_view destination, std::string_view source,
                 std::string_view word, std::string_view payload = {});

// Reads packets and lines from one descriptor through one buffer, so the
// two can be mixed on the same stream. The descriptor stays the caller's.
class PacketReader {
 public:
  enum class Result { kOk, kTimeout, kEnd, kBad };
  PacketReader() = default;  // reads nothing: every read ends at once
  explicit PacketReader(int fd) : fd_(fd) {}

  Result Read(int timeout_ms, Packet* packet);
  // One line ending in a line feed, returned without it.
  Result ReadLine(int timeout_ms, std::string* line);

 private:
  bool Fill(std::int64_t deadline);  // false on timeout or end
  int fd_ = -1;
  std::string buffer_;
  bool ended_ = false;
};

std::string HostName();
// "pid@host" of the calling process.
std::string OwnAddress();

}  // namespace varn::test_support

#endif  // VARN_TESTS_SUPPORT_PACKET_IO_H_
