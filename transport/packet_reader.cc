#include "transport/packet_reader.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/diag.h"
#include "core/library_state.h"
#include "platform/io.h"
#include "platform/system.h"
#include "platform/thread.h"
#include "transport/links.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace varn::transport {
namespace {

using core::Diag;
using core::Fixed;

// Room for two of a streaming peer's 128 KiB DATA packets (what a link's
// grown pipe holds), so that a stream's records arrive in few reads. The
// block is allocated once per source; its pages are taken only as data
// fills them.
constexpr std::size_t kBufferSize = 256 * 1024;

// How long the hub's notice that a linked peer ended waits for the rest of
// the peer's link to be read (the peer has ended, so its end of the link is
// closed and the rest is there; the bound is for a child it forked that
// kept the descriptor).
constexpr int kDrainMs = 500;

// A body too large for the buffer, read straight into its block (or, when
// the block could not be had, read and dropped).
struct LargeBody {
  bool active = false;
  char* data = nullptr;  // null while the body is dropped
  std::size_t length = 0;
  std::size_t got = 0;
};

enum class Header { kNeedMore, kOk, kBad };
enum class Take { kPacket, kSkipped, kNeedMore, kBad };

// Where packets come from: the channel to the hub, or the read end of a
// link to a peer. Each keeps its own buffer, since packets may stop half
// way in any of them.
class Source {
 public:
  Source(int fd, bool socket, std::string peer)
      : fd_(fd), socket_(socket), peer_(std::move(peer)), buffer_(new char[kBufferSize]) {}
  ~Source() { std::free(large_.data); }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  int fd() const { return fd_; }
  const std::string& peer() const { return peer_; }

  // A whole packet from what is buffered, or kNeedMore (a large body may
  // have been started: its bytes then come through Fill).
  Take Extract(PacketBody* packet) {
    if (large_.active) return FinishLarge(packet);
    std::size_t length = 0;
    Header header = BufferedLength(&length);
    if (header == Header::kBad) return Take::kBad;
    if (header == Header::kNeedMore) return Take::kNeedMore;
    std::size_t whole = wire::kLengthDigits + length;
    if (Buffered() >= whole) {
      TakeBuffered(nullptr, wire::kLengthDigits);
      char* body = static_cast<char*>(std::malloc(length + 1));
      TakeBuffered(body, length);
      if (body == nullptr) {
        Diag("@@@ Thread=%u varnP_thread(2): malloc failed %d byte buffer\n",
             platform::CurrentThreadId(), static_cast<int>(length));
        return Take::kSkipped;
      }
      body[length] = '\0';
      packet->data = body;
      packet->length = length;
      return Take::kPacket;
    }
    if (whole > kBufferSize) {
      // Too large for the buffer: the body goes to a block of its own.
      TakeBuffered(nullptr, wire::kLengthDigits);
      large_.active = true;
      large_.length = length;
      large_.data = static_cast<char*>(std::malloc(length + 1));
      if (large_.data == nullptr) {
        Diag("@@@ Thread=%u varnP_thread(2): malloc failed %d byte buffer\n",
             platform::CurrentThreadId(), static_cast<int>(length));
      }
      large_.got = Buffered();
      TakeBuffered(large_.data, large_.got);
      return FinishLarge(packet);
    }
    return Take::kNeedMore;
  }

  // One read: into the large body in progress, or behind what is buffered.
  // The count, 0 at the end, -1 on failure.
  long Fill() {
    if (large_.active) {
      char sink[4096];
      std::size_t left = large_.length - large_.got;
      char* to = large_.data != nullptr ? large_.data + large_.got : sink;
      std::size_t room = large_.data != nullptr ? left : (left < sizeof sink ? left : sizeof sink);
      long n = ReadSome(to, room);
      if (n > 0) large_.got += static_cast<std::size_t>(n);
      return n;
    }
    if (begin_ > 0) {
      std::memmove(buffer_.get(), buffer_.get() + begin_, Buffered());
      end_ -= begin_;
      begin_ = 0;
    }
    long n = ReadSome(buffer_.get() + end_, kBufferSize - end_);
    if (n > 0) end_ += static_cast<std::size_t>(n);
    return n;
  }

 private:
  std::size_t Buffered() const { return end_ - begin_; }

  // Takes `count` buffered bytes into dest (null: drops them).
  void TakeBuffered(char* dest, std::size_t count) {
    if (dest != nullptr) std::memcpy(dest, buffer_.get() + begin_, count);
    begin_ += count;
    if (begin_ == end_) begin_ = end_ = 0;
  }

  // The length of the buffered packet, once its six digits are there.
  Header BufferedLength(std::size_t* length) const {
    if (Buffered() < wire::kLengthDigits) return Header::kNeedMore;
    char digits[wire::kLengthDigits + 1];
    std::memcpy(digits, buffer_.get() + begin_, wire::kLengthDigits);
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

  Take FinishLarge(PacketBody* packet) {
    if (large_.got < large_.length) return Take::kNeedMore;
    LargeBody done = large_;
    large_ = LargeBody{};
    if (done.data == nullptr) return Take::kSkipped;
    done.data[done.length] = '\0';
    packet->data = done.data;
    packet->length = done.length;
    return Take::kPacket;
  }

  long ReadSome(void* buf, std::size_t count) {
    return socket_ ? platform::SocketReceive(fd_, buf, count) : platform::ReadSome(fd_, buf, count);
  }

  int fd_;
  bool socket_;
  std::string peer_;  // empty for the hub
  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;  // first unparsed byte
  std::size_t end_ = 0;    // one past the last byte read
  LargeBody large_;
};

// All of this belongs to the holder of the reading turn. Source 0 is the
// hub's channel; links follow as their "link over" arrives.
// Never destroyed: the input thread may still read while the process exits.
std::vector<std::unique_ptr<Source>>& g_sources = *new std::vector<std::unique_ptr<Source>>;
std::size_t g_next = 0;  // where the search for a buffered packet starts

// The hub's notice that a linked peer ended, held back while that peer's
// link is read to its end.
PacketBody g_notice;
Source* g_draining = nullptr;
std::int64_t g_drain_until = 0;

void EndDrain() {
  g_draining = nullptr;
  g_drain_until = 0;
}

// The hub's channel as the source to read first. A channel set up anew
// (the library initialised again after varn_deinit) starts from nothing:
// what was buffered, and any link, belonged to the old one.
void UseCurrentChannel() {
  bool socket = VarnChanType == VARN_CHAN_SOCKET;
  int fd = socket ? Fixed().socket_fd : Fixed().quonin_fd;
  if (!g_sources.empty() && g_sources[0]->fd() == fd) return;
  for (std::size_t i = 1; i < g_sources.size(); ++i) {
    LinkEnded(g_sources[i]->peer(), g_sources[i]->fd());
  }
  g_sources.clear();
  g_next = 0;
  std::free(g_notice.data);
  g_notice = PacketBody{};
  EndDrain();
  g_sources.push_back(std::make_unique<Source>(fd, socket, ""));
}

// Drops a link that reached its end (or went out of step).
void RemoveSource(Source* source) {
  if (source == g_draining) EndDrain();
  for (auto it = g_sources.begin() + 1; it != g_sources.end(); ++it) {
    if (it->get() != source) continue;
    LinkEnded(source->peer(), source->fd());
    g_sources.erase(it);
    break;
  }
  g_next = 0;
}

Source* SourceOfPeer(std::string_view peer) {
  for (std::size_t i = 1; i < g_sources.size(); ++i) {
    if (g_sources[i]->peer() == peer) return g_sources[i].get();
  }
  return nullptr;
}

// What the reader does with a packet from the hub's channel while links
// are on: a link control is carried out here and goes no further; the
// notice that a linked peer ended waits until its link was read.
enum class Seen { kPass, kConsumed, kHeld };
Seen Inspect(PacketBody* packet) {
  wire::Header header;
  if (wire::SplitBody(packet->data, packet->length, &header) != wire::WireError::kOk) {
    return Seen::kPass;
  }
  int category = VARN_NONE;
  wire::CategoryFromWord(header.word, &category);
  if (category == VARN_PING && header.has_payload) {
    std::string_view payload(packet->data + header.payload_offset, header.payload_length);
    std::string source(header.source);
    int read_fd = -1;
    if (!HandleLinkControl(source, payload, &read_fd)) return Seen::kPass;
    // The hub links a process with at most kMaxLinksPerProcess peers, so
    // every link fits beside the hub's channel and the wake-up descriptor.
    static_assert(wire::kMaxLinksPerProcess + 2 <= platform::kMaxWaitFds);
    if (read_fd >= 0) g_sources.push_back(std::make_unique<Source>(read_fd, false, source));
    std::free(packet->data);
    *packet = PacketBody{};
    return Seen::kConsumed;
  }
  if (category == VARN_SRVR_ERR) {
    Source* link = SourceOfPeer(header.source);
    if (link == nullptr) {
      // A peer that ended before its link carried anything: nothing is
      // kept open for it.
      LinkEnded(header.source, -1);
      return Seen::kPass;
    }
    g_notice = *packet;
    *packet = PacketBody{};
    g_draining = link;
    g_drain_until = platform::MonotonicMillis() + kDrainMs;
    return Seen::kHeld;
  }
  return Seen::kPass;
}

// The held notice, once the link it waits for was read.
bool TakeNotice(PacketBody* packet) {
  if (g_notice.data == nullptr || g_draining != nullptr) return false;
  *packet = g_notice;
  g_notice = PacketBody{};
  return true;
}

enum class Found { kPacket, kSkipped, kNone, kEnd };

// A whole packet already buffered: from the link being drained only, else
// from any source in turn, the hub's channel first. A source in the middle
// of a large body holds up no other: each has its own buffer, and a peer
// that stops half way through a packet must not keep the hub's channel
// (its interrupts, its notice of that peer's end) unread.
Found TakeBufferedPacket(PacketBody* packet) {
  for (;;) {
    if (TakeNotice(packet)) return Found::kPacket;
    Source* only = g_draining;
    std::size_t count = only != nullptr ? 1 : g_sources.size();
    bool again = false;
    for (std::size_t k = 0; k < count && !again; ++k) {
      std::size_t i = (g_next + k) % g_sources.size();
      Source* s = only != nullptr ? only : g_sources[i].get();
      Take t = s->Extract(packet);
      if (t == Take::kNeedMore) continue;
      if (t == Take::kBad) {
        if (s == g_sources[0].get()) return Found::kEnd;
        RemoveSource(s);
        again = true;
        break;
      }
      if (only == nullptr) g_next = (i + 1) % g_sources.size();
      if (t == Take::kSkipped) return Found::kSkipped;
      if (s != g_sources[0].get() || !LinksEnabled()) return Found::kPacket;
      Seen seen = Inspect(packet);
      if (seen == Seen::kPass) return Found::kPacket;
      again = true;  // consumed or held: look again
    }
    if (!again) return Found::kNone;
  }
}

}  // namespace

ReadResult ReadHubPacket(PacketBody* packet, int wake_fd, std::int64_t deadline_ms,
                         void (*before_block)()) {
  UseCurrentChannel();
  for (;;) {
    switch (TakeBufferedPacket(packet)) {
      case Found::kPacket:
        return ReadResult::kPacket;
      case Found::kSkipped:
        return ReadResult::kSkipped;
      case Found::kEnd:
        return ReadResult::kEnd;
      case Found::kNone:
        break;
    }
    // More bytes are needed: from the link being drained, or from
    // whichever source has some.
    Source* only = g_draining;
    if (before_block != nullptr) before_block();
    int fds[platform::kMaxWaitFds];
    bool ready[platform::kMaxWaitFds] = {};
    Source* polled[platform::kMaxWaitFds];
    int count = 0;
    for (auto& s : g_sources) {
      if (only != nullptr && s.get() != only) continue;
      if (count == platform::kMaxWaitFds) break;
      polled[count] = s.get();
      fds[count++] = s->fd();
    }
    if (count == 1 && wake_fd < 0 && deadline_ms < 0 && g_draining == nullptr) {
      ready[0] = true;  // one source and nothing else to watch: the read blocks
    } else {
      std::int64_t until = deadline_ms;
      if (g_draining != nullptr && (until < 0 || g_drain_until < until)) until = g_drain_until;
      int timeout_ms = -1;
      if (until >= 0) {
        std::int64_t left = until - platform::MonotonicMillis();
        timeout_ms = left > 0 ? static_cast<int>(left) : 0;
      }
      platform::Readable r = platform::WaitReadableAmong(fds, ready, count, wake_fd, timeout_ms);
      if (r == platform::Readable::kWake) {
        platform::DrainWake(wake_fd);
        return ReadResult::kWake;
      }
      if (r == platform::Readable::kTimeout) {
        if (g_draining != nullptr && platform::MonotonicMillis() >= g_drain_until) {
          // The notice goes out now; the link ends with it (another process
          // kept the peer's end open).
          RemoveSource(g_draining);
          continue;
        }
        return ReadResult::kTimeout;
      }
    }
    for (int i = 0; i < count; ++i) {
      if (!ready[i]) continue;
      long n = polled[i]->Fill();
      if (n > 0) continue;
      if (polled[i] == g_sources[0].get()) return ReadResult::kEnd;
      RemoveSource(polled[i]);  // the peer's end of the link closed
      break;                    // polled[] may name removed sources now
    }
  }
}

}  // namespace varn::transport
