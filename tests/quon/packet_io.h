// Raw packet I/O for the hub's test clients and the test harness: building
// and writing whole packets, and reading them back with a deadline.
#ifndef VARN_TESTS_QUON_PACKET_IO_H_
#define VARN_TESTS_QUON_PACKET_IO_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace varn::quon_test {

struct RawPacket {
  std::string destination;
  std::string source;
  std::string word;
  std::string payload;  // without the NUL padding
  bool has_payload = false;
  std::string bytes;  // the packet as it came
};

// Whole packet bytes. Fails (empty) for an unknown word or an oversized packet.
std::string BuildPacket(std::string_view destination, std::string_view source,
                        std::string_view word, std::string_view payload);
bool WritePacket(int fd, std::string_view destination, std::string_view source,
                 std::string_view word, std::string_view payload);

class PacketReader {
 public:
  enum class Result { kPacket, kTimeout, kEnd, kBad };
  explicit PacketReader(int fd) : fd_(fd) {}
  Result Read(int timeout_ms, RawPacket* packet);
  // Reads one line ending in a line feed (without it), from the same buffer.
  Result ReadLine(int timeout_ms, std::string* line);

 private:
  bool Fill(std::int64_t deadline);  // false on timeout or end
  int fd_;
  std::string buffer_;
  bool ended_ = false;
};

// "pid@host" of the calling process.
std::string OwnAddress();
std::string HostName();

}  // namespace varn::quon_test

#endif  // VARN_TESTS_QUON_PACKET_IO_H_
