#include "tests/support/packet_io.h"

#include "platform/io.h"
#include "platform/system.h"
#include "transport/wire_format.h"

namespace varn::test_support {

std::string BuildPacket(std::string_view destination, std::string_view source,
                        std::string_view word, std::string_view payload) {
  int category = 0;
  if (!wire::CategoryFromWord(word, &category)) return {};
  std::size_t size = wire::PacketSize(destination, source, category, payload.size());
  if (size == 0) return {};
  std::string bytes(size, '\0');
  wire::BuildPacket(bytes.data(), bytes.size(), destination, source, category,
                    payload.empty() ? nullptr : payload.data(), payload.size(), &size);
  return bytes;
}

bool WritePacket(int fd, std::string_view destination, std::string_view source,
                 std::string_view word, std::string_view payload) {
  std::string bytes = BuildPacket(destination, source, word, payload);
  return !bytes.empty() && platform::WriteAll(fd, bytes.data(), bytes.size());
}

bool PacketReader::Fill(std::int64_t deadline) {
  if (fd_ < 0) ended_ = true;
  if (ended_) return false;
  std::int64_t left = deadline - platform::MonotonicMillis();
  if (left < 0) left = 0;
  if (!platform::WaitReadable(fd_, static_cast<int>(left))) return false;
  char chunk[65536];
  long n = platform::ReadSome(fd_, chunk, sizeof chunk);
  if (n <= 0) {
    ended_ = true;
    return false;
  }
  buffer_.append(chunk, static_cast<std::size_t>(n));
  return true;
}

PacketReader::Result PacketReader::Read(int timeout_ms, Packet* packet) {
  std::int64_t deadline = platform::MonotonicMillis() + timeout_ms;
  for (;;) {
    if (buffer_.size() >= wire::kLengthDigits) {
      std::size_t length = 0;
      if (wire::ParseLength(buffer_.data(), &length) != wire::WireError::kOk) return Result::kBad;
      std::size_t total = wire::kLengthDigits + length;
      if (buffer_.size() >= total) {
        Packet p;
        p.bytes = buffer_.substr(0, total);
        buffer_.erase(0, total);
        wire::Header h;
        if (wire::SplitBody(p.bytes.data() + wire::kLengthDigits, length, &h) !=
            wire::WireError::kOk) {
          return Result::kBad;
        }
        p.destination = h.destination;
        p.source = h.source;
        p.word = h.word;
        if (h.has_payload) {
          p.payload = p.bytes.substr(wire::kLengthDigits + h.payload_offset, h.payload_length);
          while (!p.payload.empty() && p.payload.back() == '\0') p.payload.pop_back();
        }
        *packet = std::move(p);
        return Result::kOk;
      }
    }
    if (!Fill(deadline)) return ended_ ? Result::kEnd : Result::kTimeout;
  }
}

PacketReader::Result PacketReader::ReadLine(int timeout_ms, std::string* line) {
  std::int64_t deadline = platform::MonotonicMillis() + timeout_ms;
  for (;;) {
    std::size_t nl = buffer_.find('\n');
    if (nl != std::string::npos) {
      *line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return Result::kOk;
    }
    if (!Fill(deadline)) return ended_ ? Result::kEnd : Result::kTimeout;
  }
}

std::string HostName() {
  char host[256];
  if (!platform::HostName(host, sizeof host)) return "localhost";
  return host;
}

std::string OwnAddress() { return std::to_string(platform::ProcessId()) + "@" + HostName(); }

}  // namespace varn::test_support
