// The hub's packet framer on a client's byte stream.
//
// The input is the stream. It is framed twice: handed over in one read, and
// in reads of varying sizes the way a connection reads (Reserve, a read of
// at most what was reserved, Commit, then Next until it needs more). Up to
// the first length field that is not six digits (after which the framer
// drops whatever happens to be buffered, so the two runs may differ) both
// must give the same packets and refusals. Every packet handed out must be
// a whole, well-formed packet with a known category.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "quon/packet_framer.h"
#include "tests/fuzz/fuzz_support.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace {

using varn::fuzz::WirePacket;
using varn::quon::Packet;
using varn::quon::PacketFramer;
namespace wire = varn::wire;

constexpr std::string_view kBadLengthReason = "length field is not six digits";

struct Event {
  bool packet = false;
  std::string text;  // the packet's bytes, or the refusal's reason
  int category = 0;
  bool operator==(const Event&) const = default;
};

void CheckPacket(const Packet& p) {
  FUZZ_CHECK(p.size >= wire::kLengthDigits && p.size < wire::kPacketLimit);
  std::size_t length = 0;
  FUZZ_CHECK(wire::ParseLength(p.data, &length) == wire::WireError::kOk);
  FUZZ_CHECK(p.size == wire::kLengthDigits + length);
  // The header's views and the payload lie inside the packet's body.
  const char* body = p.data + wire::kLengthDigits;
  const char* end = p.data + p.size;
  for (std::string_view part : {p.header.destination, p.header.source, p.header.word}) {
    FUZZ_CHECK(!part.empty() && part.data() >= body && part.data() + part.size() <= end);
    FUZZ_CHECK(part.find(' ') == std::string_view::npos);
    FUZZ_CHECK(part.find('\0') == std::string_view::npos);
  }
  std::string_view payload = p.raw_payload();
  if (p.header.has_payload) {
    FUZZ_CHECK(payload.data() >= body && payload.data() + payload.size() == end);
  } else {
    FUZZ_CHECK(payload.empty());
  }
  std::string_view text = p.text();
  FUZZ_CHECK(text.size() <= payload.size() && (text.empty() || text.back() != '\0'));
  // The category is the one the word names, and the word is its own.
  const char* word = wire::CategoryWord(p.category);
  FUZZ_CHECK(word != nullptr && p.header.word == word);
}

void Drain(PacketFramer* framer, std::vector<Event>* events) {
  for (;;) {
    Packet p;
    std::string reason;
    PacketFramer::Result r = framer->Next(&p, &reason);
    if (r == PacketFramer::Result::kNeedMore) break;
    if (r == PacketFramer::Result::kBad) {
      FUZZ_CHECK(!reason.empty());
      events->push_back({false, reason, 0});
      continue;
    }
    CheckPacket(p);
    events->push_back({true, std::string(p.data, p.size), p.category});
  }
  FUZZ_CHECK(framer->buffered() <= framer->capacity());
}

// Read sizes that vary with the input but not with the run: a small
// generator seeded from the input's bytes.
class ReadSizes {
 public:
  ReadSizes(const std::uint8_t* data, std::size_t size) : state_(0x9e3779b97f4a7c15u ^ size) {
    for (std::size_t i = 0; i < size && i < 16; ++i) state_ = state_ * 31 + data[i];
  }
  std::size_t Next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    static constexpr std::size_t kSizes[] = {1, 2, 3, 5, 6, 7, 16, 64, 4096};
    return kSizes[state_ % (sizeof kSizes / sizeof kSizes[0])];
  }

 private:
  std::uint64_t state_;
};

std::vector<Event> FrameInOneRead(const std::uint8_t* data, std::size_t size) {
  PacketFramer framer;
  std::vector<Event> events;
  if (size > 0) {
    std::memcpy(framer.Reserve(size), data, size);
    framer.Commit(size);
  }
  Drain(&framer, &events);
  return events;
}

std::vector<Event> FrameInPieces(const std::uint8_t* data, std::size_t size) {
  PacketFramer framer;
  std::vector<Event> events;
  ReadSizes sizes(data, size);
  std::size_t done = 0;
  while (done < size) {
    std::size_t want = sizes.Next();
    char* room = framer.Reserve(want);
    // A read may return less than was asked for.
    std::size_t got = std::min(size - done, want - (want > 1 ? sizes.Next() % want : 0));
    std::memcpy(room, data + done, got);
    framer.Commit(got);
    done += got;
    Drain(&framer, &events);
    if (framer.buffered() == 0) framer.ReleaseIfEmpty();
  }
  return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<Event> whole = FrameInOneRead(data, size);

  // Each packet that the wire format's own splitter finds at the front of
  // the stream is one event: handed out when its word is a category and it
  // is below the size limit, refused otherwise.
  std::size_t index = 0;
  varn::fuzz::ForEachPacket(data, size, [&](const WirePacket& p) {
    FUZZ_CHECK(index < whole.size());
    bool good = p.category != 0 && p.whole.size() < wire::kPacketLimit;
    FUZZ_CHECK(whole[index].packet == good);
    if (good) FUZZ_CHECK(whole[index].text == p.whole && whole[index].category == p.category);
    ++index;
  });

  std::vector<Event> pieces = FrameInPieces(data, size);
  for (std::size_t i = 0; i < whole.size() && i < pieces.size(); ++i) {
    FUZZ_CHECK(whole[i] == pieces[i]);
    if (!whole[i].packet && whole[i].text == kBadLengthReason) return 0;
  }
  // Without a bad length field both runs saw the same stream to its end.
  FUZZ_CHECK(whole.size() == pieces.size());
  return 0;
}
