// Deadlines on the reads of a wait.
//
// A ReadDeadline scope makes every read that a wait makes meanwhile (a
// message handed over by the input thread, or read from the channel by this
// thread itself) give up once the deadline has passed; the wait then ends
// as after a failed read, and Passed() tells that the deadline was the
// cause. Scopes nest: the inner one is in force until it ends.
//
// A status query that a deadline cut short leaves its answer on the way:
// NoteLate makes the receive side drop that answer when it comes, instead
// of filing it where a later wait on the peer would take it.
//
// A command whose acknowledgement a deadline gave up on leaves that ACK or
// NAK on the way too. It is kept (a wait may ask for it), but noted: the
// acknowledgement wait of the next command to the peer counts it off and
// waits on for its own, since a peer acknowledges its commands in order.
//
// Thread ownership: the state belongs to whoever holds the library's state
// (core::kLibrary): the application's thread, or the input thread while it
// handles an interrupt with that thread held.
#ifndef VARN_TRANSPORT_DEADLINE_H_
#define VARN_TRANSPORT_DEADLINE_H_

#include <cstdint>

#include "core/library_lock.h"

namespace varn::transport {

class ReadDeadline {
 public:
  // deadline_ms is a platform::MonotonicMillis time.
  explicit ReadDeadline(std::int64_t deadline_ms) REQUIRES(core::kLibrary);
  ~ReadDeadline();
  ReadDeadline(const ReadDeadline&) = delete;
  ReadDeadline& operator=(const ReadDeadline&) = delete;

  // Whether a read of this scope gave up at the deadline.
  bool Passed() const REQUIRES(core::kLibrary);

 private:
  std::int64_t outer_deadline_ms_;
  bool outer_passed_;
};

// For its lifetime no deadline is in force: a callback that runs during a
// wait with a deadline waits, if it does, as it would anywhere else.
class NoReadDeadline {
 public:
  NoReadDeadline() REQUIRES(core::kLibrary);
  ~NoReadDeadline();
  NoReadDeadline(const NoReadDeadline&) = delete;
  NoReadDeadline& operator=(const NoReadDeadline&) = delete;

 private:
  std::int64_t outer_deadline_ms_;
  bool outer_passed_;
};

// The deadline in force, or -1 for none.
std::int64_t CurrentDeadline() REQUIRES(core::kLibrary);
// A read gave up at the current deadline.
void NoteDeadlinePassed() REQUIRES(core::kLibrary);

// Answers a wait gave up on.
enum class LateAnswer {
  kStatus,           // STATUS, to a status query
  kAcknowledgement,  // ACK or NAK, to a command (counted off by the waits)
};
// The next answer of this kind from this address is late and goes nowhere.
void NoteLate(LateAnswer kind, const char* address) REQUIRES(core::kLibrary);
// Whether an answer of this kind from this address is a late one (it is
// counted off then).
bool TakeLate(LateAnswer kind, const char* address) REQUIRES(core::kLibrary);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_DEADLINE_H_
