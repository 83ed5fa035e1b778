// The batch form of DATA: records (six length digits, then the bytes)
// inside the payload of one DATA packet, collected in the stream buffer.
//
// The input is a run of DATA packets as a peer sends them inside a stream.
// Each payload, padding included, is appended to the stream buffer as the
// receive side does, and records are read out the way the stream readers do
// (the length first, then the record into a buffer that holds it), after
// every second packet, so that records of several packets and the padding
// between them meet in the buffer. Reading stops at the first corrupt
// record, which drops the stream.
//
// The records read are then sent back through the send side's batching to
// the peer, ended with END as a stream is, and the DATA packets written
// must be well-formed, addressed to the peer and read back as exactly the
// same records.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/library_state.h"
#include "tests/fuzz/fuzz_support.h"
#include "transport/stream_buffer.h"
#include "transport/wire_format.h"
#include "varn.h"

namespace {

namespace core = varn::core;
namespace stream = varn::transport::stream;
namespace wire = varn::wire;
using varn::fuzz::MemoryInput;
using varn::fuzz::WirePacket;

constexpr const char* kOwnAddress = "4312@lab7";
constexpr const char* kDefaultPeer = "5120@lab7";

MemoryInput* g_output = nullptr;

// Reads the records the stream buffer holds. Six bytes or fewer are no
// record: they are dropped. False when a record is corrupt (the stream
// buffer is then empty).
bool ReadRecords(std::vector<std::string>* records) {
  while (stream::Unread() > 0) {
    std::size_t before = stream::Unread();
    std::size_t n = 0;
    char none = '\0';
    // No room at all: the record's length comes back, the record stays.
    stream::Taken first = stream::Take(&none, 0, &n);
    if (first == stream::Taken::kCorrupt) {
      FUZZ_CHECK(stream::Unread() == 0);
      return false;
    }
    FUZZ_CHECK(first == stream::Taken::kTooLong);
    if (before <= wire::kLengthDigits) {
      FUZZ_CHECK(n == 0 && stream::Unread() == 0);
      break;
    }
    FUZZ_CHECK(n + wire::kLengthDigits <= before);
    // Exactly the room the record needs, so that an overrun is caught.
    std::vector<char> buffer(n + 1);
    std::size_t taken = 0;
    if (n > 0) {
      FUZZ_CHECK(stream::Take(buffer.data(), static_cast<std::int64_t>(n), &taken) ==
                 stream::Taken::kTooLong);
    }
    FUZZ_CHECK(stream::Take(buffer.data(), static_cast<std::int64_t>(n + 1), &taken) ==
               stream::Taken::kRecord);
    FUZZ_CHECK(taken == n && buffer[n] == '\0');
    FUZZ_CHECK(stream::Unread() < before);
    records->emplace_back(buffer.data(), n);
  }
  return true;
}

// Whether the records read back are those sent. An empty record that ends
// the stream may be missing: when no padding follows it, its six digits
// are all that is left, which the readers take for the end of the data.
bool SameRecords(const std::vector<std::string>& sent, const std::vector<std::string>& back) {
  if (back.size() > sent.size()) return false;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (i < back.size() ? back[i] != sent[i] : !sent[i].empty()) return false;
  }
  return true;
}

std::vector<std::uint8_t> TakeOutput() {
  off_t end = lseek(g_output->fd(), 0, SEEK_END);
  FUZZ_CHECK(end >= 0);
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(end));
  FUZZ_CHECK(pread(g_output->fd(), bytes.data(), bytes.size(), 0) == end);
  g_output->Reset(nullptr, 0);
  return bytes;
}

// Sends the records to peer as a stream's DATA goes, then END; checks the
// packets written and reads the records back out of their payloads.
void RoundTrip(const std::string& peer, const std::vector<std::string>& records) {
  varn_send_init();
  FUZZ_CHECK(varnP_data_batch_reset());
  for (const std::string& r : records) {
    // A record that cannot fit any batch packet is refused (34), not sent.
    if (!varnP_data_batch_add(peer.c_str(), r.data(), r.size())) {
      FUZZ_CHECK(VarnErrorNo == VARN_E_TOO_LONG && !r.empty());
      return;
    }
  }
  FUZZ_CHECK(varn_send_packet(peer.c_str(), kOwnAddress, VARN_END, nullptr, 0));
  std::vector<std::uint8_t> out = TakeOutput();

  stream::Reset();
  std::size_t framed = 0;
  bool ended = false;
  varn::fuzz::ForEachPacket(out.data(), out.size(), [&](const WirePacket& p) {
    FUZZ_CHECK(!ended && p.whole.size() % 4 == 0 && p.whole.size() < wire::kPacketLimit);
    FUZZ_CHECK(p.header.destination == peer && p.header.source == kOwnAddress);
    framed += p.whole.size();
    if (p.category == VARN_END) {
      ended = true;
      return;
    }
    FUZZ_CHECK(p.category == VARN_DATA && p.header.has_payload);
    std::string_view payload = p.payload();
    FUZZ_CHECK(
        stream::Append(std::string(p.header.source).c_str(), payload.data(), payload.size()));
  });
  FUZZ_CHECK(ended && framed == out.size());
  std::vector<std::string> back;
  FUZZ_CHECK(ReadRecords(&back));
  FUZZ_CHECK(SameRecords(records, back));
  stream::Reset();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  core::OnApplicationThread();
  g_output = new MemoryInput();
  core::Setup& setup = core::MutableSetup();
  std::strcpy(setup.own_address, kOwnAddress);
  setup.quonout_fd = g_output->fd();
  VarnChanType = VARN_CHAN_PIPE;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  core::OnApplicationThread();
  stream::Reset();
  std::vector<std::string> records;
  std::string peer;
  bool corrupt = false;
  std::size_t count = 0;
  varn::fuzz::ForEachPacket(data, size, [&](const WirePacket& p) {
    if (corrupt || p.category != VARN_DATA) return;
    // The source, as the receive side has it: a text up to its NUL.
    std::string source(p.header.source);
    if (peer.empty()) peer = source.size() < 256 ? source : kDefaultPeer;
    std::string_view payload = p.payload();
    FUZZ_CHECK(stream::Append(source.c_str(), payload.data(), payload.size()));
    if (++count % 2 == 0) corrupt = !ReadRecords(&records);
  });
  if (!corrupt) ReadRecords(&records);
  stream::Reset();
  if (!peer.empty()) RoundTrip(peer, records);
  VarnErrorNo = 0;
  return 0;
}
