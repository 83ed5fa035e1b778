// Waiting for an answer: reading and handling incoming messages, one at a
// time, until the awaited one has arrived in its row, or the hub is gone.
//
// Every wait of the library is one of these: a send's acknowledgement, the
// answer to a start, a status answer, the hub's reply to a request, the
// next message from a peer, the next piece of a stream. While a wait runs,
// the messages it reads are handled as usual: rows are updated, queries
// answered, callbacks run. A Lane narrows what is handled at once to the
// awaited peer's messages; the rest waits in the queue for a later call.
#ifndef VARN_TRANSPORT_AWAIT_H_
#define VARN_TRANSPORT_AWAIT_H_

#include <initializer_list>

#include "core/library_lock.h"
#include "core/remote_file_table.h"
#include "varn.h"

namespace varn::transport {

class CategorySet {
 public:
  constexpr CategorySet() = default;
  constexpr CategorySet(std::initializer_list<int> codes) {
    for (int code : codes) {
      if (code > 0 && code < VARN_CATEGORY_COUNT) bits_ |= Bit(code);
    }
  }
  // From a mask with bit c set for each category c.
  static constexpr CategorySet FromMask(unsigned long long mask) {
    CategorySet set;
    set.bits_ = mask & ((1ull << VARN_CATEGORY_COUNT) - 1) & ~1ull;
    return set;
  }
  constexpr CategorySet With(CategorySet other) const {
    CategorySet set;
    set.bits_ = bits_ | other.bits_;
    return set;
  }
  constexpr bool contains(int code) const {
    return code > 0 && code < VARN_CATEGORY_COUNT && (bits_ & Bit(code)) != 0;
  }
  constexpr bool empty() const { return bits_ == 0; }
  // The form the queue's lane takes: VARN_CATEGORY_COUNT ints, 1 for a member.
  void Fill(int* entries) const;

 private:
  static constexpr unsigned long long Bit(int code) { return 1ull << code; }
  unsigned long long bits_ = 0;
};
static_assert(VARN_CATEGORY_COUNT <= 64, "CategorySet holds the codes in one word");

// For its lifetime, only the messages of row h (of `categories`; all of
// them when the set is empty), interrupts, and the hub's answers and loss
// are handled as they arrive; every other message is queued.
class Lane {
 public:
  Lane(int h, CategorySet categories) REQUIRES(core::kLibrary);
  ~Lane();
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;
};

// Reads and handles one message after another until done() holds. False
// when a read failed; VarnErrorNo then says why (43 once the hub is gone).
// `wait` is the flag of varn_recv_read_and_parse_message.
template <typename Done>
bool AwaitUntil(Done done, int wait = 1) REQUIRES(core::kLibrary) {
  while (!done()) {
    if (!varn_recv_read_and_parse_message(wait)) return false;
  }
  return true;
}

// Forgets row h's last message and waits until one of `until` arrives in
// it. With `lane`, only h's messages of the categories `until` are handled
// meanwhile.
bool AwaitRow(int h, CategorySet until, bool lane, int wait = 1) REQUIRES(core::kLibrary);

// Waits until the hub's answer to a request, one of `until`, has been
// filed into the awaiting row.
bool AwaitAnswer(const core::AwaitingAnswer& row, CategorySet until) REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_AWAIT_H_
