// Cuts a client's byte stream into packets and checks each header.
//
// A packet is handed out only when its length field is six digits, its
// total size is below the wire limit, its body has three header tokens and
// its category word is known. Anything else is reported as bad and skipped:
// - a length field that is not six digits leaves no way to find the next
//   packet, so everything buffered is discarded and framing starts again
//   with the next bytes that arrive;
// - an oversized packet is skipped by its declared length, without being
//   buffered;
// - a packet with a bad header is skipped by its length.
#ifndef VARN_QUON_PACKET_FRAMER_H_
#define VARN_QUON_PACKET_FRAMER_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "transport/wire_format.h"

namespace varn::quon {

struct Packet {
  const char* data = nullptr;  // the whole packet, length field included
  std::size_t size = 0;
  wire::Header header;  // views into data
  int category = 0;

  // The payload as sent, padding included.
  std::string_view raw_payload() const;
  // The payload without the trailing NUL padding.
  std::string_view text() const;
};

class PacketFramer {
 public:
  enum class Result { kNeedMore, kPacket, kBad };

  // Room for at least `want` more bytes; Commit says how many were stored.
  char* Reserve(std::size_t want);
  void Commit(std::size_t count);

  // The next packet, valid until the next call of Next or Reserve.
  Result Next(Packet* packet, std::string* reason);

  std::size_t buffered() const { return tail_ - head_; }
  std::size_t capacity() const { return capacity_; }
  // Frees the storage while nothing is buffered: an idle client costs no
  // read buffer.
  void ReleaseIfEmpty();

 private:
  std::unique_ptr<char[]> bytes_;  // not zeroed: only [head_, tail_) is read
  std::size_t capacity_ = 0;
  std::size_t head_ = 0;
  std::size_t tail_ = 0;
  std::size_t skip_ = 0;  // bytes of an oversized packet still to discard
};

}  // namespace varn::quon

#endif  // VARN_QUON_PACKET_FRAMER_H_
