// Packet output: locks and per-thread packet buffers of the send side.
//
// Locks, in the order they may be taken:
//   1. the send lock (re-entrant): varn_send_msg holds it across a whole
//      protocol step, varnP_write_packet around each packet, so that two
//      threads sending at once do not interleave their exchanges. A DATA
//      record has no step after its write (or its append to the batch, which
//      belongs to the application's thread): varn_send_msg takes no lock
//      for it, the packet writer's hold covers the write;
//   2. the wire lock: held while the bytes of one packet go onto the
//      channel, so packets of different threads never interleave. It is the
//      socket write lock, used for pipes as well;
//   3. the link table's mutex (links.h), taken under the wire lock to choose
//      between the hub and a peer's link for each packet.
// Threads that send outside any exchange take only the wire lock: the
// error-forwarding thread (its STDERR lines), and the input thread when it
// answers a status query. Waiting for the send lock there could deadlock:
// the application's thread holds it across a whole acknowledgement wait,
// which the input thread has to feed.
// The input thread, while it handles an interrupt with the application's
// thread held, takes only the wire lock too: the held thread may own the
// send lock, but it normally never owns the wire lock (a hold is deferred
// while it writes a packet; see platform/thread.h DeferHoldScope). When the
// deferral outlasted its bound (a write blocked on a congested channel),
// the held thread may own the wire lock, and interrupt sends fail with 25
// instead of waiting for it.
#ifndef VARN_TRANSPORT_OUTPUT_H_
#define VARN_TRANSPORT_OUTPUT_H_

#include <cstddef>

namespace varn::transport {

// Marks the calling thread as handling an interrupt (or no longer).
// wire_busy: the held thread may own the wire lock.
void SetInterruptContext(bool on, bool wire_busy = false);
bool InInterruptContext();

// Makes the calling thread build its packets in a buffer of its own instead
// of the application thread's shared packet buffer.
void UsePrivatePacketBuffer();

// Acknowledgements of CMD, BEGIN and END may be corked: written together
// with the next packet the process sends (an answer that follows at once
// costs one write and one wake-up of the hub instead of two), or when the
// application's thread next waits for input, or when the input thread
// takes the reading turn back (within HandOver::kReclaimMs). Order on the
// wire is kept: every write puts corked bytes first.
int SendAcknowledgement(const char* destination, const char* source);
// Application's thread: whether the packet it handles now was read by
// itself (then its acknowledgement may wait).
void AllowCorking(bool on);
// Writes corked acknowledgements now, if there are any.
void FlushCorked();
// Closes the write ends of links that ended (links.h), under the wire
// lock: waiting for it (at most two seconds), or only when it is free
// (else the holder's next write closes them). Not with the link table's
// mutex held.
void CloseEndedLinks(bool wait);

// Writes the "link over" PING to peer through the hub and, under the same
// hold of the wire lock, switches packets to peer onto its link
// (links.h). 0 or the error number.
int SendLinkOver(const char* peer);

// Holds the send lock for a scope. Two kinds of thread are exempt and take
// nothing: one that handles an interrupt (the held application's thread may
// own the lock) and one that sends outside exchanges (WireOnlyScope).
class SendLockUnlessExempt {
 public:
  SendLockUnlessExempt();
  ~SendLockUnlessExempt();
  SendLockUnlessExempt(const SendLockUnlessExempt&) = delete;
  SendLockUnlessExempt& operator=(const SendLockUnlessExempt&) = delete;

 private:
  bool locked_;
};

// For its lifetime the calling thread sends outside exchanges: only the
// wire lock is taken, and its packets are not traced.
class WireOnlyScope {
 public:
  WireOnlyScope();
  ~WireOnlyScope();
  WireOnlyScope(const WireOnlyScope&) = delete;
  WireOnlyScope& operator=(const WireOnlyScope&) = delete;

 private:
  bool previous_;
};

// Builds and writes one packet, in the calling thread's own buffer when it
// has one (else a buffer of the call's own, cut to 5800 bytes as the
// answers of the receive side are). Returns 0 or the error number;
// VarnErrorNo is not touched, so threads other than the application's can
// use it.
int SendPacketQuiet(const char* destination, const char* source, int category, const void* payload,
                    std::size_t length);

// The same, composed in a 5800-byte buffer of the call's own; a payload
// that would not fit is cut so that the answer still goes out.
int SendSmallPacketQuiet(const char* destination, const char* source, int category,
                         const void* payload, std::size_t length);

}  // namespace varn::transport

#endif  // VARN_TRANSPORT_OUTPUT_H_
