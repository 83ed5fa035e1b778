#include "transport/packet_reader.h"

#include <cstdlib>
#include <cstring>

#include "core/diag.h"
#include "core/library_state.h"
#include "platform/io.h"
#include "platform/system.h"
#include "platform/thread.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace varn::transport {
namespace {

using core::Diag;
using core::Fixed;

// Room for two of the hub's 32 KiB writes, so that a stream's records
// arrive in few reads.
constexpr std::size_t kBufferSize = 64 * 1024;

// All of this belongs to the holder of the reading turn.
char g_buffer[kBufferSize];
std::size_t g_begin = 0;  // first unparsed byte
std::size_t g_end = 0;    // one past the last byte read

// A body too large for the buffer, read straight into its block (or, when
// the block could not be had, read and dropped).
struct LargeBody {
  bool active = false;
  char* data = nullptr;  // null while the body is dropped
  std::size_t length = 0;
  std::size_t got = 0;
};
LargeBody g_large;

int ChannelFd() { return VarnChanType == VARN_CHAN_SOCKET ? Fixed().socket_fd : Fixed().quonin_fd; }

long ReadSome(void* buf, std::size_t count) {
  int fd = ChannelFd();
  if (VarnChanType == VARN_CHAN_SOCKET) return platform::SocketReceive(fd, buf, count);
  return platform::ReadSome(fd, buf, count);
}

// Waits until the channel has bytes, the wake-up descriptor (when not
// negative) is signalled, or the deadline (when not negative) passes.
enum class Ready { kBytes, kWake, kTimeout };
Ready WaitForBytes(int wake_fd, std::int64_t deadline_ms) {
  if (wake_fd < 0 && deadline_ms < 0) return Ready::kBytes;  // the read blocks
  int timeout_ms = -1;
  if (deadline_ms >= 0) {
    std::int64_t left = deadline_ms - platform::MonotonicMillis();
    timeout_ms = left > 0 ? static_cast<int>(left) : 0;
  }
  switch (platform::WaitReadableOrWake(ChannelFd(), wake_fd, timeout_ms)) {
    case platform::Readable::kTimeout:
      return Ready::kTimeout;
    case platform::Readable::kWake:
      platform::DrainWake(wake_fd);
      return Ready::kWake;
    default:
      return Ready::kBytes;
  }
}

ReadResult NotReady(Ready ready) {
  return ready == Ready::kWake ? ReadResult::kWake : ReadResult::kTimeout;
}

std::size_t Buffered() { return g_end - g_begin; }

// Takes `count` buffered bytes into dest (null: drops them).
void TakeBuffered(char* dest, std::size_t count) {
  if (dest != nullptr) std::memcpy(dest, g_buffer + g_begin, count);
  g_begin += count;
  if (g_begin == g_end) g_begin = g_end = 0;
}

ReadResult ContinueLarge(PacketBody* packet, int wake_fd, std::int64_t deadline_ms) {
  char sink[4096];
  while (g_large.got < g_large.length) {
    std::size_t left = g_large.length - g_large.got;
    Ready ready = WaitForBytes(wake_fd, deadline_ms);
    if (ready != Ready::kBytes) return NotReady(ready);
    char* to = g_large.data != nullptr ? g_large.data + g_large.got : sink;
    std::size_t room = g_large.data != nullptr ? left : (left < sizeof sink ? left : sizeof sink);
    long n = ReadSome(to, room);
    if (n <= 0) {
      std::free(g_large.data);
      g_large = LargeBody{};
      return ReadResult::kEnd;
    }
    g_large.got += static_cast<std::size_t>(n);
  }
  LargeBody done = g_large;
  g_large = LargeBody{};
  if (done.data == nullptr) return ReadResult::kSkipped;
  done.data[done.length] = '\0';
  packet->data = done.data;
  packet->length = done.length;
  return ReadResult::kPacket;
}

// The length of the buffered packet, once its six digits are there.
enum class Header { kNeedMore, kOk, kBad };
Header BufferedLength(std::size_t* length) {
  if (Buffered() < wire::kLengthDigits) return Header::kNeedMore;
  char digits[wire::kLengthDigits + 1];
  std::memcpy(digits, g_buffer + g_begin, wire::kLengthDigits);
  digits[wire::kLengthDigits] = '\0';
  if (wire::ParseLength(digits, length) != wire::WireError::kOk) {
    // A length field that is not six digits means the stream is out of
    // step; nothing after it can be trusted, so it is treated as the end.
    Diag("@@@ Thread=%u varnP_thread: bad length field \"%s\", channel closed\n",
         platform::CurrentThreadId(), digits);
    return Header::kBad;
  }
  return Header::kOk;
}

}  // namespace

bool HubPacketBuffered() {
  std::size_t length = 0;
  return !g_large.active && BufferedLength(&length) == Header::kOk &&
         Buffered() >= wire::kLengthDigits + length;
}

ReadResult ReadHubPacket(PacketBody* packet, int wake_fd, std::int64_t deadline_ms) {
  if (g_large.active) return ContinueLarge(packet, wake_fd, deadline_ms);
  for (;;) {
    std::size_t length = 0;
    Header header = BufferedLength(&length);
    if (header == Header::kBad) return ReadResult::kEnd;
    if (header == Header::kOk) {
      std::size_t whole = wire::kLengthDigits + length;
      if (Buffered() >= whole) {
        TakeBuffered(nullptr, wire::kLengthDigits);
        char* body = static_cast<char*>(std::malloc(length + 1));
        TakeBuffered(body, length);
        if (body == nullptr) {
          Diag("@@@ Thread=%u varnP_thread(2): malloc failed %d byte buffer\n",
               platform::CurrentThreadId(), static_cast<int>(length));
          return ReadResult::kSkipped;
        }
        body[length] = '\0';
        packet->data = body;
        packet->length = length;
        return ReadResult::kPacket;
      }
      if (whole > kBufferSize) {
        // Too large for the buffer: the body goes to a block of its own.
        TakeBuffered(nullptr, wire::kLengthDigits);
        g_large.active = true;
        g_large.length = length;
        g_large.data = static_cast<char*>(std::malloc(length + 1));
        if (g_large.data == nullptr) {
          Diag("@@@ Thread=%u varnP_thread(2): malloc failed %d byte buffer\n",
               platform::CurrentThreadId(), static_cast<int>(length));
        }
        g_large.got = Buffered();
        TakeBuffered(g_large.data, g_large.got);
        return ContinueLarge(packet, wake_fd, deadline_ms);
      }
    }
    // More bytes are needed: make room behind what is buffered, then read.
    if (g_begin > 0) {
      std::memmove(g_buffer, g_buffer + g_begin, Buffered());
      g_end -= g_begin;
      g_begin = 0;
    }
    Ready ready = WaitForBytes(wake_fd, deadline_ms);
    if (ready != Ready::kBytes) return NotReady(ready);
    long n = ReadSome(g_buffer + g_end, kBufferSize - g_end);
    if (n <= 0) return ReadResult::kEnd;
    g_end += static_cast<std::size_t>(n);
  }
}

}  // namespace varn::transport
