#include "quon/packet_framer.h"

#include "transport/wire_requests.h"

#include <algorithm>
#include <cstring>

namespace varn::quon {

std::string_view Packet::raw_payload() const {
  if (!header.has_payload) return {};
  return std::string_view(data + wire::kLengthDigits + header.payload_offset,
                          header.payload_length);
}

std::string_view Packet::text() const { return wire::WithoutPadding(raw_payload()); }

char* PacketFramer::Reserve(std::size_t want) {
  if (tail_ + want > capacity_) {
    if (head_ > 0) {
      std::memmove(bytes_.get(), bytes_.get() + head_, tail_ - head_);
      tail_ -= head_;
      head_ = 0;
    }
    if (tail_ + want > capacity_) {
      std::size_t grown = tail_ + want;
      std::unique_ptr<char[]> bigger(new char[grown]);
      if (tail_ > 0) std::memcpy(bigger.get(), bytes_.get(), tail_);
      bytes_ = std::move(bigger);
      capacity_ = grown;
    }
  }
  return bytes_.get() + tail_;
}

void PacketFramer::ReleaseIfEmpty() {
  if (head_ != tail_ || skip_ > 0) return;
  head_ = tail_ = 0;
  bytes_.reset();
  capacity_ = 0;
}

void PacketFramer::Commit(std::size_t count) { tail_ += count; }

PacketFramer::Result PacketFramer::Next(Packet* packet, std::string* reason) {
  if (skip_ > 0) {
    std::size_t n = std::min(skip_, tail_ - head_);
    head_ += n;
    skip_ -= n;
    if (skip_ > 0) return Result::kNeedMore;
  }
  if (head_ == tail_) {
    head_ = tail_ = 0;
    return Result::kNeedMore;
  }
  std::size_t available = tail_ - head_;
  if (available < wire::kLengthDigits) return Result::kNeedMore;
  const char* start = bytes_.get() + head_;
  std::size_t length = 0;
  if (wire::ParseLength(start, &length) != wire::WireError::kOk) {
    *reason = "length field is not six digits";
    head_ = tail_ = 0;
    return Result::kBad;
  }
  std::size_t total = wire::kLengthDigits + length;
  if (total >= wire::kPacketLimit) {
    *reason = "packet of " + std::to_string(total) + " bytes is over the size limit";
    head_ += wire::kLengthDigits;
    skip_ = length;
    return Result::kBad;
  }
  if (available < total) {
    Reserve(total - available);  // so that the rest arrives in one piece
    return Result::kNeedMore;
  }
  start = bytes_.get() + head_;
  head_ += total;
  Packet p;
  p.data = start;
  p.size = total;
  if (wire::SplitBody(start + wire::kLengthDigits, length, &p.header) != wire::WireError::kOk) {
    *reason = "fewer than three header tokens";
    return Result::kBad;
  }
  if (!wire::CategoryFromWord(p.header.word, &p.category)) {
    *reason = "unknown category word \"" + std::string(p.header.word.substr(0, 32)) + "\"";
    return Result::kBad;
  }
  *packet = p;
  return Result::kPacket;
}

}  // namespace varn::quon
